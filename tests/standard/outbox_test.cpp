#include "standard/outbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "tests/standard/host.h"

namespace {

using std::string;
using std::vector;
using testing::ElementsAre;
using testing::IsEmpty;

class Outgoing : public testing::Test {
 protected:
  void SetUp() override {
    host.AddPrinter("P");
    host.Settle();
  }

  vector<string> Within(int64_t time) { return host.RunFromNow(time); }

  void AskForHost(const Address& from = kOtherIpv4) {
    host.Hear({0, {{"host.local", kTypeA}}}, from);
  }

  Host host;
};

TEST_F(Outgoing, NoRecordIsMulticastTwiceWithinASecond) {
  AskForHost();
  EXPECT_THAT(Within(0), ElementsAre("0 v4 =host A +host AAAA"));
  host.RunFor(300);
  AskForHost();
  EXPECT_THAT(Within(5000), ElementsAre("701 v4 =host A +host AAAA"));
}

TEST_F(Outgoing, ARecordThatLeftLateKeepsTheIntervalFromThen) {
  AskForHost();
  host.RunFor(0);
  NoteLate(host.State(), host.Now(), host.Now() + 40);
  host.RunFor(300);
  AskForHost();
  AskForHost(kOtherIpv6);
  EXPECT_THAT(Within(5000), ElementsAre("0 v6 =host A +host AAAA", "741 v4 =host A +host AAAA"));
}

TEST_F(Outgoing, TheRestOfASetKeepsTheIntervalToo) {
  AskForHost();
  host.RunFor(300);
  host.SetLink(LinkWith({kOwnIpv4, {Family::kIpv4, {192, 168, 1, 2}}, kOwnIpv6}));
  AskForHost();
  EXPECT_THAT(Within(0), ElementsAre("0 v4 =host A"));
}

TEST_F(Outgoing, AdditionalRecordsKeepTheIntervalToo) {
  host.Hear({0, {{"host.local", kTypeAaaa}}});
  host.RunFor(300);
  host.Hear({0, {{"P._ipp._tcp.local", kTypeSrv}}});
  EXPECT_THAT(Within(0), ElementsAre("0 v4 =P._ipp._tcp SRV"));
  AskForHost();
  EXPECT_THAT(Within(5000), ElementsAre("701 v4 =host A +host AAAA"));
}

TEST_F(Outgoing, EachFamilyHasAnIntervalOfItsOwn) {
  AskForHost();
  host.RunFor(0);
  AskForHost(kOtherIpv6);
  EXPECT_THAT(Within(0), ElementsAre("0 v6 =host A +host AAAA"));
}

TEST_F(Outgoing, ADefenceMayBeRepeatedAfter250Milliseconds) {
  const Message probe = {
      0, {{"host.local", kTypeAny}}, {}, {{"host.local", kTypeA, "C0 A8 01 4D"}}};
  AskForHost();
  host.RunFor(100);
  host.Hear(probe);
  EXPECT_THAT(Within(249), ElementsAre("151 v4 =host A =host AAAA"));
  host.Hear(probe);
  EXPECT_THAT(Within(400), ElementsAre("153 v4 =host A =host AAAA"));
}

TEST_F(Outgoing, ADefenceIsAnAnswerToThoseWhoWait) {
  AskForHost();
  host.RunFor(300);
  AskForHost();
  host.Hear({0, {{"host.local", kTypeAny}}, {}, {{"host.local", kTypeA, "C0 A8 01 4D"}}});
  EXPECT_THAT(Within(5000), ElementsAre("0 v4 =host A =host AAAA"));
}

TEST_F(Outgoing, QuestionsInGreatNumbersKeepTheInterval) {
  std::map<string, int64_t> last;
  for (int i = 0; i < 5000; ++i) {
    host.Hear({0, {{"_ipp._tcp.local", kTypePtr}, {"host.local", kTypeA}}},
              {Family::kIpv4, {192, 168, 1, static_cast<uint8_t>(2 + i % 200)}});
    for (const string& line : host.RunFor(1)) {
      const int64_t time = std::stoll(line);
      for (const char* record : {"host A", "host AAAA", "_ipp._tcp PTR", "P._ipp._tcp TXT"}) {
        if (line.find(record) == string::npos) continue;
        if (last.count(record) != 0) {
          EXPECT_GE(time - last[record], 1000) << line;
        }
        last[record] = time;
      }
    }
  }
  EXPECT_EQ(last.size(), 4u);
}

// RFC 6762, section 6.4.
TEST_F(Outgoing, NoAnswerIsHeldBackMoreThan500MillisecondsForOthersToJoinIt) {
  for (int i = 0; i < 15; ++i) host.AddPrinter("P" + std::to_string(i));
  host.Settle();
  std::map<string, int64_t> asked;
  vector<string> lines;
  for (int i = 0; i < 60; ++i) {
    const string name = "P" + std::to_string(i % 15) + "._ipp._tcp";
    const string question = name + ".local";
    // Two questions, so that the answer is delayed: by 20 ms at least.
    host.Hear({0, {{question, kTypeSrv}, {"guest.local", kTypeA}}});
    asked.emplace("=" + name + " SRV", host.Now());
    for (const string& line : host.RunFor(15)) lines.push_back(line);
  }
  for (const string& line : host.RunFor(5000)) lines.push_back(line);
  for (const auto& question : asked) {
    const string& answer = question.first;
    const auto has = [&](const string& line) { return line.find(answer) != string::npos; };
    const auto found = std::find_if(lines.begin(), lines.end(), has);
    ASSERT_NE(found, lines.end()) << answer;
    EXPECT_LE(std::stoll(*found) - question.second, 500) << answer;
  }
}

TEST_F(Outgoing, UnicastToAHostIsBoundedAndTheRestGoesToAll) {
  AskForHost();
  host.RunFor(2000);
  size_t unicast = 0;
  size_t multicast = 0;
  for (int i = 0; i < 1000; ++i) {
    host.Hear({0, {{"host.local", kTypeA, kClassIn | kClassTopBit}}});
    for (const string& line : host.RunFor(0))
      ++(line.find("v4.77") != string::npos ? unicast : multicast);
  }
  EXPECT_EQ(unicast, 100u);
  EXPECT_EQ(multicast, 1u);
  host.RunFor(1000);
  host.Hear({0, {{"host.local", kTypeA, kClassIn | kClassTopBit}}});
  EXPECT_THAT(Within(0), ElementsAre("0 v4.77:5353 =host A +host AAAA"));
}

TEST_F(Outgoing, UnicastToAllHostsTogetherIsBounded) {
  size_t sent = 0;
  for (int i = 0; i < 3000; ++i) {
    host.Hear({0, {{"host.local", kTypeA}}},
              {Family::kIpv4, {192, 168, 1, static_cast<uint8_t>(2 + i % 20)}}, 40000);
    sent += host.RunFor(0).size();
  }
  EXPECT_EQ(sent, 500u);
}

TEST_F(Outgoing, MoreHostsThanAreCountedGetNoMoreThanAllTogether) {
  size_t sent = 0;
  for (int i = 0; i < 200; ++i) {
    host.Hear({0, {{"host.local", kTypeA}}},
              {Family::kIpv4, {192, 168, 1, static_cast<uint8_t>(2 + i)}}, 40000);
    sent += host.RunFor(0).size();
  }
  EXPECT_EQ(sent, kHostBudgets);
}

TEST_F(Outgoing, ConventionalResolversGetNothingBeyondTheirShare) {
  size_t sent = 0;
  for (int i = 0; i < 200; ++i) {
    host.Hear({0, {{"host.local", kTypeA}}}, kOtherIpv4, 40000);
    sent += host.RunFor(0).size();
  }
  EXPECT_EQ(sent, 100u);
  EXPECT_THAT(host.RunFor(5000), IsEmpty());
}

// Ten printers with long texts, on a link with this MTU.
struct Crowd {
  explicit Crowd(uint16_t mtu) {
    LinkState link = LinkWith({kOwnIpv4});
    link.mtu = mtu;
    host.SetLink(link);
    host.RunFor(5000);
    for (int i = 0; i < 10; ++i) {
      EXPECT_TRUE(AddService(host.State(), "Printer " + std::to_string(i), "_ipp._tcp",
                             string(200, 'x') + "\n" + string(200, 'y'), 631, host.Now()));
    }
  }
  Host host{false};
};

TEST(OutgoingSizes, PacketsFitTheMtuAndTellEverything) {
  for (const uint16_t mtu : {uint16_t{576}, uint16_t{1280}, uint16_t{1500}, uint16_t{9000}}) {
    SCOPED_TRACE(std::to_string(mtu));
    Crowd crowd(mtu);
    size_t texts = 0;
    size_t questions = 0;
    for (const Bytes& datagram : crowd.host.BytesUntil(crowd.host.Now() + 1100)) {
      EXPECT_LE(datagram.size() + 48, mtu);
      WireReader reader = ReadMessage(datagram.data(), datagram.size());
      Question question;
      while (ReadQuestion(reader, question)) ++questions;
      ReceivedRecord record;
      while (ReadRecord(reader, record)) {
        if (record.section == Section::kAnswer && record.type == kTypeTxt) ++texts;
      }
    }
    EXPECT_EQ(questions, 3u * 20);
    EXPECT_EQ(texts, 20u) << "for printing and reserved names";
  }
}

TEST(OutgoingSizes, ARecordLargerThanAPacketGoesAlone) {
  Crowd crowd(300);
  size_t large = 0;
  for (const Bytes& datagram : crowd.host.BytesUntil(crowd.host.Now() + 1100)) {
    if (datagram.size() + 48 <= 300) continue;
    ++large;
    WireReader reader = ReadMessage(datagram.data(), datagram.size());
    EXPECT_LE(reader.left[0] + reader.left[1], 1);
    EXPECT_EQ(reader.left[3], 0);
  }
  EXPECT_EQ(large, 10u * 3 + 10) << "probes and the announcement";
}

TEST(OutgoingSizes, ASetOfAddressesIsAddedWholeOrNotAtAll) {
  vector<Address> addresses(kLinkAddressesMax, kOwnIpv4);
  for (size_t i = 0; i < addresses.size(); ++i) addresses[i].bytes[3] = static_cast<uint8_t>(1 + i);
  LinkState link = LinkWith(addresses);
  Host host(false);
  host.SetLink(link);
  host.AddPrinter("P");
  host.Settle();
  // The answer takes 54 bytes with its header, each address 16.
  constexpr size_t kRoom = 54 + 16 * 16;
  for (const size_t room : {kRoom - 1, kRoom}) {
    SCOPED_TRACE(std::to_string(room));
    link.mtu = static_cast<uint16_t>(room + 48);
    host.SetLink(link);
    host.Hear({0, {{"P._ipp._tcp.local", kTypeSrv}}});
    const vector<string> lines = host.RunFor(2000);
    ASSERT_EQ(lines.size(), 1u);
    size_t added = 0;
    for (size_t at = lines[0].find("+host A"); at != string::npos;
         at = lines[0].find("+host A", at + 1)) {
      ++added;
    }
    EXPECT_EQ(added, room == kRoom ? 16u : 0u) << lines[0];
  }
}

TEST(OutgoingSizes, NoRecordIsBothAddedAndAnswered) {
  vector<Address> addresses(kLinkAddressesMax, kOwnIpv6);
  for (size_t i = 0; i < addresses.size(); ++i)
    addresses[i].bytes[15] = static_cast<uint8_t>(1 + i);
  LinkState link = LinkWith(addresses);
  // There is room for the NSEC record behind eight addresses, not for a ninth.
  link.mtu = 48 + 12 + 26 + 12 + 7 * 28 + 20;
  Host host(false);
  host.SetLink(link);
  host.Settle();
  host.Hear({0, {{"host.local", kTypeAaaa}, {"host.local", kTypeNsec}}}, kOtherIpv6);
  size_t count = 0;
  for (const string& line : host.RunFor(5000)) {
    if (line.find("host NSEC") != string::npos) ++count;
  }
  EXPECT_EQ(count, 1u);
}

TEST(OutgoingSizes, ProposedRecordsShareAPacketWithTheirQuestion) {
  Crowd crowd(1500);
  size_t probes = 0;
  for (const Bytes& datagram : crowd.host.BytesUntil(crowd.host.Now() + 300)) {
    WireReader reader = ReadMessage(datagram.data(), datagram.size());
    EXPECT_EQ(reader.left[2], 2 * reader.left[0]) << "SRV and TXT for each name";
    ++probes;
  }
  EXPECT_GT(probes, 3u);
}

TEST(OutgoingSizes, AConventionalReplyThatDoesNotFitIsTruncated) {
  Crowd crowd(576);
  crowd.host.Settle();
  crowd.host.Hear({0, {{"_ipp._tcp.local", kTypePtr}}}, kOtherIpv4, 40000);
  EXPECT_THAT(crowd.host.RunFor(0), ElementsAre(testing::Not(testing::HasSubstr(" TC "))));
  crowd.host.Hear(
      {0, {{"Printer 0._ipp._tcp.local", kTypeTxt}, {"Printer 1._ipp._tcp.local", kTypeTxt}}},
      kOtherIpv4, 40000);
  EXPECT_THAT(crowd.host.RunFor(0),
              ElementsAre(testing::HasSubstr(" TC ?Printer 0._ipp._tcp TXT ?Printer 1._ipp._tcp TXT"
                                             " =Printer 0._ipp._tcp TXT")));
}

}  // namespace
