#include "standard/claim.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/standard/host.h"

namespace {

using std::string;
using std::vector;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kOtherA = "C0 A8 01 4D";
constexpr const char* kOwnA = "C0 A8 01 01";
constexpr const char* kOwnAaaa = "FE 80 13*00 01";

// The lines of the IPv4 link, with times counted from that of the first.
vector<string> Ipv4Lines(const vector<string>& lines) {
  vector<string> result;
  int64_t start = -1;
  for (const string& line : lines) {
    const size_t blank = line.find(' ');
    if (line.compare(blank + 1, 2, "v4") != 0) continue;
    const int64_t time = std::stoll(line);
    if (start < 0) start = time;
    result.push_back(std::to_string(time - start) + line.substr(blank + 3));
  }
  return result;
}

string HostProbe(const string& name) {
  return "?" + name + " ANY !" + name + " A !" + name + " AAAA";
}

// The names that are probed for first in each of the lines.
vector<string> ProbedNames(const vector<string>& lines) {
  vector<string> names;
  for (const string& line : lines) {
    const size_t start = line.find('?');
    if (start == string::npos || line.find(" v4") == string::npos) continue;
    names.push_back(line.substr(start + 1, line.find(" ANY") - start - 1));
  }
  return names;
}

Message Response(const Told& told) { return {kResponseFlags, {}, {told}}; }

Message HostConflict(const char* name = "host.local") { return Response({name, kTypeA, kOtherA}); }

constexpr const char* kHostAnnouncement =
    " =host A =host AAAA =1.1.168.192.in-addr PTR"
    " =1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.e.f.ip6 PTR"
    " =1.1.168.192.in-addr NSEC"
    " =1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.e.f.ip6 NSEC"
    " =host NSEC";

TEST(Claim, ProbesThreeTimesAndAnnouncesTwice) {
  Host host;
  const vector<string> lines = host.RunUntil(10000);
  const string announcement = kHostAnnouncement;
  EXPECT_THAT(Ipv4Lines(lines),
              ElementsAre("0 " + HostProbe("host"), "250 " + HostProbe("host"),
                          "500 " + HostProbe("host"), "750" + announcement, "1751" + announcement));
  EXPECT_EQ(lines.size(), 10u) << "the same on IPv6";
  EXPECT_EQ(NextTurn(host.State()), kNever);
  EXPECT_EQ(host.State().claims[1].step, ClaimStep::kNone);
}

TEST(Claim, BeginsAfterARandomDelayOfUpTo250Milliseconds) {
  int64_t first = kNever;
  int64_t last = -1;
  for (uint64_t seed = 0; seed < 2000; ++seed) {
    Host host(true, seed);
    const int64_t time = NextTurn(host.State());
    first = std::min(first, time);
    last = std::max(last, time);
  }
  EXPECT_EQ(first, 0);
  EXPECT_EQ(last, 250);
}

TEST(Claim, AProbeAsksForUnicastAndProposesRecords) {
  Host host(false);
  host.SetLink(LinkWith({kOwnIpv4}));
  const vector<Bytes> datagrams = host.BytesUntil(250);
  ASSERT_FALSE(datagrams.empty());
  EXPECT_EQ(Hex(datagrams[0]), WireHex("00 00 00 00 00 01 00 00 00 01 00 00"
                                       "04 'host' 05 'local' 00 00 FF 80 01"
                                       "C0 0C 00 01 00 01 00 00 00 78 00 04 C0 A8 01 01"));
}

TEST(Claim, AnnouncesUniqueRecordsWithTheCacheFlushBitAndSharedOnesWithout) {
  Host host(false);
  host.SetLink(LinkWith({kOwnIpv4}));
  host.Settle();
  host.AddPrinter("P");
  const vector<Bytes> datagrams = host.BytesUntil(host.Now() + 1100);
  ASSERT_EQ(datagrams.size(), 4u);
  EXPECT_EQ(Hex(datagrams[3]),
            WireHex("00 00 84 00 00 00 00 09 00 00 00 02"
                    "09 '_services' 07 '_dns-sd' 04 '_udp' 05 'local' 00"
                    "00 0C 00 01 00 00 11 94 00 0C 04 '_ipp' 04 '_tcp' C0 23"
                    "01 'P' 08 '_printer' C0 39 00 21 80 01 00 00 00 78 00 0D"
                    "00 00 00 00 00 00 04 'host' C0 23"
                    "C0 40 00 10 80 01 00 00 11 94 00 01 00"
                    "C0 40 00 2F 80 01 00 00 00 78 00 09 C0 40 00 05 00 00 80 00 40"
                    "C0 34 00 0C 00 01 00 00 11 94 00 04 01 'P' C0 34"
                    "0A '_universal' 04 '_sub' C0 34 00 0C 00 01 00 00 11 94 00 02 C0 92"
                    "C0 92 00 21 80 01 00 00 00 78 00 08 00 00 00 00 02 77 C0 5D"
                    "C0 92 00 10 80 01 00 00 11 94 00 0A 09 'txtvers=1'"
                    "C0 92 00 2F 80 01 00 00 00 78 00 09 C0 92 00 05 00 00 80 00 40"
                    "C0 5D 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"
                    "C0 5D 00 2F 80 01 00 00 00 78 00 05 C0 5D 00 01 40"));
}

TEST(Claim, AConflictWhileProbingMakesItTakeAnotherName) {
  // Counted from the first probe.
  struct Row {
    const char* when;
    int64_t time;
    const char* expected;
  };
  const Row rows[] = {
      {"in the random delay", -1, "host-1"},     {"behind the first probe", 1, "host-1"},
      {"behind the third probe", 501, "host-1"}, {"at the last moment", 749, "host-1"},
      {"when it is claimed", 751, "host"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.when);
    Host host;
    const int64_t start = NextTurn(host.State());
    ASSERT_GT(start, 0);
    host.RunUntil(start + row.time);
    host.Hear(HostConflict());
    const vector<string> probed = ProbedNames(host.RunFor(300));
    ASSERT_FALSE(probed.empty());
    EXPECT_EQ(probed[0], row.expected);
    EXPECT_STREQ(HostName(host.State()), row.expected);
  }
}

TEST(Claim, NumbersGoUpUntilANameIsFree) {
  Host host;
  host.Hear(HostConflict());
  host.RunFor(300);
  host.Hear(HostConflict("host-1.local"));
  host.RunFor(300);
  host.Hear(HostConflict("host-1.local"));
  host.Settle();
  EXPECT_STREQ(HostName(host.State()), "host-2");
}

TEST(Claim, ANameThatWasGivenUpStaysSoWhenTheLinkGoes) {
  Host host;
  host.RunFor(300);
  host.Hear(HostConflict());
  host.SetLink({});
  host.SetLink(LinkWith({kOwnIpv4, kOwnIpv6}));
  host.Settle();
  EXPECT_STREQ(HostName(host.State()), "host-1");
}

TEST(Claim, WhatIsNoConflictWhileProbing) {
  struct Row {
    const char* what;
    Told told;
    Address from = kOtherIpv4;
    uint16_t port = kMdnsPort;
    bool isMulticast = true;
    uint16_t flags = kResponseFlags;
  };
  const Row rows[] = {
      {"its own data", {"host.local", kTypeA, kOwnA}},
      {"its own NSEC", {"host.local", kTypeNsec, "04 'host' 05 'local' 00 00 04 40 00 00 08"}},
      {"another name", {"guest.local", kTypeA, kOtherA}},
      {"another class", {"host.local", kTypeA, kOtherA, 120, 3}},
      {"a goodbye", {"host.local", kTypeA, kOtherA, 0}},
      {"from another port", {"host.local", kTypeA, kOtherA}, kOtherIpv4, 5354},
      {"by unicast from elsewhere",
       {"host.local", kTypeA, kOtherA},
       kForeignIpv4,
       kMdnsPort,
       false},
      {"of another operation",
       {"host.local", kTypeA, kOtherA},
       kOtherIpv4,
       kMdnsPort,
       true,
       0x8C00},
      {"an error", {"host.local", kTypeA, kOtherA}, kOtherIpv4, kMdnsPort, true, 0x8403},
      {"this host's other address", {"host.local", kTypeA, "0A 00 00 01"}, kOwnIpv4},
      {"a query with answers", {"host.local", kTypeA, kOtherA}, kOtherIpv4, kMdnsPort, true, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Host host;
    host.RunUntil(300);
    host.Hear({row.flags, {}, {row.told}}, row.from, row.port, row.isMulticast);
    host.Settle();
    EXPECT_STREQ(HostName(host.State()), "host");
  }
}

TEST(Claim, AnyRecordOfTheNameIsAConflictWhileProbing) {
  const Told rows[] = {
      {"HOST.local", kTypeA, kOtherA},
      {"host.local", kTypeTxt, "00"},
      {"host.local", kTypeNsec, "04 'host' 05 'local' 00 00 01 40"},
      {"host.local", 99, ""},
      {"host.local", kTypeA, kOtherA, 120, kClassIn | kClassTopBit},
  };
  for (const Told& told : rows) {
    SCOPED_TRACE(std::to_string(told.type));
    Host host;
    host.RunUntil(300);
    host.Hear(Response(told), kOtherIpv4, kMdnsPort, false);
    host.Settle();
    EXPECT_STREQ(HostName(host.State()), "host-1");
  }
}

TEST(Claim, AConflictLaterOnIsProbedForFirst) {
  Host host;
  host.Settle();
  host.Hear(HostConflict());
  const int64_t start = host.Now();
  const vector<string> lines = host.RunFor(10000);
  EXPECT_LE(std::stoll(lines.at(0)), start + 250);
  EXPECT_THAT(
      Ipv4Lines(lines),
      ElementsAre("0 " + HostProbe("host"), "250 " + HostProbe("host"), "500 " + HostProbe("host"),
                  "750" + string(kHostAnnouncement), "1751" + string(kHostAnnouncement)));
}

TEST(Claim, DevicesKeepTheirNamesWhileTheHostsIsProbedForAgain) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  host.Hear(HostConflict());
  EXPECT_THAT(ProbedNames(host.RunFor(10000)), ElementsAre("host", "host", "host"));
}

TEST(Claim, DevicesOnTheWayToTheirNamesWaitWhileTheHostsIsProbedForAgain) {
  Host host;
  host.Settle();
  host.AddPrinter("P");
  host.RunFor(260);
  host.Hear(HostConflict());
  EXPECT_THAT(
      ProbedNames(host.RunFor(10000)),
      ElementsAre("host", "host", "host", "P._printer._tcp", "P._printer._tcp", "P._printer._tcp"));
}

TEST(Claim, AConflictLaterOnThatIsDefendedMakesItTakeAnotherName) {
  Host host;
  host.Settle();
  host.Hear(HostConflict());
  host.RunFor(300);
  host.Hear(HostConflict());
  host.Settle();
  EXPECT_STREQ(HostName(host.State()), "host-1");
}

TEST(Claim, OnlyTheOwnersTypesAreAConflictLaterOn) {
  struct Row {
    Told told;
    bool isConflict;
  };
  const Row rows[] = {
      {{"host.local", kTypeA, kOwnA}, false},
      {{"host.local", kTypeAaaa, "FE 80 13*00 02"}, true},
      {{"host.local", kTypeNsec, "04 'host' 05 'local' 00 00 01 40"}, false},
      {{"host.local", 99, "00"}, false},
      {{"host.local", kTypeA, kOtherA, 0}, false},
      {{"Printer._ipp._tcp.local", kTypeTxt, "01 'x'"}, true},
      {{"Printer._printer._tcp.local", kTypeSrv, "00 00 00 00 02 03 04 'host' 05 'local' 00"},
       true},
      {{"_ipp._tcp.local", kTypePtr, "01 'x' 04 '_ipp' 04 '_tcp' 05 'local' 00"}, false},
      {{"1.1.168.192.in-addr.arpa", kTypePtr, "01 'x' 00"}, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(string(row.told.name) + " " + std::to_string(row.told.type));
    Host host;
    host.AddPrinter();
    host.Settle();
    host.Hear(Response(row.told));
    EXPECT_EQ(!ProbedNames(host.RunFor(300)).empty(), row.isConflict);
  }
}

// What a rival proposes for the name "host", and whether it wins.
TEST(Claim, TheLaterProposalWins) {
  struct Row {
    const char* what;
    vector<Told> proposed;
    bool isLost;
  };
  const Told ownA = {"host.local", kTypeA, kOwnA};
  const Told ownAaaa = {"host.local", kTypeAaaa, kOwnAaaa};
  const Row rows[] = {
      {"the same", {ownA, ownAaaa}, false},
      {"the same in another order", {ownAaaa, ownA}, false},
      {"a later address", {{"host.local", kTypeA, "C0 A8 01 02"}, ownAaaa}, true},
      {"an earlier address", {{"host.local", kTypeA, "C0 A8 01 00"}, ownAaaa}, false},
      {"unsigned bytes", {{"host.local", kTypeA, "C0 A8 01 FF"}}, true},
      {"a later address alone", {{"host.local", kTypeA, "C0 A8 01 02"}}, true},
      {"the first alone", {ownA}, false},
      {"the second alone", {ownAaaa}, true},
      {"one more behind", {ownA, ownAaaa, {"host.local", kTypeSrv, "6*00 00"}}, true},
      {"one more between", {ownA, ownAaaa, {"host.local", kTypeTxt, "00"}}, false},
      {"a later type", {{"host.local", kTypeAaaa, kOwnAaaa}}, true},
      {"a later class", {{"host.local", kTypeA, "00 00 00 00", 120, 3}}, true},
      {"an earlier class", {{"host.local", kTypeSrv, "6*FF 00", 120, 0}}, false},
      {"the cache-flush bit", {{"host.local", kTypeA, kOwnA, 120, 0x8001}, ownAaaa}, false},
      {"another TTL", {{"host.local", kTypeA, kOwnA, 1}, ownAaaa}, false},
      {"another name's", {{"guest.local", kTypeA, "C0 A8 01 FF"}}, false},
      {"in other letters", {{"HOST.local", kTypeA, "C0 A8 01 02"}}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Host host;
    host.RunUntil(300);
    host.Hear({0, {{"host.local", kTypeAny}}, {}, row.proposed});
    const int64_t start = host.Now();
    const vector<string> lines = host.RunFor(3000);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(std::stoll(lines[0]) - start >= 1000, row.isLost);
    EXPECT_STREQ(HostName(host.State()), "host");
  }
}

TEST(Claim, NamesWithinProposedDataAreComparedUncompressed) {
  // The target is before "host" as a name, whose first byte is its length, and behind it as a
  // pointer.
  Host host;
  host.Settle();
  host.AddPrinter();
  host.RunFor(300);
  host.HearBytes(
      Wire("00 00 00 00 00 02 00 00 00 02 00 00 01 'z' 05 'local' 00 00 FF 00 01"
           "07 'Printer' 04 '_ipp' 04 '_tcp' C0 0E 00 FF 00 01"
           "C0 19 00 10 00 01 00 00 11 94 00 0A 09 'txtvers=1'"
           "C0 19 00 21 00 01 00 00 00 78 00 08 00 00 00 00 02 77 C0 0C"));
  const int64_t start = host.Now();
  EXPECT_LT(std::stoll(host.RunFor(3000).at(0)), start + 1000);
}

TEST(Claim, ALongerTextThatBeginsAlikeIsLater) {
  Host host;
  host.Settle();
  host.AddPrinter();
  host.RunFor(300);
  const char* const name = "Printer._ipp._tcp.local";
  host.Hear({0, {{name, kTypeAny}}, {}, {{name, kTypeTxt, "09 'txtvers=1' 01 'x'"}}});
  const int64_t start = host.Now();
  EXPECT_GE(std::stoll(host.RunFor(3000).at(0)), start + 1000);
}

TEST(Claim, TheLoserWaitsASecondAndProbesAgain) {
  Host host;
  host.RunUntil(300);
  const Message rival = {0, {{"host.local", kTypeAny}}, {}, {{"host.local", kTypeA, kOtherA}}};
  host.Hear(rival);
  EXPECT_THAT(host.RunFor(500), IsEmpty());
  host.Hear(rival);
  EXPECT_THAT(host.RunFor(499), IsEmpty());
  host.RunUntil(NextTurn(host.State()) - 1);
  EXPECT_THAT(
      Ipv4Lines(host.RunFor(5000)),
      ElementsAre("0 " + HostProbe("host"), "250 " + HostProbe("host"), "500 " + HostProbe("host"),
                  "750" + string(kHostAnnouncement), "1751" + string(kHostAnnouncement)));
}

TEST(Claim, LosersDoNotWaitEquallyLong) {
  std::set<int64_t> waits;
  for (uint64_t seed = 0; seed < 50; ++seed) {
    Host host(true, seed);
    host.RunUntil(300);
    host.Hear({0, {{"host.local", kTypeAny}}, {}, {{"host.local", kTypeA, kOtherA}}});
    waits.insert(NextTurn(host.State()) - host.Now());
  }
  EXPECT_GE(*waits.begin(), 1000);
  EXPECT_LE(*waits.rbegin(), 1250);
  EXPECT_GT(waits.size(), 25u);
}

TEST(Claim, DevicesWaitWithTheLoser) {
  Host host;
  host.AddPrinter("P");
  host.RunUntil(300);
  host.Hear({0, {{"host.local", kTypeAny}}, {}, {{"host.local", kTypeA, kOtherA}}});
  EXPECT_THAT(ProbedNames(host.RunFor(3000)), ElementsAre("host", "host", "host", "P._printer._tcp",
                                                          "P._printer._tcp", "P._printer._tcp"));
}

TEST(Claim, AnotherProgramOfThisHostIsNoRivalForItsName) {
  Host host;
  host.RunUntil(300);
  host.Hear({0, {{"host.local", kTypeAny}}, {}, {{"host.local", kTypeA, kOtherA}}}, kOwnIpv4);
  EXPECT_FALSE(host.RunFor(250).empty());
}

TEST(Claim, ARivalForANameThatIsAddedIsMet) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  ASSERT_TRUE(AddService(host.State(), "P", "_pdl-datastream._tcp", "", 9100, host.Now()));
  host.RunFor(260);
  const char* name = "P._pdl-datastream._tcp.local";
  host.Hear({0, {{name, kTypeAny}}, {}, {{name, kTypeSrv, "FF FF 00 00 00 00 00"}}});
  EXPECT_THAT(host.RunFor(999), IsEmpty());
  EXPECT_FALSE(host.RunFor(251).empty());
}

TEST(Claim, TheLoserTakesAnotherNameWhenTheWinnerDefendsIt) {
  Host host;
  host.RunUntil(300);
  host.Hear({0, {{"host.local", kTypeAny}}, {}, {{"host.local", kTypeA, kOtherA}}});
  host.RunFor(900);
  host.Hear(HostConflict());
  host.Settle();
  EXPECT_STREQ(HostName(host.State()), "host-1");
}

TEST(Claim, FifteenConflictsInTenSecondsMakeItRestFiveSecondsBeforeEachAttempt) {
  vector<int64_t> attempts;
  string name = "host";
  Host denied;
  int64_t conflict = 0;
  for (int i = 1; i <= 17; ++i) {
    while (ProbedNames(denied.RunUntil(NextTurn(denied.State()))).empty()) {
    }
    attempts.push_back(denied.Now() - conflict);
    denied.Hear(HostConflict((name + ".local").c_str()));
    conflict = denied.Now();
    name = "host-" + std::to_string(i);
  }
  for (size_t i = 0; i < 15; ++i) EXPECT_LE(attempts[i], 250) << i;
  for (size_t i = 15; i < 17; ++i) {
    EXPECT_GE(attempts[i], 5000) << i;
    EXPECT_LE(attempts[i], 5250) << i;
  }
  denied.Settle();
  EXPECT_STREQ(HostName(denied.State()), "host-17");
  denied.Hear(HostConflict("host-17.local"));
  EXPECT_FALSE(ProbedNames(denied.RunFor(250)).empty()) << "a name ends it";
}

TEST(Claim, ConflictsWhileItRestsAreOfNoAccount) {
  Host host;
  string name = "host";
  for (int i = 1; i <= 15; ++i) {
    while (ProbedNames(host.RunUntil(NextTurn(host.State()))).empty()) {
    }
    host.Hear(HostConflict((name + ".local").c_str()));
    name = "host-" + std::to_string(i);
  }
  host.RunFor(1000);
  host.Hear(HostConflict("host-15.local"));
  host.Settle();
  EXPECT_STREQ(HostName(host.State()), "host-15");
}

TEST(Claim, ADeviceWaitsForTheHostsName) {
  Host host;
  host.RunUntil(300);
  host.AddPrinter();
  const vector<string> probed = ProbedNames(host.RunUntil(2000));
  EXPECT_THAT(probed, ElementsAre("host", "host", "Printer._printer._tcp", "Printer._printer._tcp",
                                  "Printer._printer._tcp"));
}

TEST(Claim, NamesThatAreClaimedTogetherShareAPacket) {
  Host host;
  host.Settle();
  host.AddPrinter("A");
  host.AddPrinter("B");
  const vector<string> lines = Ipv4Lines(host.RunFor(300));
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0],
            "0 ?A._printer._tcp ANY ?A._ipp._tcp ANY ?B._printer._tcp ANY ?B._ipp._tcp ANY"
            " !A._printer._tcp SRV !A._printer._tcp TXT !A._ipp._tcp SRV !A._ipp._tcp TXT"
            " !B._printer._tcp SRV !B._printer._tcp TXT !B._ipp._tcp SRV !B._ipp._tcp TXT");
}

TEST(Claim, ADeviceIsRenamedAsAWhole) {
  Host host;
  host.Settle();
  host.AddPrinter();
  host.RunFor(300);
  host.Hear(Response({"Printer._printer._tcp.local", kTypeTxt, "01 'x'"}));
  const vector<string> lines = Ipv4Lines(host.RunFor(300));
  ASSERT_EQ(lines.empty(), false);
  EXPECT_EQ(lines[0],
            "0 ?Printer (2)._printer._tcp ANY ?Printer (2)._ipp._tcp ANY"
            " !Printer (2)._printer._tcp SRV !Printer (2)._printer._tcp TXT"
            " !Printer (2)._ipp._tcp SRV !Printer (2)._ipp._tcp TXT");
}

TEST(Claim, SharedRecordsSayGoodbyeBeforeADeviceTakesAnotherName) {
  Host host;
  host.Settle();
  host.AddPrinter();
  host.Settle();
  const Message conflict = Response({"Printer._ipp._tcp.local", kTypeTxt, "01 'x'"});
  host.Hear(conflict);
  host.RunFor(300);
  host.Hear(conflict);
  const vector<string> lines = Ipv4Lines(host.RunFor(300));
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "0 =_ipp._tcp PTR 0 =_universal._sub._ipp._tcp PTR 0");
  EXPECT_EQ(ProbedNames({"0 v4" + lines[1].substr(1)})[0], "Printer (2)._printer._tcp");
}

TEST(Claim, ANewHostNameIsAnnouncedWithTheDataOfEverySrv) {
  Host host;
  host.AddPrinter();
  host.Settle();
  host.Hear(HostConflict());
  host.RunFor(300);
  host.Hear(HostConflict());
  const vector<Bytes> datagrams = host.BytesUntil(host.Now() + 5000);
  // In the first SRV record of a datagram, which is the reserved one.
  const string target = WireHex("00 00 00 00 00 00 06 'host-1'");
  int probes = 0;
  int announcements = 0;
  for (const Bytes& datagram : datagrams) {
    if (Hex(datagram).find(target) == string::npos) continue;
    ++(datagram[2] == 0 ? probes : announcements);
  }
  EXPECT_EQ(probes, 6) << "three on each family";
  EXPECT_EQ(announcements, 4);
}

TEST(Claim, NothingIsAnsweredBeforeItIsClaimed) {
  Host host;
  host.RunUntil(300);
  host.Hear({0, {{"host.local", kTypeA}}});
  EXPECT_THAT(ProbedNames(host.RunFor(250)), ElementsAre("host"));
  host.Settle();
  host.Hear({0, {{"host.local", kTypeA}}});
  EXPECT_THAT(Ipv4Lines(host.RunFor(0)), ElementsAre("0 =host A +host AAAA"));
}

TEST(Claim, TwoOwnDevicesOfOneLabelAreNumbered) {
  Host host;
  host.AddPrinter(string(63, 'a') + "b");
  host.AddPrinter(string(63, 'a') + "c");
  EXPECT_EQ(string(host.State().devices[0].label.text), string(63, 'a'));
  EXPECT_EQ(string(host.State().devices[1].label.text), string(59, 'a') + " (2)");
}

TEST(Claim, AServiceThatIsAddedIsProbedForWhileTheOthersAreAnswered) {
  Host host;
  host.AddPrinter();
  host.Settle();
  ASSERT_TRUE(AddService(host.State(), "Printer", "_pdl-datastream._tcp", "", 9100, host.Now()));
  host.RunFor(300);
  host.Hear({0, {{"Printer._ipp._tcp.local", kTypeTxt}}});
  host.Hear({0, {{"Printer._pdl-datastream._tcp.local", kTypeTxt}}});
  EXPECT_THAT(Ipv4Lines(host.RunFor(0)), ElementsAre("0 =Printer._ipp._tcp TXT"));
  host.Settle();
  host.Hear({0, {{"Printer._pdl-datastream._tcp.local", kTypeTxt}}});
  EXPECT_THAT(Ipv4Lines(host.RunFor(0)), ElementsAre("0 =Printer._pdl-datastream._tcp TXT"));
}

TEST(Claim, AnnouncesAtMostTenTimesAMinute) {
  constexpr Address kSecondIpv4 = {Family::kIpv4, {192, 168, 1, 2}};
  Host host;
  host.Settle();
  vector<int64_t> times;
  for (int i = 0; i < 200; ++i) {
    host.SetLink(i % 2 == 0 ? LinkWith({kOwnIpv4, kSecondIpv4, kOwnIpv6})
                            : LinkWith({kOwnIpv4, kOwnIpv6}));
    for (const string& line : host.RunFor(2000)) {
      if (line.find(" v4") != string::npos && line.find("=host AAAA =") != string::npos) {
        times.push_back(std::stoll(line));
      }
    }
  }
  ASSERT_GT(times.size(), 20u);

  for (size_t i = 10; i < times.size(); ++i) EXPECT_GE(times[i] - times[i - 10], 60000);
}

}  // namespace
