#include "standard/response.h"

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

constexpr const char* kPointerData = "01 'P' 04 '_ipp' 04 '_tcp' 05 'local' 00";
constexpr const char* kAnswer =
    "v4 =_ipp._tcp PTR +host A +host AAAA +P._ipp._tcp SRV +P._ipp._tcp TXT";

class OthersResponse : public testing::Test {
 protected:
  void SetUp() override {
    host.AddPrinter("P");
    host.Settle();
  }

  vector<string> WordsWithin(int64_t time) {
    vector<string> lines = host.RunFor(time);
    for (string& line : lines) line.erase(0, line.find(' ') + 1);
    return lines;
  }

  Host host;
};

TEST_F(OthersResponse, AnswersThatAnotherHostGaveAreDropped) {
  struct Row {
    const char* what;
    Told told;
    bool isSent;
    Address from = kOtherIpv4;
    bool isMulticast = true;
  };
  const Row rows[] = {
      {"the same record", {"_ipp._tcp.local", kTypePtr, kPointerData, 4500}, false},
      {"a longer TTL", {"_ipp._tcp.local", kTypePtr, kPointerData, 5000}, false},
      {"a shorter TTL", {"_ipp._tcp.local", kTypePtr, kPointerData, 4499}, true},
      {"other data", {"_ipp._tcp.local", kTypePtr, "01 'Q' 00", 4500}, true},
      {"another class", {"_ipp._tcp.local", kTypePtr, kPointerData, 4500, 3}, true},
      {"to this host alone",
       {"_ipp._tcp.local", kTypePtr, kPointerData, 4500},
       true,
       kOtherIpv4,
       false},
      {"on the other family", {"_ipp._tcp.local", kTypePtr, kPointerData, 4500}, true, kOtherIpv6},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    host.Hear({0, {{"_ipp._tcp.local", kTypePtr}}});
    host.Hear({kResponseFlags, {}, {row.told}}, row.from, kMdnsPort, row.isMulticast);
    const vector<string> sent = WordsWithin(5000);
    if (row.isSent) {
      EXPECT_THAT(sent, ElementsAre(kAnswer));
    } else {
      EXPECT_THAT(sent, IsEmpty());
    }
  }
}

TEST_F(OthersResponse, AnswersThatWaitForKnownOnesAreDroppedToo) {
  host.Hear({kFlagTruncated, {{"_ipp._tcp.local", kTypePtr}}});
  host.Hear({kResponseFlags, {}, {{"_ipp._tcp.local", kTypePtr, kPointerData, 4500}}});
  EXPECT_THAT(WordsWithin(5000), IsEmpty());
}

TEST_F(OthersResponse, OwnRecordsThatSomebodyLetsExpireAreAnnouncedAgain) {
  struct Row {
    const char* what;
    Told told;
    const char* expected;  // null: nothing
    bool isMulticast = true;
  };
  const Row rows[] = {
      {"a goodbye to a shared record", {"_ipp._tcp.local", kTypePtr, kPointerData, 0}, kAnswer},
      {"less than half", {"_ipp._tcp.local", kTypePtr, kPointerData, 2249}, kAnswer},
      {"half", {"_ipp._tcp.local", kTypePtr, kPointerData, 2250}, nullptr},
      {"a unique record", {"host.local", kTypeA, "C0 A8 01 01", 59}, "v4 =host A +host AAAA"},
      {"a type",
       {"_services._dns-sd._udp.local", kTypePtr, "04 '_ipp' 04 '_tcp' 05 'local' 00", 0},
       "v4 =_services._dns-sd._udp PTR"},
      {"to this host alone", {"host.local", kTypeA, "C0 A8 01 01", 0}, nullptr, false},
      {"of another printer", {"_ipp._tcp.local", kTypePtr, "01 'Q' 00", 0}, nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    host.Hear({kResponseFlags, {}, {row.told}}, kOtherIpv4, kMdnsPort, row.isMulticast);
    EXPECT_THAT(host.RunFor(19), IsEmpty());
    vector<string> expected;
    if (row.expected != nullptr) expected.push_back(row.expected);
    EXPECT_EQ(WordsWithin(5000), expected);
  }
}

TEST_F(OthersResponse, GoodbyesInGreatNumbersKeepTheInterval) {
  size_t sent = 0;
  for (int i = 0; i < 5000; ++i) {
    host.Hear({kResponseFlags, {}, {{"_ipp._tcp.local", kTypePtr, kPointerData, 0}}});
    sent += host.RunFor(1).size();
  }
  EXPECT_EQ(sent, 5u);
}

TEST_F(OthersResponse, OneMessageIsOneConflict) {
  // The second record would be a conflict while probing.
  host.Hear({kResponseFlags,
             {},
             {{"host.local", kTypeA, "C0 A8 01 4D"}, {"host.local", kTypeAaaa, "FE 80 13*00 4D"}}});
  host.Settle();
  EXPECT_STREQ(HostName(host.State()), "host");
}

TEST_F(OthersResponse, AConflictOverTheHostTakesNoDevicesNameAway) {
  // Both are being probed for; the device goes on when the host has another name.
  host.SetLink({});
  host.SetLink(LinkWith({kOwnIpv4, kOwnIpv6}));
  host.RunFor(300);
  host.Hear({kResponseFlags,
             {},
             {{"host.local", kTypeA, "C0 A8 01 4D"}, {"P._ipp._tcp.local", kTypeTxt, "01 'x'"}}});
  host.Settle();
  EXPECT_STREQ(HostName(host.State()), "host-1");
  EXPECT_STREQ(host.State().devices[0].label.text, "P");
}

TEST_F(OthersResponse, AdditionalRecordsAreLookedAtToo) {
  host.HearBytes(
      Wire("00 00 84 00 00 00 00 00 00 00 00 01"
           "04 'host' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 4D"));
  EXPECT_FALSE(host.RunFor(300).empty());
}

}  // namespace
