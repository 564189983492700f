#include "standard/core.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/standard/host.h"

namespace {

using std::string;
using std::vector;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Address kSecondIpv4 = {Family::kIpv4, {192, 168, 1, 2}};
constexpr Address kGlobalIpv6 = {Family::kIpv6,
                                 {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}};

LinkState WithMac(LinkState link, uint8_t last) {
  link.mac[5] = last;
  return link;
}

size_t CountOf(const vector<string>& lines, const string& part) {
  size_t count = 0;
  for (const string& line : lines) {
    if (line.find(part) != string::npos) ++count;
  }
  return count;
}

bool IsHostAnswered(Host& host, const Address& from = kOtherIpv4) {
  host.Hear({0, {{"host.local", kTypeA}}}, from);
  return CountOf(host.RunFor(1000), "=host A") != 0;
}

TEST(Core, WithoutALinkNothingIsDue) {
  Host host(false);
  host.AddPrinter();
  host.Hear({0, {{"host.local", kTypeA}}});
  EXPECT_THAT(host.RunFor(100000), IsEmpty());
  EXPECT_EQ(NextTurn(host.State()), kNever);
  EXPECT_FALSE(HasHostName(host.State()));
}

TEST(Core, WhenTheLinkGoesNothingIsDueAnyMore) {
  Host host;
  host.AddPrinter();
  host.Settle();
  host.Hear({0, {{"_ipp._tcp.local", kTypePtr}}});
  host.SetLink({});
  EXPECT_EQ(NextTurn(host.State()), kNever);
}

TEST(Core, AddressesThatLeaveMakeRoom) {
  Host host;
  host.Settle();
  for (uint8_t round = 0; round < 4; ++round) {
    vector<Address> addresses(kLinkAddressesMax, kOwnIpv4);
    for (size_t i = 0; i < addresses.size(); ++i) {
      addresses[i].bytes[3] = static_cast<uint8_t>(100 + round * 16 + i);
    }
    host.SetLink(LinkWith(addresses));
    host.Hear({0, {{"host.local", kTypeA}}}, kOtherIpv4, 40000);
    const vector<string> lines = host.RunFor(10);
    size_t answers = 0;
    for (const string& line : lines) {
      for (size_t at = line.find("=host A "); at != string::npos;
           at = line.find("=host A ", at + 1)) {
        ++answers;
      }
    }
    EXPECT_GE(answers, 16u) << static_cast<int>(round);
  }
}

TEST(Core, TheHostsNameIsCutToALabel) {
  auto core = std::make_unique<Core>();
  InitCore(*core, string(70, 'a'), 1);
  EXPECT_EQ(HostName(*core), string(63, 'a'));
}

TEST(Core, HasTheHostNameOnceItIsClaimedAndForGood) {
  Host host;
  const vector<string> lines = host.RunUntil(900);
  EXPECT_EQ(HasHostName(host.State()), CountOf(lines, "=host A") != 0);
  host.RunUntil(2000);
  EXPECT_TRUE(HasHostName(host.State()));
  host.SetLink({});
  EXPECT_TRUE(HasHostName(host.State()));
}

TEST(Core, MessagesWithoutAMeaningAreIgnored) {
  Host host;
  host.Settle();
  const Bytes query = BytesOf({0, {{"host.local", kTypeA}}});
  struct Row {
    const char* what;
    size_t offset;
    uint8_t value;
    bool isAnswered;
  };
  const Row rows[] = {
      {"a query", 2, 0x00, true},
      {"a response", 2, 0x84, false},
      {"another operation", 2, 0x08, false},
      {"an error", 3, 0x01, false},
      {"RD, and AA", 2, 0x05, true},
      {"RA, Z, AD, CD", 3, 0xF0, true},
      {"any ID", 0, 0xAB, true},
      {"one question too many", 5, 2, false},
      {"a record too many", 11, 1, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Bytes bytes = query;
    bytes[row.offset] = row.value;
    host.HearBytes(bytes);
    EXPECT_EQ(!host.RunFor(2000).empty(), row.isAnswered);
  }
}

TEST(Core, EveryCutOfAQueryIsIgnored) {
  Host host;
  host.Settle();
  const Bytes query = BytesOf({0, {{"host.local", kTypeA}}});
  for (size_t length = 0; length < query.size(); ++length) {
    host.HearBytes({query.begin(), query.begin() + static_cast<long>(length)});
    EXPECT_THAT(host.RunFor(2000), IsEmpty());
  }
}

TEST(Core, ItsOwnPacketsAreKnownAgainByAddressAndBytes) {
  struct Row {
    const char* what;
    Address from;
    bool isOther;  // with a bit that says nothing
    bool isAnswered;
  };
  const Row rows[] = {
      {"its own answer", kOwnIpv4, false, true},
      {"another program's of this host", kOwnIpv4, true, false},
      {"another host's", kOtherIpv4, false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Host host;
    host.AddPrinter();
    host.Settle();
    const Message question = {0, {{"_ipp._tcp.local", kTypePtr}}};
    host.Hear(question);
    Bytes answer = host.BytesUntil(host.Now() + 2000).at(0);
    if (row.isOther) answer[3] = 0x10;
    host.Hear(question);
    host.HearBytes(answer, row.from);
    EXPECT_EQ(!host.RunFor(2000).empty(), row.isAnswered);
  }
}

TEST(Core, AnotherProgramOnThisHostIsHeard) {
  Host host;
  host.AddPrinter();
  host.Settle();
  host.Hear({kResponseFlags, {}, {{"Printer._ipp._tcp.local", kTypeTxt, "01 'x'"}}}, kOwnIpv4);
  EXPECT_GE(CountOf(host.RunFor(300), "?Printer._printer._tcp"), 2u);
}

TEST(Core, AFamilyWithoutAnAddressIsSilent) {
  Host host(false);
  host.SetLink(LinkWith({kOwnIpv4}));
  const vector<string> lines = host.RunFor(62000);
  EXPECT_EQ(CountOf(lines, " v6 "), 0u);
  EXPECT_EQ(CountOf(lines, " v4 "), 5u);
  EXPECT_FALSE(IsHostAnswered(host, kOtherIpv6));
}

TEST(Core, WhatIsNotTakenYetIsDueAtOnce) {
  Host host;
  OutgoingDatagram out;
  const int64_t turn = NextTurn(host.State());
  ASSERT_TRUE(TakeDatagram(host.State(), turn, out));
  EXPECT_EQ(NextTurn(host.State()), 0);
  ASSERT_TRUE(TakeDatagram(host.State(), turn, out));
  EXPECT_GT(NextTurn(host.State()), turn);
}

TEST(Core, ALinkThatComesBackIsProbedAndAnnouncedWithinTwoSeconds) {
  struct Row {
    const char* what;
    LinkState between;
    uint8_t mac;
  };
  LinkState down = LinkWith({kOwnIpv4, kOwnIpv6});
  down.isUp = false;
  const Row rows[] = {
      {"it was gone", {}, 1},
      {"it was down", down, 1},
      {"it had no address", LinkWith({}), 1},
      {"it has another hardware address", LinkWith({kOwnIpv4, kOwnIpv6}), 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Host host;
    host.AddPrinter();
    host.Settle();
    host.SetLink(row.between);
    EXPECT_THAT(host.RunFor(5000), IsEmpty());
    host.SetLink(WithMac(LinkWith({kOwnIpv4, kOwnIpv6}), row.mac));
    EXPECT_FALSE(CountOf(host.RunFor(0), "=") != 0) << "nothing is answered before it is claimed";
    const vector<string> lines = host.RunFor(1000);
    EXPECT_EQ(CountOf(lines, "v4 ?host ANY ?Printer._printer._tcp ANY ?Printer._ipp._tcp ANY"), 3u);
    EXPECT_EQ(CountOf(lines, "v4 =host A"), 1u);
    EXPECT_EQ(CountOf(lines, "=_ipp._tcp PTR"), 2u) << "on each family";
  }
}

TEST(Core, AnAddressThatComesIsProbedForAndAnnouncedWhileTheNameIsAnswered) {
  Host host;
  host.Settle();
  host.SetLink(LinkWith({kOwnIpv4, kOwnIpv6, kGlobalIpv6}));
  const vector<string> lines = host.RunFor(300);
  EXPECT_GE(CountOf(lines, "v4 ?host ANY !host A !host AAAA !host AAAA"), 1u);
  EXPECT_TRUE(IsHostAnswered(host));
  EXPECT_GE(CountOf(host.RunFor(2000), "=host AAAA =host AAAA"), 1u);
}

TEST(Core, AnAddressThatGoesIsAnnouncedAwayWithoutProbing) {
  constexpr const char* kRest = "v4 =host A =host AAAA =1.1.168.192.in-addr PTR";
  Host host(false);
  host.SetLink(LinkWith({kOwnIpv4, kSecondIpv4, kOwnIpv6}));
  host.Settle();
  host.SetLink(LinkWith({kOwnIpv4, kOwnIpv6}));
  const vector<string> lines = host.RunFor(5000);
  EXPECT_EQ(CountOf(lines, "?"), 0u);
  EXPECT_EQ(CountOf(lines, kRest), 2u)
      << "the rest of the set, which the cache-flush bit makes whole";
  EXPECT_EQ(CountOf(lines, "v4 =2.1.168.192.in-addr PTR 0 =2.1.168.192.in-addr NSEC 0"), 2u);
}

TEST(Core, TheLastAddressOfAFamilySaysGoodbye) {
  Host host;
  host.Settle();
  host.SetLink(LinkWith({kOwnIpv4}));
  const vector<string> lines = host.RunFor(5000);
  EXPECT_EQ(CountOf(lines, "v4 =host AAAA 0 =1.0.0"), 2u);
  EXPECT_EQ(CountOf(lines, " v6 "), 0u);
}

TEST(Core, AFamilyThatComesIsClaimedBeforeItIsAnsweredOn) {
  Host host(false);
  host.SetLink(LinkWith({kOwnIpv4}));
  host.AddPrinter();
  host.Settle();
  host.SetLink(LinkWith({kOwnIpv4, kOwnIpv6}));
  host.RunFor(300);
  host.Hear({0, {{"host.local", kTypeA}}}, kOtherIpv6);
  host.Hear({0, {{"host.local", kTypeA}}}, kOtherIpv4);
  const vector<string> lines = host.RunFor(0);
  EXPECT_EQ(CountOf(lines, "v6 =host A"), 0u);
  EXPECT_EQ(CountOf(lines, "v4 =host A"), 1u);
  EXPECT_EQ(CountOf(host.RunFor(3000), "v6 =host A"), 2u);
  host.Hear({0, {{"_ipp._tcp.local", kTypePtr}}}, kOtherIpv6);
  EXPECT_EQ(CountOf(host.RunFor(2000), "v6 =_ipp._tcp PTR"), 1u);
}

TEST(Core, AFamilyThatComesBackIsClaimedAgain) {
  Host host;
  host.Settle();
  host.SetLink(LinkWith({kOwnIpv4}));
  host.Settle();
  host.SetLink(LinkWith({kOwnIpv4, kOwnIpv6}));
  host.Hear({0, {{"host.local", kTypeA}}}, kOtherIpv6);
  EXPECT_EQ(CountOf(host.RunFor(500), "v6 =host A"), 0u);
}

TEST(Core, AnMtuAloneChangesNothing) {
  Host host;
  host.Settle();
  LinkState link = LinkWith({kOwnIpv4, kOwnIpv6});
  link.mtu = 1280;
  host.SetLink(link);
  EXPECT_THAT(host.RunFor(5000), IsEmpty());
}

TEST(Core, MoreAddressesThanFitAreLeftOut) {
  LinkState link = LinkWith({kOwnIpv4});
  link.addressCount = 255;
  Host host(false);
  host.SetLink(link);
  EXPECT_EQ(host.State().link.addressCount, kLinkAddressesMax);
}

TEST(Core, AStopSaysGoodbyeToEverythingTwice) {
  Host host(false);
  host.SetLink(LinkWith({kOwnIpv4}));
  host.AddPrinter("P");
  host.Settle();
  const int64_t start = host.Now();
  BeginStop(host.State(), start);
  EXPECT_FALSE(IsStopped(host.State()));
  const string goodbye =
      " v4 =host A 0 =1.1.168.192.in-addr PTR 0 =1.1.168.192.in-addr NSEC 0 =host NSEC 0"
      " =_services._dns-sd._udp PTR 0"
      " =P._printer._tcp SRV 0 =P._printer._tcp TXT 0 =P._printer._tcp NSEC 0"
      " =_ipp._tcp PTR 0 =_universal._sub._ipp._tcp PTR 0"
      " =P._ipp._tcp SRV 0 =P._ipp._tcp TXT 0 =P._ipp._tcp NSEC 0";
  EXPECT_THAT(host.RunFor(250),
              ElementsAre(std::to_string(start) + goodbye, std::to_string(start + 250) + goodbye));
  EXPECT_TRUE(IsStopped(host.State()));
}

TEST(Core, AStopTakesBackTheVeryRecordsThatWereSent) {
  Host host(false);
  host.SetLink(LinkWith({kOwnIpv4}));
  host.Settle();
  BeginStop(host.State(), host.Now());
  EXPECT_NE(Hex(host.BytesUntil(host.Now()).at(0))
                .find(WireHex("C0 0C 00 2F 80 01 00 00 00 00 00 05 C0 0C 00 01 40")),
            string::npos);
}

TEST(Core, AStopForgetsAnswersThatWait) {
  Host host;
  host.Settle();
  host.Hear({0, {{"host.local", kTypeTxt}, {"host.local", kTypeTxt}}});
  BeginStop(host.State(), host.Now());
  EXPECT_EQ(host.RunFor(5000).size(), 4u) << "goodbyes, two on each family";
}

TEST(Core, AfterAStopNothingIsAnsweredAddedOrClaimed) {
  Host host;
  host.Settle();
  BeginStop(host.State(), host.Now());
  host.RunFor(100);
  host.Hear({0, {{"host.local", kTypeA}}});
  EXPECT_FALSE(AddService(host.State(), "P", "_ipp._tcp", "", 1, host.Now()));
  host.SetLink(LinkWith({kOwnIpv4, kSecondIpv4, kOwnIpv6}));
  BeginStop(host.State(), host.Now());
  const vector<string> lines = host.RunFor(60000);
  EXPECT_EQ(lines.size(), 2u);
  EXPECT_EQ(CountOf(lines, "host A 0"), 2u);
}

TEST(Core, AStopIsOverAtOnceWhenThereIsNothingToSay) {
  Host probing;
  probing.RunFor(300);
  BeginStop(probing.State(), probing.Now());
  EXPECT_TRUE(IsStopped(probing.State()));
  Host host;
  host.Settle();
  host.SetLink({});
  BeginStop(host.State(), host.Now());
  EXPECT_TRUE(IsStopped(host.State()));
}

TEST(Core, AStopEndsWhenTheLinkGoes) {
  Host host;
  host.Settle();
  BeginStop(host.State(), host.Now());
  host.RunFor(100);
  host.SetLink({});
  EXPECT_THAT(host.RunFor(1000), IsEmpty());
  EXPECT_TRUE(IsStopped(host.State()));
}

}  // namespace
