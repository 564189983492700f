// MDNS_Answer, the body of the answering thread: what it receives, until the stop.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "mdns/answer.h"
#include "tests/support/answering.h"

namespace {

class AnsweringThreadTest : public AnswerTest {
 protected:
  AnsweringThreadTest() {
    responderState.interfaceAddress[0].Set(inet_addr("127.0.0.1"));
    first.SetReceiveTimeout(20);
    second.SetReceiveTimeout(20);
    start = {first.Get(), 0};
  }
  ~AnsweringThreadTest() override {
    onSendPacket = nullptr;
    bTerminate.Set(0);
  }

  void Run() {
    thread = std::thread([this] { EXPECT_EQ(MDNS_Answer(&start), nullptr); });
  }
  void Stop() {
    bTerminate.Set(1);
    thread.join();
  }

  const OwnNetwork network;
  const UdpSocket first{"127.0.0.1"};
  const UdpSocket second{"127.0.0.1"};
  const UdpSocket client{"127.0.0.2"};
  AnswerStartRecord start{};
  std::thread thread;
  CapturedOutput output;
};

TEST_F(AnsweringThreadTest, AnswersWhatArrivesUntilTheStop) {
  Run();
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(SentPackets()[0].socket, first.Get());
  EXPECT_EQ(Answer(1), WireHex(kHostAnswer));
}

TEST_F(AnsweringThreadTest, ReadsTheDescriptorAnewBeforeEveryReceive) {
  onSendPacket = [this] { start.socket = second.Get(); };
  Run();
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send(Wire(Query(kHostQuestion)), second.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(SentPackets()[1].socket, second.Get());
}

TEST_F(AnsweringThreadTest, EmptyDatagramsAreSkipped) {
  Run();
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send({}, first.Name());
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(SentPackets().size(), 2u);
}

TEST_F(AnsweringThreadTest, OneByteBeforeALeftOverQuestionIsAnswered) {
  Run();
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send(Wire("00"), first.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(output.Stdout(),
            "[Bonjour] answer(127.0.0.1) query target from 127.0.0.2 (32)\n"
            "[Bonjour] answer(192.168.1.2) query target from 127.0.0.2 (1)\n");
}

TEST_F(AnsweringThreadTest, LongDatagramIsCutAtTheBuffer) {
  Bytes message = Wire(Query(kHostQuestion));
  message.resize(3000, 0xFF);
  Run();
  client.Send(message, first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  Stop();
  EXPECT_EQ(output.Stdout(), "[Bonjour] answer(127.0.0.1) query target from 127.0.0.2 (1518)\n");
}

TEST_F(AnsweringThreadTest, EndsAtOnceWhenStoppedBeforeItRuns) {
  bTerminate.Set(1);
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  EXPECT_EQ(MDNS_Answer(&start), nullptr);
  EXPECT_FALSE(first.HasNoPacket());
}

TEST_F(AnsweringThreadTest, ServicesComeAndGoWhileQuestionsAreAnswered) {
  Run();
  std::thread monitor([] {
    for (int i = 0; i < 200; ++i) {
      ServiceRegistryUpdate(SERVICE_ADD, "Office", "_ipp._tcp", ".local", "a=b", 3, 631);
      ServiceRegistryUpdate(SERVICE_REMOVE, "Office", "_ipp._tcp", ".local", nullptr, 0, 0);
      SetDeviceName(i % 2 == 0 ? "myrouter-1" : "myrouter");
    }
  });
  const Bytes message = Wire(Query(kIppQuestion));
  for (int i = 0; i < 200; ++i) client.Send(message, first.Name());
  monitor.join();
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  Stop();
  for (const SentPacket& packet : SentPackets()) {
    const std::string answer = Hex(packet.bytes);
    EXPECT_TRUE(answer == WireHex(kIppAnswer) || answer == WireHex(kHostAnswer)) << answer;
  }
}

}  // namespace
