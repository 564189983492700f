// The answering loop: which questions are answered, with which records, and what it receives.
#include "mdns/answer.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "tests/support/bytes.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fake_socket.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"
#include "tests/support/registry.h"

namespace {

constexpr char kHostQuestion[] = "08 'myrouter' 05 'local' 00 00 01 00 01";
constexpr char kIppQuestion[] = "04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01";
constexpr char kPdlQuestion[] = "0F '_pdl-datastream' 04 '_tcp' 05 'local' 00 00 0C 00 01";

constexpr char kHostAnswer[] =
    "00 00 84 00 00 00 00 01 00 00 00 00"
    " 08 'myrouter' 05 'local' 00 00 01 00 01 00 00 00 78 00 04 C0 A8 01 02";
constexpr char kIppAnswer[] =
    "00 00 84 00 00 00 00 05 00 00 00 00"
    " 08 'myrouter' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 02"
    " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 80 01 00 00 00 78 00 16"
    " 00 00 00 00 02 77 08 'myrouter' 05 'local' 00"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 10 80 01 00 00 11 94 00 04"
    " 03 'a=b'"
    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00";

constexpr int32_t kSocket = 21;

// A query of one question.
std::string Query(const std::string& question) {
  return "00 00 00 00 00 01 00 00 00 00 00 00 " + question;
}

void Register(const char* name, const char* type, const char* txt = "a=b", int32_t length = 3,
              uint32_t port = 631) {
  ASSERT_EQ(ServiceRegistryUpdate(SERVICE_ADD, name, type, ".local", txt, length, port), 1u);
}

// Host name and address of the router are myrouter.local and 192.168.1.1 at first.
class AnswerTest : public testing::Test {
 protected:
  AnswerTest() {
    SetDeviceName("myrouter");
    responderState.interfaceAddress[0].Set(inet_addr("192.168.1.1"));
    responderState.mdnsDestination = SocketAddress("224.0.0.251", 5353);
    // The address has changed by the time that an answer is made.
    fakeSocketModule.updateHostIP = [](uint32_t slot) -> uint32_t {
      responderState.interfaceAddress[slot].Set(inet_addr("192.168.1.2"));
      return 1;
    };
    StartAnswering(state, 0);
    ForgetSentPackets();
  }
  ~AnswerTest() override { EmptyRegistry(); }

  void Deliver(const std::string& notation, const char* sender = "192.168.1.9") {
    const Bytes message = Wire(notation);
    std::copy(message.begin(), message.end(), state.receiveBuffer);
    AnswerMessage(state, message.size(), SocketAddress(sender, 5353), kSocket);
  }
  // Returns the log.
  std::string Handle(const std::string& notation, const char* sender = "192.168.1.9") {
    return StdoutOf([&] { Deliver(notation, sender); });
  }

  // The answers since the last look, each of which went to the group.
  static std::vector<std::string> Answers() {
    std::vector<std::string> answers;
    for (const SentPacket& packet : SentPackets()) {
      EXPECT_EQ(packet.length, static_cast<int32_t>(packet.bytes.size()));
      EXPECT_EQ(packet.socket, kSocket);
      EXPECT_EQ(ntohs(packet.destination.sin_port), 5353);
      EXPECT_STREQ(inet_ntoa(packet.destination.sin_addr), "224.0.0.251");
      answers.push_back(Hex(packet.bytes));
    }
    ForgetSentPackets();
    return answers;
  }

  AnsweringState state;
};

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

TEST_F(AnswerTest, StartClearsTheReceiveBufferAndReadsTheSlotsAddress) {
  state.receiveBuffer[0] = 1;
  state.receiveBuffer[1517] = 1;
  responderState.interfaceAddress[1].Set(inet_addr("10.0.0.1"));
  StartAnswering(state, 1);
  EXPECT_EQ(state.slot, 1u);
  EXPECT_EQ(state.ownAddress, inet_addr("10.0.0.1"));
  EXPECT_EQ(std::count(std::begin(state.receiveBuffer), std::end(state.receiveBuffer), 0), 1518);
  EXPECT_EQ(state.packet.capacity, 4554);
}

TEST_F(AnswerTest, NameAtTheStartIsAskedForWholeAndAnsweredCutAt57) {
  SetDeviceName(std::string(57, 'x') + "yz");
  StartAnswering(state, 0);
  SetDeviceName("other");
  Handle(Query("3B 57*'x' 'yz' 05 'local' 00 00 01 00 01"));
  EXPECT_THAT(Answers(),
              ElementsAre(WireHex("00 00 84 00 00 00 00 01 00 00 00 00 39 57*'x' 05 'local' 00"
                                  " 00 01 00 01 00 00 00 78 00 04 C0 A8 01 02")));
}

TEST_F(AnswerTest, OwnPacketsAreKnownByTheAddressAtTheStart) {
  EXPECT_EQ(Handle(Query(kHostQuestion), "192.168.1.1"), "");
  Handle(Query(kHostQuestion), "192.168.1.9");
  Handle(Query(kHostQuestion), "192.168.1.1");
  EXPECT_EQ(Answers().size(), 1u);
  Handle(Query(kHostQuestion), "192.168.1.2");
  EXPECT_EQ(Answers().size(), 1u);
}

TEST_F(AnswerTest, OnlyTheFirstFlagsByteMatters) {
  Register("Office", "_ipp._tcp");
  for (const char* flags : {"01", "80", "84"}) {
    const std::string header = std::string("00 00 ") + flags + " 00 00 01 00 00 00 00 00 00 ";
    EXPECT_EQ(Handle(header + kHostQuestion) + Handle(header + kIppQuestion), "") << flags;
  }
  EXPECT_THAT(Answers(), IsEmpty());
  Handle(std::string("12 34 00 FF 00 01 00 07 00 08 00 09 ") + kHostQuestion);
  EXPECT_THAT(Answers(), ElementsAre(WireHex(kHostAnswer)));
}

// The host name

TEST_F(AnswerTest, HostNameIsAnsweredWithTheRefreshedAddress) {
  EXPECT_EQ(Handle(Query("08 'MyRouter' 05 'local' 00 00 01 00 01")),
            "[Bonjour] answer(192.168.1.1) query target from 192.168.1.9 (32)\n");
  EXPECT_THAT(Answers(), ElementsAre(WireHex(kHostAnswer)));
}

TEST_F(AnswerTest, OtherTypesForTheHostNameGetNothingNorAServiceBesideIt) {
  Register("Office", "_ipp._tcp");
  for (const char* type : {"00 FF", "00 1C", "00 00"}) {
    EXPECT_EQ(Handle("00 00 00 00 00 02 6*00 08 'myrouter' 05 'local' 00 " + std::string(type) +
                     " 00 01 " + kIppQuestion),
              "")
        << type;
  }
  EXPECT_THAT(Answers(), IsEmpty());
}

// The services

// A text is copied by its length and up to its zero.
TEST_F(AnswerTest, OtherServiceIsAnsweredWithItsTextAndNoSubtype) {
  ExactBytes txt(Wire("'a=b' 00"));
  Register("Lab", "_printer._tcp", "a=bcd", 3, 515);
  Register("Old", "_pdl-datastream._tcp", reinterpret_cast<const char*>(txt.Data()), 900);
  Register("Bad", "_printer._tcp", nullptr, 7);
  const std::string header = "00 00 00 00 00 01 6*00 ";
  Handle(header + "03 'Lab' 08 '_printer'");
  EXPECT_THAT(Answers(), ElementsAre(EndsWith(WireHex("00 04 03 'a=b'"))));
  Handle(header + "03 'Old' 0F '_pdl-datastream'");
  EXPECT_THAT(Answers(), ElementsAre(EndsWith(WireHex("00 04 03 'a=b'"))));
  Handle(header + "03 'Bad' 08 '_printer'");
  EXPECT_THAT(Answers(), ElementsAre(EndsWith(WireHex("80 01 00 00 11 94 00 00"))));
}

TEST_F(AnswerTest, EachServiceAskedForIsAnsweredInTheOrderOfRegistration) {
  Register("Lab", "_pdl-datastream._tcp", nullptr, 0, 9100);
  Register("Nodot", "_ipp");
  Register("Desk", "_printer._tcp", nullptr, 0, 515);
  Register("Office", "_ipp._tcp");
  EXPECT_EQ(Handle("00 00 00 00 00 02 6*00 " + std::string(kIppQuestion) + kPdlQuestion),
            "[Bonjour] answer(192.168.1.1) query _pdl-datastream from 192.168.1.9 (65)\n"
            "[Bonjour] answer(192.168.1.2) query _ipp from 192.168.1.9 (65)\n");
  EXPECT_THAT(Answers(),
              ElementsAre(StartsWith("00 00 84 00 00 00 00 04 00 00 00 00"), WireHex(kIppAnswer)));
}

TEST_F(AnswerTest, OtherServiceTypesAreLoggedAndNotAnswered) {
  Register("Office", "_ipps._tcp");
  EXPECT_EQ(Handle(Query("05 '_ipps' 04 '_tcp' 05 'local' 00 00 0C 00 01")),
            "[Bonjour] answer(192.168.1.1) query _ipps from 192.168.1.9 (34)\n");
  EXPECT_EQ(Handle(Query(kIppQuestion)), "");
  EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(AnswerTest, WithoutAnAddressNothingIsAnsweredAndTheScanGoesOn) {
  Register("Office", "_ipp._tcp");
  Register("Lab", "_ipp._tcp");
  fakeSocketModule.updateHostIP = [](uint32_t) { return 0u; };
  EXPECT_EQ(Handle(Query(kHostQuestion)),
            "[Bonjour] answer(192.168.1.1) query target from 192.168.1.9 (32)\n"
            "[MDNS_Answer] UpdateHostIP error\n");
  const std::string line =
      "[Bonjour] answer(192.168.1.1) query _ipp from 192.168.1.9 (33)\n"
      "[MDNS_Answer] UpdateHostIP error\n";
  EXPECT_EQ(Handle(Query(kIppQuestion)), line + line);
  EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(AnswerTest, LeftOverBytesCountForTheHostNameButNotForServices) {
  Register("Office", "_ipp._tcp");
  Handle(Query(kHostQuestion));
  EXPECT_EQ(Handle("00"), "[Bonjour] answer(192.168.1.2) query target from 192.168.1.9 (1)\n");
  EXPECT_EQ(Answers().size(), 2u);
  const Bytes whole = Wire(Query(kIppQuestion));
  std::copy(whole.begin(), whole.end(), state.receiveBuffer);
  for (size_t size = 1; size < 17; ++size) {
    AnswerMessage(state, size, SocketAddress("192.168.1.9", 5353), kSocket);
  }
  EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(AnswerTest, RegistryIsLockedWhileAnAnswerIsMade) {
  Register("Office", "_ipp._tcp");
  std::thread other;
  std::atomic<bool> isAnswering{true};
  onSendPacket = [&] {
    other = std::thread([&] {
      const RegistryLock lock;
      EXPECT_FALSE(isAnswering);
    });
    // Long enough for that thread to take the lock, were it free.
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    isAnswering = false;
  };
  Handle(Query(kIppQuestion));
  onSendPacket = nullptr;
  ASSERT_TRUE(other.joinable());
  other.join();
}

// Lack of memory: for the short label of an entry, then for its instance name, type name and text.
TEST_F(AnswerTest, WithoutMemoryAMessageIsDroppedOrTheScanGoesOnWithTheNextEntry) {
  Register("Lab", "_ipp._tcp");
  Register("Office", "_ipp._tcp");
  for (int call = 1; call <= 4; ++call) {
    callocFault.FailCall(call);
    CapturedOutput output;
    Deliver(Query(kIppQuestion));
    EXPECT_TRUE(callocFault.HasStruck());
    EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
    std::vector<std::string> expected;
    if (call > 1) expected.push_back(WireHex(kIppAnswer));
    EXPECT_EQ(Answers(), expected) << call;
  }
}

TEST_F(AnswerTest, TextOfNoLengthIsEmptyAndTakesNoMemory) {
  Register("Lab", "_ipp._tcp", nullptr, 0);
  callocFault.FailCall(4);
  Handle(Query(kIppQuestion));
  EXPECT_FALSE(callocFault.HasStruck());
  callocFault.FailCall(0);
  EXPECT_THAT(Answers(), ElementsAre(HasSubstr(WireHex("11 94 00 00 0A '_universal'"))));
}

// The body of the answering thread

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

TEST_F(AnsweringThreadTest, AnswersWhatArrivesOnTheDescriptorOfTheMoment) {
  onSendPacket = [this] { start.socket = second.Get(); };
  Run();
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send(Wire(Query(kHostQuestion)), second.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(SentPackets()[0].socket, first.Get());
  EXPECT_EQ(SentPackets()[1].socket, second.Get());
  EXPECT_EQ(Hex(SentPackets()[1].bytes), WireHex(kHostAnswer));
}

// An empty datagram is skipped; before what is left of a long one a single byte is enough.
TEST_F(AnsweringThreadTest, ReceivesAtMost1518BytesOverThoseOfTheLastMessage) {
  Bytes message = Wire(Query(kHostQuestion));
  message.resize(3000, 0xFF);
  Run();
  client.Send(message, first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send({}, first.Name());
  client.Send(Wire("00"), first.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(output.Stdout(),
            "[Bonjour] answer(127.0.0.1) query target from 127.0.0.2 (1518)\n"
            "[Bonjour] answer(192.168.1.2) query target from 127.0.0.2 (1)\n");
}

TEST_F(AnsweringThreadTest, EndsAtOnceWhenStoppedBeforeItRuns) {
  bTerminate.Set(1);
  client.Send(Wire(Query(kHostQuestion)), first.Name());
  EXPECT_EQ(MDNS_Answer(&start), nullptr);
  EXPECT_FALSE(first.HasNoPacket());
}

}  // namespace
