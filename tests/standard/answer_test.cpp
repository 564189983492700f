#include "standard/answer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/standard/host.h"

namespace {

using std::string;
using std::vector;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint16_t kUnicast = kClassIn | kClassTopBit;
constexpr uint16_t kLegacyPort = 40000;

// A host with an IPP printer, long after its last announcement unless a test says otherwise.
class Answer : public testing::Test {
 protected:
  void SetUp() override {
    host.AddPrinter("P");
    host.Settle();
  }

  vector<string> Within(int64_t time) { return host.RunFromNow(time); }

  // The same without times.
  vector<string> WordsWithin(int64_t time) {
    vector<string> lines = host.RunFor(time);
    for (string& line : lines) line.erase(0, line.find(' ') + 1);
    return lines;
  }

  void Ask(const vector<Asked>& questions, const vector<Told>& known = {}) {
    host.Hear({0, questions, known});
  }

  Host host;
};

constexpr const char* kPointerAnswer =
    "v4 =_ipp._tcp PTR +host A +host AAAA +P._ipp._tcp SRV +P._ipp._tcp TXT";
const Told kKnownPointer = {"_ipp._tcp.local", kTypePtr, "01 'P' 04 '_ipp' 04 '_tcp' 05 'local' 00",
                            4500};
const Told kKnownA = {"host.local", kTypeA, "C0 A8 01 01", 120};

TEST_F(Answer, QuestionsAreAnsweredByNameAndType) {
  struct Row {
    const char* name;
    uint16_t type;
    const char* expected;  // null: nothing
  };
  const Row rows[] = {
      {"host.local", kTypeA, "=host A +host AAAA"},
      {"HOST.LOCAL", kTypeA, "=host A +host AAAA"},
      {"host.local", kTypeAaaa, "=host AAAA +host A"},
      {"host.local", kTypeAny, "=host A =host AAAA"},
      {"host.local", kTypeTxt, "=host NSEC"},
      {"host.local", 5, "=host NSEC"},
      {"host.local", kTypeNsec, "=host NSEC"},
      {"host.local", 0xFFFF, "=host NSEC"},
      {"guest.local", kTypeA, nullptr},
      {"1.1.168.192.in-addr.arpa", kTypePtr, "=1.1.168.192.in-addr PTR"},
      {"1.1.168.192.in-addr.arpa", kTypeA, "=1.1.168.192.in-addr NSEC"},
      {"2.1.168.192.in-addr.arpa", kTypePtr, nullptr},
      {"_ipp._tcp.local", kTypePtr, kPointerAnswer + 3},
      {"_ipp._tcp.local", kTypeAny, kPointerAnswer + 3},
      {"_ipp._tcp.local", kTypeSrv, nullptr},
      {"_printer._tcp.local", kTypePtr, nullptr},
      {"_services._dns-sd._udp.local", kTypePtr, "=_services._dns-sd._udp PTR"},
      {"_services._dns-sd._udp.local", kTypeA, nullptr},
      {"P._ipp._tcp.local", kTypeSrv, "=P._ipp._tcp SRV +host A +host AAAA"},
      {"P._ipp._tcp.local", kTypeTxt, "=P._ipp._tcp TXT"},
      {"p._ipp._tcp.local", kTypeAny, "=P._ipp._tcp SRV =P._ipp._tcp TXT +host A +host AAAA"},
      {"P._ipp._tcp.local", kTypeA, "=P._ipp._tcp NSEC"},
      {"P._printer._tcp.local", kTypeSrv, "=P._printer._tcp SRV +host A +host AAAA"},
      {"Q._ipp._tcp.local", kTypeSrv, nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(string(row.name) + " " + std::to_string(row.type));
    Ask({{row.name, row.type}});
    vector<string> expected;
    if (row.expected != nullptr) expected.push_back(string("v4 ") + row.expected);
    EXPECT_EQ(WordsWithin(2000), expected);
  }
}

TEST_F(Answer, ClassesAreInternetOrAny) {
  const vector<std::pair<uint16_t, bool>> rows = {{1, true}, {255, true}, {3, false}, {0, false}};
  for (const auto& [classBits, isAnswered] : rows) {
    SCOPED_TRACE(std::to_string(classBits));
    Ask({{"host.local", kTypeA, classBits}});
    EXPECT_EQ(!WordsWithin(2000).empty(), isAnswered);
  }
}

TEST_F(Answer, AMissingFamilyIsSaidToBeMissing) {
  host.SetLink(LinkWith({kOwnIpv4}));
  host.Settle();
  Ask({{"host.local", kTypeAaaa}});
  EXPECT_THAT(WordsWithin(2000), ElementsAre("v4 =host NSEC"));
  Ask({{"host.local", kTypeA}});
  EXPECT_THAT(WordsWithin(2000), ElementsAre("v4 =host A +host NSEC"));
}

TEST_F(Answer, GoesOutOnTheFamilyOfTheQuestion) {
  host.Hear({0, {{"host.local", kTypeA}}}, kOtherIpv6);
  EXPECT_THAT(WordsWithin(2000), ElementsAre("v6 =host A +host AAAA"));
}

TEST_F(Answer, UniqueAnswersToOneQuestionAreNotDelayed) {
  Ask({{"P._ipp._tcp.local", kTypeAny}});
  EXPECT_THAT(Within(0), ElementsAre(testing::StartsWith("0 v4 =P._ipp._tcp SRV")));
}

// The delays of many answers: all within the limits, each tenth of the range about as often.
void ExpectUniform(const vector<int64_t>& delays, int64_t low, int64_t high) {
  EXPECT_GE(*std::min_element(delays.begin(), delays.end()), low);
  EXPECT_LE(*std::max_element(delays.begin(), delays.end()), high);
  vector<size_t> tenths(10);
  for (const int64_t delay : delays) {
    ++tenths[static_cast<size_t>((delay - low) * 10 / (high - low + 1))];
  }
  for (const size_t count : tenths) {
    EXPECT_GT(count, delays.size() / 20);
    EXPECT_LT(count, delays.size() / 5);
  }
}

TEST_F(Answer, SharedAnswersManyQuestionsAndTruncatedQueriesAreDelayedAtRandom) {
  struct Row {
    const char* what;
    Message query;
    int64_t low;
    int64_t high;
  };
  const Row rows[] = {
      {"shared", {0, {{"_ipp._tcp.local", kTypePtr}}}, 20, 120},
      {"two questions", {0, {{"host.local", kTypeA}, {"host.local", kTypeAaaa}}}, 20, 120},
      {"two questions, one for this host", {0, {{"host.local", kTypeA}, {"x.local", 1}}}, 20, 120},
      {"truncated", {kFlagTruncated, {{"host.local", kTypeA}}}, 400, 500},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    vector<int64_t> delays;
    for (int i = 0; i < 500; ++i) {
      host.Hear(row.query);
      const vector<string> lines = Within(5000);
      ASSERT_EQ(lines.size(), 1u);
      delays.push_back(std::stoll(lines[0]));
    }
    ExpectUniform(delays, row.low, row.high);
  }
}

TEST_F(Answer, WhatWaitsAtTheSameTimeGoesOutTogether) {
  Ask({{"_ipp._tcp.local", kTypePtr}});
  Ask({{"_services._dns-sd._udp.local", kTypePtr}});
  Ask({{"_universal._sub._ipp._tcp.local", kTypePtr}});
  EXPECT_THAT(WordsWithin(2000),
              ElementsAre("v4 =_services._dns-sd._udp PTR =_ipp._tcp PTR"
                          " =_universal._sub._ipp._tcp PTR"
                          " +host A +host AAAA +P._ipp._tcp SRV +P._ipp._tcp TXT"));
}

TEST_F(Answer, AQuestionAskedTwiceIsAnsweredOnce) {
  Ask({{"_ipp._tcp.local", kTypePtr}, {"_ipp._tcp.local", kTypePtr}});
  Ask({{"_ipp._tcp.local", kTypePtr}});
  EXPECT_THAT(WordsWithin(2000), ElementsAre(kPointerAnswer));
}

TEST_F(Answer, KnownAnswersWithHalfTheirTimeLeftAreNotSent) {
  struct Row {
    const char* what;
    Told known;
    bool isSent;
  };
  const Row rows[] = {
      {"the whole time", kKnownPointer, false},
      {"half the time", {kKnownPointer.name, kTypePtr, kKnownPointer.data, 2250}, false},
      {"less than half", {kKnownPointer.name, kTypePtr, kKnownPointer.data, 2249}, true},
      {"in other letters",
       {"_IPP._tcp.local", kTypePtr, "01 'p' 04 '_ipp' 04 '_tcp' 05 'local' 00", 4500},
       false},
      {"other data",
       {"_ipp._tcp.local", kTypePtr, "01 'Q' 04 '_ipp' 04 '_tcp' 05 'local' 00", 4500},
       true},
      {"another type", {"_ipp._tcp.local", kTypeTxt, kKnownPointer.data, 4500}, true},
      {"another name", {"_printer._tcp.local", kTypePtr, kKnownPointer.data, 4500}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Ask({{"_ipp._tcp.local", kTypePtr}}, {row.known});
    EXPECT_EQ(!WordsWithin(2000).empty(), row.isSent);
  }
}

TEST_F(Answer, KnownAnswersCountForUnicastToo) {
  Ask({{"_ipp._tcp.local", kTypePtr, kUnicast}}, {kKnownPointer});
  EXPECT_THAT(WordsWithin(2000), IsEmpty());
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr, kUnicast}}});
  host.Hear({0, {}, {kKnownPointer}});
  EXPECT_THAT(WordsWithin(2000), IsEmpty());
}

TEST_F(Answer, KnownAnswersSuppressNothingElse) {
  Ask({{"host.local", kTypeAny}}, {kKnownA});
  EXPECT_THAT(WordsWithin(2000), ElementsAre("v4 =host AAAA +host A"));
}

TEST_F(Answer, ASetOfAddressesIsSentWholeUnlessAllOfItIsKnown) {
  constexpr Address kSecondIpv4 = {Family::kIpv4, {192, 168, 1, 2}};
  host.SetLink(LinkWith({kOwnIpv4, kSecondIpv4, kOwnIpv6}));
  host.Settle();
  const Told second = {"host.local", kTypeA, "C0 A8 01 02", 120};
  Ask({{"host.local", kTypeA}}, {kKnownA});
  EXPECT_THAT(WordsWithin(2000), ElementsAre("v4 =host A =host A +host AAAA"));
  Ask({{"host.local", kTypeA, kUnicast}}, {kKnownA});
  EXPECT_THAT(WordsWithin(2000), ElementsAre("v4.77:5353 =host A =host A +host AAAA"));
  Ask({{"host.local", kTypeA}}, {kKnownA, second});
  EXPECT_THAT(WordsWithin(2000), IsEmpty());
}

TEST_F(Answer, KnownAnswersCountForTheirAskerAlone) {
  Ask({{"_ipp._tcp.local", kTypePtr}});
  host.Hear({0, {{"_ipp._tcp.local", kTypePtr}}, {kKnownPointer}},
            {Family::kIpv4, {192, 168, 1, 9}});
  EXPECT_THAT(WordsWithin(2000), ElementsAre(kPointerAnswer));
}

TEST_F(Answer, ATruncatedQueryWaitsForMoreKnownAnswers) {
  const Message question = {kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}};
  host.Hear(question);
  host.RunFor(100);
  host.Hear({0, {}, {kKnownPointer}});
  EXPECT_THAT(WordsWithin(2000), IsEmpty());
}

TEST_F(Answer, TheLastOfTheKnownAnswersDoesNotExtendTheWait) {
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  host.RunFor(399);
  host.Hear({0, {}, {kKnownA}});
  EXPECT_EQ(host.RunFor(101).size(), 1u);
}

TEST_F(Answer, KnownAnswersBelongToTheLastTruncatedQuery) {
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  host.RunFor(10);
  host.Hear({kFlagTruncated, {{"host.local", kTypeA}}});
  host.Hear({0, {}, {kKnownPointer, kKnownA}});
  EXPECT_THAT(WordsWithin(5000), ElementsAre(kPointerAnswer));
}

TEST_F(Answer, SharedNamesAreNotDefended) {
  host.Hear({0, {{"_ipp._tcp.local", kTypePtr}}, {}, {kKnownPointer}});
  EXPECT_THAT(host.RunFor(19), IsEmpty());
  EXPECT_THAT(WordsWithin(2000), ElementsAre(kPointerAnswer));
}

TEST_F(Answer, WhatWasMulticastMeanwhileNeedNotBeWaitedFor) {
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  Ask({{"_ipp._tcp.local", kTypePtr}});
  EXPECT_THAT(WordsWithin(5000), ElementsAre(kPointerAnswer));
}

TEST_F(Answer, EachTruncatedPacketExtendsTheWait) {
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  host.RunFor(399);
  host.Hear({kFlagTruncated, {}, {{"_ipp._tcp.local", kTypePtr, "00", 4500}}});
  EXPECT_THAT(host.RunFor(399), IsEmpty());
  host.Hear({0, {}, {kKnownPointer}});
  EXPECT_THAT(host.RunFor(2000), IsEmpty());
}

TEST_F(Answer, ATruncatedQueryIsAnsweredInTheEndHoweverManyPacketsFollow) {
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  vector<string> lines;
  int64_t waited = 0;
  for (; lines.empty() && waited < 60000; waited += 300) {
    lines = WordsWithin(300);
    host.Hear({kFlagTruncated, {}, {{"_ipp._tcp.local", kTypePtr, "00", 4500}}});
  }
  EXPECT_THAT(lines, ElementsAre(kPointerAnswer));
  EXPECT_LE(waited, 5300);
}

TEST_F(Answer, AnothersKnownAnswersDoNotCountForATruncatedQuery) {
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  host.Hear({0, {}, {kKnownPointer}}, {Family::kIpv4, {192, 168, 1, 9}});
  host.Hear({0, {}, {kKnownPointer}}, kOtherIpv4, 5354);
  host.Hear({0, {{"x.local", kTypeA}}, {kKnownPointer}});
  EXPECT_THAT(WordsWithin(2000), ElementsAre(kPointerAnswer));
}

TEST_F(Answer, AUnicastQuestionIsAnsweredToTheAskerWithinAQuarterOfTheTtl) {
  host.RunFor(40000);
  Ask({{"host.local", kTypeA}});
  host.RunFor(29999);
  Ask({{"host.local", kTypeA, kUnicast}});
  EXPECT_THAT(WordsWithin(0), ElementsAre("v4.77:5353 =host A +host AAAA"));
  host.RunFor(1);
  Ask({{"host.local", kTypeA, kUnicast}});
  EXPECT_THAT(WordsWithin(0), ElementsAre("v4 =host A +host AAAA"));
}

TEST_F(Answer, AUnicastQuestionForSharedRecordsIsDelayedToo) {
  Ask({{"_ipp._tcp.local", kTypePtr, kUnicast}});
  const vector<string> lines = Within(2000);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_GE(std::stoll(lines[0]), 20);
  EXPECT_NE(lines[0].find("v4.77:5353 =_ipp._tcp PTR"), string::npos) << lines[0];
}

TEST_F(Answer, AUnicastAnswerHasTheCacheFlushBit) {
  host.SetLink(LinkWith({kOwnIpv4}));
  host.Settle();
  Ask({{"host.local", kTypeA}});
  host.RunFor(2000);
  Ask({{"host.local", kTypeA, kUnicast}});
  EXPECT_EQ(Hex(host.BytesUntil(host.Now()).at(0)),
            WireHex("00 00 84 00 00 00 00 01 00 00 00 01"
                    "04 'host' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"
                    "C0 0C 00 2F 80 01 00 00 00 78 00 05 C0 0C 00 01 40"));
}

TEST_F(Answer, WhoAndHowIsAnswered) {
  struct Row {
    const char* what;
    Address from;
    uint16_t port;
    bool isMulticast;
    uint16_t classBits;
    const char* expected;  // null: nothing
  };
  const Row rows[] = {
      {"to all, from the link", kOtherIpv4, kMdnsPort, true, kClassIn, "v4 "},
      {"to all, from elsewhere", kForeignIpv4, kMdnsPort, true, kClassIn, "v4 "},
      {"for unicast, from elsewhere", kForeignIpv4, kMdnsPort, true, kUnicast, "v4 "},
      {"to this host, from the link", kOtherIpv4, kMdnsPort, false, kClassIn, "v4.77:5353 "},
      {"to this host, from elsewhere", kForeignIpv4, kMdnsPort, false, kClassIn, nullptr},
      {"conventional, from the link", kOtherIpv4, kLegacyPort, true, kClassIn, "v4.77:40000 "},
      {"conventional, to this host", kOtherIpv4, kLegacyPort, false, kClassIn, "v4.77:40000 "},
      {"conventional, from elsewhere", kForeignIpv4, kLegacyPort, true, kClassIn, nullptr},
      {"conventional, from a broadcast address",
       {Family::kIpv4, {192, 168, 1, 255}},
       kLegacyPort,
       true,
       kClassIn,
       nullptr},
      {"from port 0", kOtherIpv4, 0, true, kClassIn, nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Ask({{"host.local", kTypeA}});  // multicast of late
    host.RunFor(3000);
    host.Hear({0, {{"host.local", kTypeA, row.classBits}}}, row.from, row.port, row.isMulticast);
    const vector<string> lines = WordsWithin(0);
    ASSERT_EQ(lines.size(), row.expected == nullptr ? 0u : 1u);
    if (row.expected != nullptr) {
      EXPECT_EQ(lines[0].find(row.expected), 0u) << lines[0];
    }
  }
}

TEST_F(Answer, AConventionalResolverGetsWhatItKnowsHowToRead) {
  host.SetLink(LinkWith({kOwnIpv4}));
  host.Settle();
  host.HearBytes(Wire("12 34 01 00 00 01 00 00 00 00 00 00"
                      "01 'p' 04 '_IPP' 04 '_tcp' 05 'local' 00 00 21 00 01"),
                 kOtherIpv4, kLegacyPort);
  EXPECT_EQ(Hex(host.BytesUntil(host.Now()).at(0)),
            WireHex("12 34 84 00 00 01 00 01 00 00 00 02"
                    "01 'p' 04 '_IPP' 04 '_tcp' 05 'local' 00 00 21 00 01"
                    "01 'P' 04 '_ipp' C0 13 00 21 00 01 00 00 00 0A 00 12"
                    "00 00 00 00 02 77 04 'host' 05 'local' 00"
                    "04 'host' C0 18 00 01 00 01 00 00 00 0A 00 04 C0 A8 01 01"
                    "C0 48 00 2F 00 01 00 00 00 0A 00 0F 04 'host' 05 'local' 00 00 01 40"));
}

TEST_F(Answer, AConventionalResolverIsAnsweredAtOnceWhateverItAsks) {
  for (const uint16_t flags : {uint16_t{0}, kFlagTruncated}) {
    host.Hear({flags, {{"_ipp._tcp.local", kTypePtr}}, {}, {}, 7}, kOtherIpv4, kLegacyPort);
    EXPECT_THAT(WordsWithin(0),
                ElementsAre("v4.77:40000 ?_ipp._tcp PTR =_ipp._tcp PTR"
                            " +host A +host AAAA +P._ipp._tcp SRV +P._ipp._tcp TXT"));
  }
  host.Hear({0, {{"host.local", kTypeTxt}}}, kOtherIpv4, kLegacyPort);
  EXPECT_THAT(WordsWithin(0), ElementsAre("v4.77:40000 ?host TXT =host NSEC"));
  host.Hear({0, {{"guest.local", kTypeTxt}}}, kOtherIpv4, kLegacyPort);
  EXPECT_THAT(WordsWithin(0), IsEmpty());
}

TEST_F(Answer, AConventionalQuestionThatIsAskedAgainGetsTheReplyThatWasKept) {
  const Bytes query = BytesOf({0, {{"host.local", kTypeA}}, {}, {}, 7});
  const ReceivedDatagram again = {query.data(), query.size(), {kOtherIpv4, kLegacyPort}, true};
  EXPECT_FALSE(HandleRepeatedQuery(host.State(), again));
  HandleDatagram(host.State(), again, host.Now());
  const vector<Bytes> composed = host.BytesUntil(host.Now());
  ASSERT_EQ(composed.size(), 1u);
  EXPECT_TRUE(HandleRepeatedQuery(host.State(), again));
  EXPECT_THAT(host.BytesUntil(host.Now()), ElementsAre(composed[0]));
}

TEST_F(Answer, AConventionalQuestionThatIsAskedAgainIsAnsweredWithItsOwnId) {
  const char* const kRest = " 00 00 00 01 00 00 00 00 00 00 04 'host' 05 'local' 00 00 01 00 01";
  for (const char* id : {"00 01", "12 34", "FF FF"}) {
    host.HearBytes(Wire(std::string(id) + kRest), kOtherIpv4, kLegacyPort);
    const vector<Bytes> sent = host.BytesUntil(host.Now());
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Hex(sent[0]).substr(0, 5), id);
    host.HearBytes(Wire(std::string(id) + kRest), kOtherIpv4, kMdnsPort);
    host.RunFor(2000);
  }
}

TEST_F(Answer, AConventionalQuestionThatIsAskedAgainIsAnsweredWithWhatHoldsNow) {
  const auto ask = [&](const Address& from) {
    host.Hear({0, {{"host.local", kTypeA}}}, from, kLegacyPort);
    host.Hear({0, {{"host.local", kTypeA}}}, from, kLegacyPort + 1);
    return WordsWithin(0);
  };
  const std::string both = "v4.77:40000 ?host A =host A +host AAAA";
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(ask(kOtherIpv4), ElementsAre(both));
    EXPECT_THAT(ask(kForeignIpv4), IsEmpty());
  }
  host.SetLink(LinkWith({kOwnIpv4}));
  EXPECT_THAT(WordsWithin(5000), testing::Not(IsEmpty()));
  EXPECT_THAT(ask(kOtherIpv4), ElementsAre("v4.77:40000 ?host A =host A +host NSEC"));
  // Another host has the name now.
  host.Hear({kResponseFlags, {}, {{"host.local", kTypeA, "C0 A8 01 4D"}}});
  EXPECT_THAT(ask(kOtherIpv4), IsEmpty());
}

TEST_F(Answer, AConventionalQuestionIsNotUpsetByTheNext) {
  host.Hear({0, {{"host.local", kTypeTxt}}}, kOtherIpv4, kLegacyPort);
  host.Hear({0, {{"guest.local", kTypeTxt}}}, kOtherIpv4, kLegacyPort + 1);
  EXPECT_THAT(WordsWithin(0), ElementsAre("v4.77:40000 ?host TXT =host NSEC"));
}

TEST_F(Answer, WhatGoesIsNotAnsweredAnyMore) {
  Ask({{"_ipp._tcp.local", kTypePtr}});
  ASSERT_TRUE(RemoveService(host.State(), "P", "_ipp._tcp", host.Now()));
  for (const string& line : WordsWithin(2000)) {
    EXPECT_NE(line.find("=_ipp._tcp PTR 0"), string::npos) << line;
  }
}

TEST_F(Answer, AProbeIsMetWithADefenceAtOnce) {
  const vector<Told> rival = {{"host.local", kTypeA, "C0 A8 01 4D"}};
  struct Row {
    const char* what;
    uint16_t classBits;
    vector<string> expected;
  };
  const Row rows[] = {
      {"for unicast: also to all, who may not hear unicast from each other",
       kUnicast,
       {"v4 =host A =host AAAA", "v4.77:5353 =host A =host AAAA"}},
      {"for multicast", kClassIn, {"v4 =host A =host AAAA"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    host.Hear({0, {{"x.local", kTypeA}, {"host.local", kTypeAny, row.classBits}}, {}, rival});
    EXPECT_EQ(WordsWithin(0), row.expected);
    host.RunFor(2000);
  }
}

TEST_F(Answer, ADefenceIgnoresKnownAnswersAndTruncation) {
  host.Hear({kFlagTruncated,
             {{"host.local", kTypeAny}},
             {kKnownA},
             {{"host.local", kTypeA, "C0 A8 01 4D"}}});
  EXPECT_THAT(WordsWithin(0), ElementsAre("v4 =host A =host AAAA"));
}

TEST_F(Answer, WithoutAPlaceAQuestionIsAnsweredToAllWhateverIsKnown) {
  for (uint8_t i = 0; i < kRepliesMax; ++i) {
    host.Hear({kFlagTruncated, {{"host.local", kTypeA}}}, {Family::kIpv4, {192, 168, 2, i}});
  }
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  host.Hear({0, {}, {kKnownPointer}});
  const vector<string> lines = WordsWithin(2000);
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const string& line) {
    return line.find("=_ipp._tcp PTR") != string::npos;
  }));
}

}  // namespace
