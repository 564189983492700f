#include "mdns/answer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "records/registry.h"
#include "tests/support/bytes.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fake_socket.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

constexpr char kHeader[] = "00 00 00 00 00 01 00 00 00 00 00 00 ";
constexpr char kHostQuestion[] = "08 'myrouter' 05 'local' 00 00 01 00 01";
constexpr char kIppQuestion[] = "04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01";
constexpr char kPrinterQuestion[] = "08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01";

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

void Register(const char* name, const char* type, const char* txt = "a=b", int32_t length = 3,
              uint32_t port = 631) {
  ASSERT_EQ(ServiceRegistryUpdate(SERVICE_ADD, name, type, ".local", txt, length, port), 1u);
}

class AnswerTest : public testing::Test {
 protected:
  AnswerTest() {
    SetDeviceName("myrouter");
    responderState.interfaceAddress[0].Set(inet_addr("192.168.1.1"));
    responderState.mdnsDestination = Address("224.0.0.251", 5353);
    // The address has changed by the time that an answer is made.
    fakeSocketModule.updateHostIP = [this](uint32_t slot) -> uint32_t {
      ++updates;
      if (!hasAddress) return 0;
      responderState.interfaceAddress[slot].Set(inet_addr("192.168.1.2"));
      return 1;
    };
    StartAnswering(state, 0);
    ForgetSentPackets();
  }
  ~AnswerTest() override {
    StdoutOf([] {
      while (ServiceRegistryUpdate(SERVICE_REMOVE, "", "", "", nullptr, 0, 0) != 0) {
      }
    });
  }

  // Handles a message and returns the log; `from` is the sender's address.
  std::string Handle(const std::string& notation, const char* from = "192.168.1.9") {
    const Bytes message = Wire(notation);
    std::copy(message.begin(), message.end(), state.receiveBuffer);
    return StdoutOf([&] { AnswerMessage(state, message.size(), Address(from, 5353), 21); });
  }

  static std::string Answer(size_t index) { return Hex(SentPackets().at(index).bytes); }

  AnsweringState state;
  bool hasAddress = true;
  int updates = 0;
};

TEST_F(AnswerTest, HostNameIsAnsweredWithTheRefreshedAddress) {
  EXPECT_EQ(Handle(std::string(kHeader) + kHostQuestion),
            "[Bonjour] answer(192.168.1.1) query target from 192.168.1.9 (32)\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kHostAnswer));
  EXPECT_EQ(SentPackets()[0].length, static_cast<int32_t>(SentPackets()[0].bytes.size()));
  EXPECT_EQ(SentPackets()[0].socket, 21);
  EXPECT_EQ(ntohs(SentPackets()[0].destination.sin_port), 5353);
  EXPECT_STREQ(inet_ntoa(SentPackets()[0].destination.sin_addr), "224.0.0.251");
}

TEST_F(AnswerTest, HostNameIgnoresCase) {
  Handle(std::string(kHeader) + "08 'MYROUTER' 05 'local' 00 00 01 00 01");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kHostAnswer));
}

TEST_F(AnswerTest, OtherTypesForTheHostNameGetNothing) {
  for (const char* type : {"00 FF", "00 1C", "00 0C", "00 00", "01 02"}) {
    EXPECT_EQ(Handle(std::string(kHeader) + "08 'myrouter' 05 'local' 00 " + type + " 00 01"), "")
        << type;
  }
  EXPECT_EQ(SentPackets().size(), 0u);
  EXPECT_EQ(updates, 0);
}

TEST_F(AnswerTest, HostNameQuestionIsNotLookedUpAmongServices) {
  Register("Office", "_ipp._tcp");
  Handle("00 00 00 00 00 02 00 00 00 00 00 00 08 'myrouter' 05 'local' 00 00 1C 00 01 " +
         std::string(kIppQuestion));
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, WithoutAnAddressTheHostNameIsNotAnswered) {
  hasAddress = false;
  EXPECT_EQ(Handle(std::string(kHeader) + kHostQuestion),
            "[Bonjour] answer(192.168.1.1) query target from 192.168.1.9 (32)\n"
            "[MDNS_Answer] UpdateHostIP error\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, OwnPacketsAreJudgedByTheAddressAtTheStart) {
  EXPECT_EQ(Handle(std::string(kHeader) + kHostQuestion, "192.168.1.1"), "");
  EXPECT_EQ(SentPackets().size(), 0u);
  Handle(std::string(kHeader) + kHostQuestion, "192.168.1.9");
  Handle(std::string(kHeader) + kHostQuestion, "192.168.1.1");
  EXPECT_EQ(SentPackets().size(), 1u);
  Handle(std::string(kHeader) + kHostQuestion, "192.168.1.2");
  EXPECT_EQ(SentPackets().size(), 2u);
}

TEST_F(AnswerTest, AnyFlagInTheFirstByteMeansNoAnswer) {
  Register("Office", "_ipp._tcp");
  for (const char* flags : {"01", "02", "04", "08", "10", "20", "40", "80", "84"}) {
    const std::string header = std::string("00 00 ") + flags + " 00 00 01 00 00 00 00 00 00 ";
    EXPECT_EQ(Handle(header + kHostQuestion), "") << flags;
    EXPECT_EQ(Handle(header + kIppQuestion), "") << flags;
  }
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, RestOfTheHeaderDoesNotMatter) {
  Handle(std::string("12 34 00 FF 00 01 00 07 00 08 00 09 ") + kHostQuestion);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kHostAnswer));
}

TEST_F(AnswerTest, IppServiceIsAnsweredWithItsWholeSet) {
  Register("Office", "_ipp._tcp");
  EXPECT_EQ(Handle(std::string(kHeader) + kIppQuestion),
            "[Bonjour] answer(192.168.1.1) query _ipp from 192.168.1.9 (33)\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kIppAnswer));
  EXPECT_EQ(SentPackets()[0].length, static_cast<int32_t>(SentPackets()[0].bytes.size()));
  EXPECT_EQ(SentPackets()[0].socket, 21);
  EXPECT_EQ(ntohs(SentPackets()[0].destination.sin_port), 5353);
}

TEST_F(AnswerTest, SubtypeAndInstanceGetTheSameAnswer) {
  Register("Office", "_ipp._tcp");
  Handle(std::string(kHeader) +
         "0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01");
  Handle(std::string(kHeader) + "06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01");
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(Answer(0), WireHex(kIppAnswer));
  EXPECT_EQ(Answer(1), WireHex(kIppAnswer));
}

TEST_F(AnswerTest, PrinterServiceHasFourAnswers) {
  Register("Lab", "_printer._tcp", "a=b", 3, 515);
  EXPECT_EQ(Handle(std::string(kHeader) + kPrinterQuestion),
            "[Bonjour] answer(192.168.1.1) query _printer from 192.168.1.9 (37)\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0),
            WireHex("00 00 84 00 00 00 00 04 00 00 00 00"
                    " 08 'myrouter' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 02"
                    " 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 19"
                    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00"
                    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 21 80 01 00 00 00 78 00 16"
                    " 00 00 00 00 02 03 08 'myrouter' 05 'local' 00"
                    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 10 80 01 00 00 11 94 00 04"
                    " 03 'a=b'"));
}

TEST_F(AnswerTest, RawPortServiceHasFourAnswers) {
  Register("Lab", "_pdl-datastream._tcp", nullptr, 0, 9100);
  Handle(std::string(kHeader) + "0F '_pdl-datastream' 04 '_tcp' 05 'local' 00 00 0C 00 01");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(SentPackets()[0].bytes[7], 4);
  // A service without text is answered with a TXT record without data.
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(10)),
            WireHex("00 10 80 01 00 00 11 94 00 00"));
}

TEST_F(AnswerTest, TextIsCopiedByItsLength) {
  Register("Lab", "_printer._tcp", "a=bcd", 3);
  Handle(std::string(kHeader) + kPrinterQuestion);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(6)), WireHex("00 04 03 'a=b'"));
}

TEST_F(AnswerTest, TextEndsAtItsZeroAlsoWithALargerLength) {
  ExactBytes txt(Wire("'a=b' 00"));
  Register("Lab", "_printer._tcp", reinterpret_cast<const char*>(txt.Data()), 900);
  Handle(std::string(kHeader) + kPrinterQuestion);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(6)), WireHex("00 04 03 'a=b'"));
}

TEST_F(AnswerTest, MissingTextWithALengthIsEmpty) {
  Register("Lab", "_printer._tcp", nullptr, 7);
  Handle(std::string(kHeader) + kPrinterQuestion);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(2)), "00 00");
}

TEST_F(AnswerTest, OtherKindIsLoggedAndNotAnswered) {
  Register("Office", "_http._tcp");
  EXPECT_EQ(Handle(std::string(kHeader) + "05 '_http' 04 '_tcp' 05 'local' 00 00 0C 00 01"),
            "[Bonjour] answer(192.168.1.1) query _http from 192.168.1.9 (34)\n");
  EXPECT_EQ(SentPackets().size(), 0u);
  EXPECT_EQ(updates, 0);
}

TEST_F(AnswerTest, KindThatOnlyBeginsLikeOneIsNotAnswered) {
  Register("Office", "_ipps._tcp");
  EXPECT_EQ(Handle(std::string(kHeader) + "05 '_ipps' 04 '_tcp' 05 'local' 00 00 0C 00 01"),
            "[Bonjour] answer(192.168.1.1) query _ipps from 192.168.1.9 (34)\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, UnknownQuestionIsIgnored) {
  Register("Office", "_ipp._tcp");
  EXPECT_EQ(Handle(std::string(kHeader) + "05 '_http' 04 '_tcp' 05 'local' 00 00 0C 00 01"), "");
  EXPECT_EQ(Handle(std::string(kHeader) + "04 '_IPP' 04 '_tcp' 05 'local' 00 00 0C 00 01"), "");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, EachNamedServiceGetsItsAnswerInTheOrderOfRegistration) {
  Register("Lab", "_pdl-datastream._tcp", nullptr, 0, 9100);
  Register("Nodot", "_ipp");
  Register("Office", "_ipp._tcp");
  EXPECT_EQ(Handle("00 00 00 00 00 02 00 00 00 00 00 00 " + std::string(kIppQuestion) +
                   " 0F '_pdl-datastream' 04 '_tcp' 05 'local' 00 00 0C 00 01"),
            "[Bonjour] answer(192.168.1.1) query _pdl-datastream from 192.168.1.9 (65)\n"
            "[Bonjour] answer(192.168.1.2) query _ipp from 192.168.1.9 (65)\n");
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(SentPackets()[0].bytes[7], 4);
  EXPECT_EQ(Answer(1), WireHex(kIppAnswer));
}

TEST_F(AnswerTest, ServiceThatIsNotAskedForDoesNotEndTheScan) {
  Register("Lab", "_pdl-datastream._tcp", nullptr, 0, 9100);
  Register("Office", "_ipp._tcp");
  Handle(std::string(kHeader) + kIppQuestion);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(SentPackets()[0].bytes[7], 5);
}

TEST_F(AnswerTest, ShorterAnswerHoldsNothingOfALongerOne) {
  Register("Office", "_ipp._tcp");
  Handle(std::string(kHeader) + kIppQuestion);
  Handle(std::string(kHeader) + kHostQuestion);
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(Answer(1), WireHex(kHostAnswer));
  EXPECT_EQ(std::count(std::begin(state.packetBytes) + 42, std::end(state.packetBytes), 0),
            4554 - 42);
}

TEST_F(AnswerTest, WithoutAnAddressTheScanGoesOnWithoutAnswers) {
  Register("Office", "_ipp._tcp");
  Register("Lab", "_ipp._tcp");
  hasAddress = false;
  EXPECT_EQ(Handle(std::string(kHeader) + kIppQuestion),
            "[Bonjour] answer(192.168.1.1) query _ipp from 192.168.1.9 (33)\n"
            "[MDNS_Answer] UpdateHostIP error\n"
            "[Bonjour] answer(192.168.1.1) query _ipp from 192.168.1.9 (33)\n"
            "[MDNS_Answer] UpdateHostIP error\n");
  EXPECT_EQ(updates, 2);
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, RegistryIsLockedWhileAnAnswerIsMade) {
  Register("Office", "_ipp._tcp");
  std::atomic<bool> taken{false};
  std::thread other;
  onSendPacket = [&] {
    other = std::thread([&] {
      const RegistryLock lock;
      taken = true;
    });
    // The other thread can't get on before the scan is over, however long this one takes.
    for (int i = 0; i < 1000; ++i) {
      std::this_thread::yield();
      EXPECT_FALSE(taken);
    }
  };
  Handle(std::string(kHeader) + kIppQuestion);
  onSendPacket = nullptr;
  ASSERT_TRUE(other.joinable());
  other.join();
  EXPECT_TRUE(taken);
}

class MemoryTest : public AnswerTest, public testing::WithParamInterface<int> {};

// Per entry: the short label, then the instance name, the type name and the text.
INSTANTIATE_TEST_SUITE_P(Copies, MemoryTest, testing::Values(2, 3, 4));

TEST_P(MemoryTest, WithoutACopyTheScanGoesOnWithTheNextEntry) {
  Register("Lab", "_ipp._tcp");
  Register("Office", "_ipp._tcp");
  callocFault.FailCall(GetParam());
  CapturedOutput output;
  const Bytes message = Wire(std::string(kHeader) + kIppQuestion);
  std::copy(message.begin(), message.end(), state.receiveBuffer);
  AnswerMessage(state, message.size(), Address("192.168.1.9", 5353), 21);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kIppAnswer));
}

TEST_F(AnswerTest, TextOfNoLengthTakesNoMemory) {
  Register("Lab", "_ipp._tcp", nullptr, 0);
  callocFault.FailCall(4);
  Handle(std::string(kHeader) + kIppQuestion);
  EXPECT_FALSE(callocFault.HasStruck());
  callocFault.FailCall(0);
  EXPECT_EQ(SentPackets().size(), 1u);
}

TEST_F(AnswerTest, WithoutAShortLabelTheMessageIsDropped) {
  Register("Lab", "_ipp._tcp");
  Register("Office", "_ipp._tcp");
  callocFault.FailCall(1);
  CapturedOutput output;
  const Bytes message = Wire(std::string(kHeader) + kIppQuestion);
  std::copy(message.begin(), message.end(), state.receiveBuffer);
  AnswerMessage(state, message.size(), Address("192.168.1.9", 5353), 21);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "");
  EXPECT_EQ(SentPackets().size(), 0u);
  // The mutex was given back.
  EXPECT_EQ(ServiceLookup("Lab", "", ""), 1u);
}

TEST_F(AnswerTest, LeftoversCountForTheHostNameButNotForServices) {
  Register("Office", "_ipp._tcp");
  Handle(std::string(kHeader) + "08 'myrouter' 05 'local' 00 00 1C 00 01");
  // A header alone: the name behind it is left from before.
  Handle("00 00 00 00 00 01 00 00 00 00 00 00");
  EXPECT_EQ(SentPackets().size(), 0u);
  Handle(std::string(kHeader) + kHostQuestion);
  ForgetSentPackets();
  EXPECT_EQ(Handle("00"), "[Bonjour] answer(192.168.1.2) query target from 192.168.1.9 (1)\n");
  EXPECT_EQ(SentPackets().size(), 1u);

  Handle(std::string(kHeader) + kIppQuestion);
  ForgetSentPackets();
  EXPECT_EQ(Handle("00 00 00 00 00 01 00 00 00 00 00 00"), "");
  EXPECT_EQ(Handle("00 00 00 00 00 01 00 00 00 00 00 00 04 '_ip'"), "");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, SequencesOfCutMessagesNeverAnswerAService) {
  Register("Office", "_ipp._tcp");
  const Bytes whole = Wire(std::string(kHeader) + kIppQuestion);
  for (size_t size = 1; size < 17; ++size) {
    std::copy(whole.begin(), whole.end(), state.receiveBuffer);
    StdoutOf([&] { AnswerMessage(state, size, Address("192.168.1.9", 5353), 21); });
    EXPECT_EQ(SentPackets().size(), 0u) << size;
  }
}

struct HostLabelRow {
  size_t deviceNameLength;
  size_t kept;
};

class HostLabelTest : public AnswerTest, public testing::WithParamInterface<HostLabelRow> {};

INSTANTIATE_TEST_SUITE_P(Lengths, HostLabelTest,
                         testing::Values(HostLabelRow{1, 1}, HostLabelRow{50, 50},
                                         HostLabelRow{56, 56}, HostLabelRow{57, 57},
                                         HostLabelRow{58, 57}, HostLabelRow{60, 57},
                                         HostLabelRow{64, 57}));

TEST_P(HostLabelTest, HostNameHasAtMost63Characters) {
  const HostLabelRow& row = GetParam();
  SetDeviceName(std::string(row.deviceNameLength, 'x'));
  StartAnswering(state, 0);
  EXPECT_EQ(std::string(state.hostName), std::string(row.kept, 'x') + ".local");
  EXPECT_EQ(std::string(state.deviceName), std::string(row.deviceNameLength, 'x'));
}

TEST_F(AnswerTest, LongDeviceNameIsAskedForWholeAndAnsweredCut) {
  SetDeviceName(std::string(60, 'x'));
  StartAnswering(state, 0);
  Handle(std::string(kHeader) + "3C 60*'x' 05 'local' 00 00 01 00 01");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex("00 00 84 00 00 00 00 01 00 00 00 00 39 57*'x' 05 'local' 00"
                               " 00 01 00 01 00 00 00 78 00 04 C0 A8 01 02"));
}

TEST_F(AnswerTest, StartClearsTheReceiveBufferAndKeepsTheSlot) {
  state.receiveBuffer[0] = 1;
  state.receiveBuffer[1517] = 1;
  responderState.interfaceAddress[1].Set(inet_addr("10.0.0.1"));
  StartAnswering(state, 1);
  EXPECT_EQ(state.slot, 1u);
  EXPECT_EQ(state.ownAddress, inet_addr("10.0.0.1"));
  EXPECT_EQ(std::count(std::begin(state.receiveBuffer), std::end(state.receiveBuffer), 0), 1518);
  EXPECT_EQ(state.packet.capacity, 4554);
}

TEST_F(AnswerTest, LaterDeviceNameDoesNotReachARunningLoop) {
  SetDeviceName("other");
  Handle(std::string(kHeader) + kHostQuestion);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kHostAnswer));
}

class LoopTest : public AnswerTest {
 protected:
  LoopTest() {
    responderState.interfaceAddress[0].Set(inet_addr("127.0.0.1"));
    first.SetReceiveTimeout(20);
    second.SetReceiveTimeout(20);
    start = {first.Get(), 0};
  }
  ~LoopTest() override {
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

TEST_F(LoopTest, AnswersWhatArrivesUntilTheStop) {
  Run();
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(SentPackets()[0].socket, first.Get());
  EXPECT_EQ(Answer(1), WireHex(kHostAnswer));
}

TEST_F(LoopTest, ReadsTheDescriptorAnewBeforeEveryReceive) {
  onSendPacket = [this] { start.socket = second.Get(); };
  Run();
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send(Wire(std::string(kHeader) + kHostQuestion), second.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(SentPackets()[1].socket, second.Get());
}

TEST_F(LoopTest, EmptyDatagramsAreSkipped) {
  Run();
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send({}, first.Name());
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(SentPackets().size(), 2u);
}

TEST_F(LoopTest, OneByteInFrontOfAQuestionLeftOverIsAnswered) {
  Run();
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  client.Send(Wire("00"), first.Name());
  ASSERT_TRUE(WaitForSentPackets(2));
  Stop();
  EXPECT_EQ(output.Stdout(),
            "[Bonjour] answer(127.0.0.1) query target from 127.0.0.2 (32)\n"
            "[Bonjour] answer(192.168.1.2) query target from 127.0.0.2 (1)\n");
}

TEST_F(LoopTest, LongDatagramIsCutAtTheBuffer) {
  Bytes message = Wire(std::string(kHeader) + kHostQuestion);
  message.resize(3000, 0xFF);
  Run();
  client.Send(message, first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  Stop();
  EXPECT_EQ(output.Stdout(), "[Bonjour] answer(127.0.0.1) query target from 127.0.0.2 (1518)\n");
}

TEST_F(LoopTest, EndsAtOnceWhenStoppedBeforeItRuns) {
  bTerminate.Set(1);
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  EXPECT_EQ(MDNS_Answer(&start), nullptr);
  EXPECT_FALSE(first.HasNoPacket());
}

TEST_F(LoopTest, ServicesComeAndGoWhileQuestionsAreAnswered) {
  Run();
  std::thread monitor([] {
    for (int i = 0; i < 200; ++i) {
      ServiceRegistryUpdate(SERVICE_ADD, "Office", "_ipp._tcp", ".local", "a=b", 3, 631);
      ServiceRegistryUpdate(SERVICE_REMOVE, "Office", "_ipp._tcp", ".local", nullptr, 0, 0);
      SetDeviceName(i % 2 == 0 ? "myrouter-1" : "myrouter");
    }
  });
  const Bytes message = Wire(std::string(kHeader) + kIppQuestion);
  for (int i = 0; i < 200; ++i) client.Send(message, first.Name());
  monitor.join();
  client.Send(Wire(std::string(kHeader) + kHostQuestion), first.Name());
  ASSERT_TRUE(WaitForSentPackets(1));
  Stop();
  for (const SentPacket& packet : SentPackets()) {
    const std::string answer = Hex(packet.bytes);
    EXPECT_TRUE(answer == WireHex(kIppAnswer) || answer == WireHex(kHostAnswer)) << answer;
  }
}

}  // namespace
