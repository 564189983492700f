// One message to the answering loop: which questions are answered, and with which records.
#include "mdns/answer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "tests/support/answering.h"
#include "tests/support/fault.h"

namespace {

constexpr char kLpdQuestion[] = "08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01";

// The start

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

TEST_F(AnswerTest, NameAtTheStartIsKept) {
  SetDeviceName("other");
  Handle(Query(kHostQuestion));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kHostAnswer));
}

struct HostNameRow {
  size_t deviceNameLength;
  size_t kept;
};

class AnsweredHostNameTest : public AnswerTest, public testing::WithParamInterface<HostNameRow> {};

INSTANTIATE_TEST_SUITE_P(Lengths, AnsweredHostNameTest,
                         testing::Values(HostNameRow{1, 1}, HostNameRow{50, 50},
                                         HostNameRow{56, 56}, HostNameRow{57, 57},
                                         HostNameRow{58, 57}, HostNameRow{60, 57},
                                         HostNameRow{64, 57}));

TEST_P(AnsweredHostNameTest, HostNameHasAtMost63Characters) {
  const HostNameRow& row = GetParam();
  SetDeviceName(std::string(row.deviceNameLength, 'x'));
  StartAnswering(state, 0);
  EXPECT_EQ(std::string(state.hostName.text), std::string(row.kept, 'x') + ".local");
  EXPECT_EQ(std::string(state.deviceName.text), std::string(row.deviceNameLength, 'x'));
}

// Which messages are looked at

TEST_F(AnswerTest, OwnPacketsAreKnownByTheAddressAtTheStart) {
  EXPECT_EQ(Handle(Query(kHostQuestion), "192.168.1.1"), "");
  EXPECT_EQ(SentPackets().size(), 0u);
  Handle(Query(kHostQuestion), "192.168.1.9");
  Handle(Query(kHostQuestion), "192.168.1.1");
  EXPECT_EQ(SentPackets().size(), 1u);
  Handle(Query(kHostQuestion), "192.168.1.2");
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

// The host name

TEST_F(AnswerTest, HostNameIsAnsweredWithTheRefreshedAddress) {
  EXPECT_EQ(Handle(Query(kHostQuestion)),
            "[Bonjour] answer(192.168.1.1) query target from 192.168.1.9 (32)\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kHostAnswer));
  EXPECT_EQ(SentPackets()[0].length, static_cast<int32_t>(SentPackets()[0].bytes.size()));
  EXPECT_EQ(SentPackets()[0].socket, kSocket);
  EXPECT_EQ(ntohs(SentPackets()[0].destination.sin_port), 5353);
  EXPECT_STREQ(inet_ntoa(SentPackets()[0].destination.sin_addr), "224.0.0.251");
}

TEST_F(AnswerTest, HostNameIgnoresCase) {
  Handle(Query("08 'MYROUTER' 05 'local' 00 00 01 00 01"));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kHostAnswer));
}

TEST_F(AnswerTest, OtherTypesForTheHostNameGetNothing) {
  for (const char* type : {"00 FF", "00 1C", "00 0C", "00 00", "01 02"}) {
    EXPECT_EQ(Handle(Query(std::string("08 'myrouter' 05 'local' 00 ") + type + " 00 01")), "")
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

TEST_F(AnswerTest, LongDeviceNameIsAskedForWholeAndAnsweredCut) {
  SetDeviceName(std::string(60, 'x'));
  StartAnswering(state, 0);
  Handle(Query("3C 60*'x' 05 'local' 00 00 01 00 01"));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex("00 00 84 00 00 00 00 01 00 00 00 00 39 57*'x' 05 'local' 00"
                               " 00 01 00 01 00 00 00 78 00 04 C0 A8 01 02"));
}

TEST_F(AnswerTest, WithoutAnAddressTheHostNameIsNotAnswered) {
  hasAddress = false;
  EXPECT_EQ(Handle(Query(kHostQuestion)),
            "[Bonjour] answer(192.168.1.1) query target from 192.168.1.9 (32)\n"
            "[MDNS_Answer] UpdateHostIP error\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

// The services

TEST_F(AnswerTest, IppServiceIsAnsweredWithFiveRecords) {
  Register("Office", "_ipp._tcp");
  EXPECT_EQ(Handle(Query(kIppQuestion)),
            "[Bonjour] answer(192.168.1.1) query _ipp from 192.168.1.9 (33)\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kIppAnswer));
  EXPECT_EQ(SentPackets()[0].length, static_cast<int32_t>(SentPackets()[0].bytes.size()));
  EXPECT_EQ(SentPackets()[0].socket, kSocket);
  EXPECT_EQ(ntohs(SentPackets()[0].destination.sin_port), 5353);
}

TEST_F(AnswerTest, SubtypeAndInstanceGetTheSameAnswer) {
  Register("Office", "_ipp._tcp");
  Handle(Query("0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01"));
  Handle(Query("06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01"));
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(Answer(0), WireHex(kIppAnswer));
  EXPECT_EQ(Answer(1), WireHex(kIppAnswer));
}

TEST_F(AnswerTest, RawPortServiceIsAnsweredWithFourRecords) {
  Register("Lab", "_pdl-datastream._tcp", nullptr, 0, 9100);
  Handle(Query("0F '_pdl-datastream' 04 '_tcp' 05 'local' 00 00 0C 00 01"));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(AnswerCount(0), 4);
  // A service without text is answered with a TXT record without data.
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(10)),
            WireHex("00 10 80 01 00 00 11 94 00 00"));
}

TEST_F(AnswerTest, LpdServiceIsAnsweredWithFourRecords) {
  Register("Lab", "_printer._tcp", "a=b", 3, 515);
  EXPECT_EQ(Handle(Query(kLpdQuestion)),
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

TEST_F(AnswerTest, EachServiceAskedForIsAnsweredInTheOrderOfRegistration) {
  Register("Lab", "_pdl-datastream._tcp", nullptr, 0, 9100);
  Register("Nodot", "_ipp");
  Register("Office", "_ipp._tcp");
  EXPECT_EQ(Handle("00 00 00 00 00 02 00 00 00 00 00 00 " + std::string(kIppQuestion) +
                   " 0F '_pdl-datastream' 04 '_tcp' 05 'local' 00 00 0C 00 01"),
            "[Bonjour] answer(192.168.1.1) query _pdl-datastream from 192.168.1.9 (65)\n"
            "[Bonjour] answer(192.168.1.2) query _ipp from 192.168.1.9 (65)\n");
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(AnswerCount(0), 4);
  EXPECT_EQ(Answer(1), WireHex(kIppAnswer));
}

TEST_F(AnswerTest, ServiceThatIsNotAskedForDoesNotEndTheScan) {
  Register("Lab", "_pdl-datastream._tcp", nullptr, 0, 9100);
  Register("Office", "_ipp._tcp");
  Handle(Query(kIppQuestion));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(AnswerCount(0), 5);
}

TEST_F(AnswerTest, QuestionForNoRegisteredServiceIsIgnored) {
  Register("Office", "_ipp._tcp");
  EXPECT_EQ(Handle(Query("05 '_http' 04 '_tcp' 05 'local' 00 00 0C 00 01")), "");
  EXPECT_EQ(Handle(Query("04 '_IPP' 04 '_tcp' 05 'local' 00 00 0C 00 01")), "");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, OtherServiceTypeIsLoggedAndNotAnswered) {
  Register("Office", "_http._tcp");
  EXPECT_EQ(Handle(Query("05 '_http' 04 '_tcp' 05 'local' 00 00 0C 00 01")),
            "[Bonjour] answer(192.168.1.1) query _http from 192.168.1.9 (34)\n");
  EXPECT_EQ(SentPackets().size(), 0u);
  EXPECT_EQ(updates, 0);
}

TEST_F(AnswerTest, ServiceTypeThatOnlyBeginsLikeOneIsLoggedAndNotAnswered) {
  Register("Office", "_ipps._tcp");
  EXPECT_EQ(Handle(Query("05 '_ipps' 04 '_tcp' 05 'local' 00 00 0C 00 01")),
            "[Bonjour] answer(192.168.1.1) query _ipps from 192.168.1.9 (34)\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

// The text of a service

TEST_F(AnswerTest, TextIsCopiedByItsLength) {
  Register("Lab", "_printer._tcp", "a=bcd", 3);
  Handle(Query(kLpdQuestion));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(6)), WireHex("00 04 03 'a=b'"));
}

TEST_F(AnswerTest, TextEndsAtItsZeroAlsoWithALargerLength) {
  ExactBytes txt(Wire("'a=b' 00"));
  Register("Lab", "_printer._tcp", reinterpret_cast<const char*>(txt.Data()), 900);
  Handle(Query(kLpdQuestion));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(6)), WireHex("00 04 03 'a=b'"));
}

TEST_F(AnswerTest, MissingTextWithALengthIsEmpty) {
  Register("Lab", "_printer._tcp", nullptr, 7);
  Handle(Query(kLpdQuestion));
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).last(2)), "00 00");
}

// One answer after another

TEST_F(AnswerTest, ShorterAnswerHoldsNothingOfALongerOne) {
  Register("Office", "_ipp._tcp");
  Handle(Query(kIppQuestion));
  Handle(Query(kHostQuestion));
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(Answer(1), WireHex(kHostAnswer));
  EXPECT_EQ(std::count(std::begin(state.packetBytes) + 42, std::end(state.packetBytes), 0),
            4554 - 42);
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
    // The other thread cannot get on before the scan is over, however long this one takes.
    for (int i = 0; i < 1000; ++i) {
      std::this_thread::yield();
      EXPECT_FALSE(taken);
    }
  };
  Handle(Query(kIppQuestion));
  onSendPacket = nullptr;
  ASSERT_TRUE(other.joinable());
  other.join();
  EXPECT_TRUE(taken);
}

TEST_F(AnswerTest, WithoutAnAddressTheScanGoesOnWithoutAnswers) {
  Register("Office", "_ipp._tcp");
  Register("Lab", "_ipp._tcp");
  hasAddress = false;
  EXPECT_EQ(Handle(Query(kIppQuestion)),
            "[Bonjour] answer(192.168.1.1) query _ipp from 192.168.1.9 (33)\n"
            "[MDNS_Answer] UpdateHostIP error\n"
            "[Bonjour] answer(192.168.1.1) query _ipp from 192.168.1.9 (33)\n"
            "[MDNS_Answer] UpdateHostIP error\n");
  EXPECT_EQ(updates, 2);
  EXPECT_EQ(SentPackets().size(), 0u);
}

// Bytes left over from an earlier message

TEST_F(AnswerTest, LeftOverBytesCountForTheHostNameButNotForServices) {
  Register("Office", "_ipp._tcp");
  Handle(Query("08 'myrouter' 05 'local' 00 00 1C 00 01"));
  // A header alone: the name after it is left from before.
  Handle("00 00 00 00 00 01 00 00 00 00 00 00");
  EXPECT_EQ(SentPackets().size(), 0u);
  Handle(Query(kHostQuestion));
  ForgetSentPackets();
  EXPECT_EQ(Handle("00"), "[Bonjour] answer(192.168.1.2) query target from 192.168.1.9 (1)\n");
  EXPECT_EQ(SentPackets().size(), 1u);

  Handle(Query(kIppQuestion));
  ForgetSentPackets();
  EXPECT_EQ(Handle("00 00 00 00 00 01 00 00 00 00 00 00"), "");
  EXPECT_EQ(Handle("00 00 00 00 00 01 00 00 00 00 00 00 04 '_ip'"), "");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(AnswerTest, SequencesOfCutMessagesNeverAnswerAService) {
  Register("Office", "_ipp._tcp");
  const Bytes whole = Wire(Query(kIppQuestion));
  for (size_t size = 1; size < 17; ++size) {
    std::copy(whole.begin(), whole.end(), state.receiveBuffer);
    StdoutOf([&] { AnswerMessage(state, size, SocketAddress("192.168.1.9", 5353), kSocket); });
    EXPECT_EQ(SentPackets().size(), 0u) << size;
  }
}

// Lack of memory

TEST_F(AnswerTest, WithoutAShortLabelTheMessageIsDropped) {
  Register("Lab", "_ipp._tcp");
  Register("Office", "_ipp._tcp");
  callocFault.FailCall(1);
  CapturedOutput output;
  const Bytes message = Wire(Query(kIppQuestion));
  std::copy(message.begin(), message.end(), state.receiveBuffer);
  AnswerMessage(state, message.size(), SocketAddress("192.168.1.9", 5353), kSocket);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "");
  EXPECT_EQ(SentPackets().size(), 0u);
  // The mutex was given back.
  EXPECT_EQ(ServiceLookup("Lab", "", ""), 1u);
}

class AnswerWithoutMemoryTest : public AnswerTest, public testing::WithParamInterface<int> {};

// Per entry: the short label, then the instance name, the type name and the text.
INSTANTIATE_TEST_SUITE_P(Copies, AnswerWithoutMemoryTest, testing::Values(2, 3, 4));

TEST_P(AnswerWithoutMemoryTest, WithoutACopyTheScanGoesOnWithTheNextEntry) {
  Register("Lab", "_ipp._tcp");
  Register("Office", "_ipp._tcp");
  callocFault.FailCall(GetParam());
  CapturedOutput output;
  const Bytes message = Wire(Query(kIppQuestion));
  std::copy(message.begin(), message.end(), state.receiveBuffer);
  AnswerMessage(state, message.size(), SocketAddress("192.168.1.9", 5353), kSocket);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Answer(0), WireHex(kIppAnswer));
}

TEST_F(AnswerTest, TextOfNoLengthTakesNoMemory) {
  Register("Lab", "_ipp._tcp", nullptr, 0);
  callocFault.FailCall(4);
  Handle(Query(kIppQuestion));
  EXPECT_FALSE(callocFault.HasStruck());
  callocFault.FailCall(0);
  EXPECT_EQ(SentPackets().size(), 1u);
}

}  // namespace
