#include "standard/services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "standard/records.h"
#include "tests/support/standard_host.h"

namespace {

using std::string;
using std::vector;
using testing::ElementsAre;
using testing::IsEmpty;

bool Add(Host& host, std::string_view instance, std::string_view type) {
  return AddService(host.State(), instance, type, "", 631, host.Now());
}

bool Remove(Host& host, std::string_view instance, std::string_view type) {
  return RemoveService(host.State(), instance, type, host.Now());
}

vector<string> Ipv4WordsWithin(Host& host, int64_t time) {
  const int64_t start = host.Now();
  vector<string> words;
  for (const string& line : host.RunFor(time)) {
    if (line.find(" v4 ") == string::npos) continue;
    words.push_back(std::to_string(std::stoll(line) - start) + line.substr(line.find(" v4 ") + 3));
  }
  return words;
}

TEST(Services, WhatIsAService) {
  struct Row {
    const char* what;
    string instance;
    const char* type;
    bool isAdded;
  };
  const Row rows[] = {
      {"printing", "P", "_ipp._tcp", true},
      {"over UDP", "P", "_ipp._udp", true},
      {"any byte but zero", "a.b/\n\xFF", "_ipp._tcp", true},
      {"128 bytes", string(128, 'a'), "_ipp._tcp", true},
      {"129 bytes", string(129, 'a'), "_ipp._tcp", false},
      {"a zero byte", string(1, '\0'), "_ipp._tcp", false},
      {"no name", "", "_ipp._tcp", false},
      {"no type", "P", "", false},
      {"no protocol", "P", "_ipp", false},
      {"an empty protocol", "P", "_ipp.", false},
      {"another protocol", "P", "_ipp._sctp", false},
      {"no underscore", "P", "ipp._tcp", false},
      {"an underscore alone", "P", "_._tcp", false},
      {"a label more", "P", "_a._ipp._tcp", false},
      {"a domain", "P", "_ipp._tcp.local", false},
      {"fifteen letters", "P", "_abcdefghijklmno._tcp", true},
      {"sixteen letters", "P", "_abcdefghijklmnop._tcp", false},
      {"a letter that is none", "P", "_i\xE4p._tcp", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Host host;
    EXPECT_EQ(Add(host, row.instance, row.type), row.isAdded);
  }
}

TEST(Services, ATextThatDoesNotFitIsRefused) {
  Host host;
  const string lines = string(255, 'a') + "\n" + string(255, 'b') + "\n";
  EXPECT_TRUE(AddService(host.State(), "P", "_ipp._tcp", lines + "1234567", 1, 0));
  EXPECT_FALSE(AddService(host.State(), "Q", "_ipp._tcp", lines + "12345678", 1, 0));
}

TEST(Services, AreAddedOnceAndWithdrawnOnce) {
  Host host;
  EXPECT_FALSE(Remove(host, "P", "_ipp._tcp"));
  EXPECT_TRUE(Add(host, "P", "_ipp._tcp"));
  EXPECT_FALSE(Add(host, "P", "_IPP._tcp"));
  EXPECT_FALSE(Remove(host, "P", "_printer._tcp")) << "the reserved name is none";
  EXPECT_FALSE(Remove(host, "p", "_ipp._tcp"));
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  EXPECT_FALSE(Remove(host, "P", "_ipp._tcp"));
}

TEST(Services, HaveThreePlacesAPrinterAndSixteenPrinters) {
  Host host;
  EXPECT_TRUE(Add(host, "P", "_ipp._tcp"));
  EXPECT_TRUE(Add(host, "P", "_pdl-datastream._tcp"));
  EXPECT_TRUE(Add(host, "P", "_printer._tcp"));
  EXPECT_FALSE(Add(host, "P", "_ipps._tcp"));
  for (size_t i = 1; i < kDevicesMax; ++i) {
    EXPECT_TRUE(Add(host, "P" + std::to_string(i), "_ipp._tcp")) << i;
  }
  EXPECT_FALSE(Add(host, "one too many", "_ipp._tcp"));
  host.Settle();
  EXPECT_TRUE(Remove(host, "P1", "_ipp._tcp"));
  EXPECT_TRUE(Add(host, "one more", "_ipp._tcp")) << "instead of one that leaves";
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  EXPECT_TRUE(Add(host, "P", "_ipps._tcp")) << "instead of one that leaves";
}

TEST(Services, TypesAreFour) {
  Host host;
  EXPECT_TRUE(Add(host, "P", "_a._tcp"));
  EXPECT_TRUE(Add(host, "P", "_b._tcp"));
  EXPECT_TRUE(Add(host, "Q", "_c._tcp"));
  EXPECT_TRUE(Add(host, "Q", "_d._tcp"));
  EXPECT_FALSE(Add(host, "R", "_e._tcp"));
  EXPECT_TRUE(Remove(host, "P", "_a._tcp"));
  EXPECT_TRUE(Add(host, "R", "_e._tcp"));
}

TEST(Services, SayGoodbyeTwiceWhenTheyAreWithdrawn) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  const string goodbye =
      " =_services._dns-sd._udp PTR 0"
      " =P._printer._tcp SRV 0 =P._printer._tcp TXT 0 =P._printer._tcp NSEC 0"
      " =_ipp._tcp PTR 0 =_universal._sub._ipp._tcp PTR 0"
      " =P._ipp._tcp SRV 0 =P._ipp._tcp TXT 0 =P._ipp._tcp NSEC 0";
  EXPECT_THAT(Ipv4WordsWithin(host, 60000), ElementsAre("0" + goodbye, "250" + goodbye));
  host.Hear({0, {{"P._ipp._tcp.local", kTypeSrv}}});
  EXPECT_THAT(host.RunFor(2000), IsEmpty());
}

TEST(Services, ATypeStaysAsLongAsOneServiceHasIt) {
  Host host;
  host.AddPrinter("P");
  host.AddPrinter("Q");
  host.Settle();
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  for (const string& words : Ipv4WordsWithin(host, 2000)) {
    EXPECT_EQ(words.find("_services"), string::npos) << words;
  }
  host.Hear({0, {{"_ipp._tcp.local", kTypePtr}}});
  EXPECT_THAT(Ipv4WordsWithin(host, 2000),
              ElementsAre(testing::EndsWith(
                  "=_ipp._tcp PTR +host A +host AAAA +Q._ipp._tcp SRV +Q._ipp._tcp TXT")));
}

TEST(Services, OneServiceOfAPrinterIsWithdrawnAlone) {
  Host host;
  host.AddPrinter("P");
  ASSERT_TRUE(Add(host, "P", "_pdl-datastream._tcp"));
  host.Settle();
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  const string goodbye =
      " =_services._dns-sd._udp PTR 0 =_ipp._tcp PTR 0 =_universal._sub._ipp._tcp PTR 0"
      " =P._ipp._tcp SRV 0 =P._ipp._tcp TXT 0 =P._ipp._tcp NSEC 0";
  EXPECT_THAT(Ipv4WordsWithin(host, 60000),
              ElementsAre("0 =_services._dns-sd._udp PTR 0 =_ipp._tcp PTR 0"
                          " =_universal._sub._ipp._tcp PTR 0 =P._ipp._tcp SRV 0"
                          " =P._ipp._tcp TXT 0 =P._ipp._tcp NSEC 0",
                          "250" + goodbye));
}

TEST(Services, WhatWasNeverAnnouncedGoesWithoutAWord) {
  Host host;
  host.Settle();
  host.AddPrinter("P");
  host.RunFor(300);
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  EXPECT_THAT(host.RunFor(5000), IsEmpty());
}

TEST(Services, APrinterThatComesBackIsClaimedAgainUnderItsLastName) {
  Host host;
  host.AddPrinter("P");
  host.RunFor(1900);
  host.Hear({kResponseFlags, {}, {{"P._ipp._tcp.local", kTypeTxt, "01 'x'"}}});
  host.Settle();
  ASSERT_STREQ(host.State().devices[0].label.text, "P");
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  host.RunFor(100);
  host.AddPrinter("P");
  const vector<string> words = Ipv4WordsWithin(host, 60000);
  ASSERT_EQ(words.size(), 5u) << "three probes, two announcements, and no second goodbye";
  EXPECT_EQ(words[0].find("?P._printer._tcp ANY"), words[0].find('?'));
}

TEST(Services, APrinterThatIsGoneHoldsNothing) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  host.Settle();
  host.AddPrinter("P");
  host.RunFor(300);
  host.Hear({kResponseFlags, {}, {{"P._ipp._tcp.local", kTypeTxt, "01 'x'"}}});
  host.RunFor(0);
  EXPECT_STREQ(host.State().devices[0].label.text, "P (2)");
}

TEST(Services, APrinterThatComesBackKeepsTheNameThatItHadToTake) {
  Host host;
  host.Settle();
  host.AddPrinter("P");
  host.RunFor(300);
  host.Hear({kResponseFlags, {}, {{"P._ipp._tcp.local", kTypeTxt, "01 'x'"}}});
  host.Settle();
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  host.Settle();
  host.AddPrinter("P");
  EXPECT_STREQ(host.State().devices[0].label.text, "P (2)");
}

TEST(Services, OnlySharedRecordsOfADisputedNameSayGoodbye) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  host.Hear({kResponseFlags, {}, {{"P._ipp._tcp.local", kTypeTxt, "01 'x'"}}});
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  const string goodbye =
      " =_services._dns-sd._udp PTR 0 =_ipp._tcp PTR 0 =_universal._sub._ipp._tcp PTR 0";
  EXPECT_THAT(Ipv4WordsWithin(host, 60000), ElementsAre("0" + goodbye, "250" + goodbye));
}

TEST(Services, ATypeLeavesTheListWithAServiceThatIsBetweenTwoNames) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  const Message conflict = {kResponseFlags, {}, {{"P._ipp._tcp.local", kTypeTxt, "01 'x'"}}};
  host.Hear(conflict);
  host.RunFor(300);
  host.Hear(conflict);
  host.RunFor(300);
  EXPECT_TRUE(Remove(host, "P", "_ipp._tcp"));
  const string goodbye = " =_services._dns-sd._udp PTR 0";
  EXPECT_THAT(Ipv4WordsWithin(host, 60000), ElementsAre("0" + goodbye, "250" + goodbye));
}

TEST(Services, AnLpdServiceTakesTheReservedNamesPlace) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  EXPECT_TRUE(Add(host, "P", "_printer._tcp"));
  host.Settle();
  host.Hear({0, {{"_printer._tcp.local", kTypePtr}}});
  EXPECT_EQ(Ipv4WordsWithin(host, 2000).size(), 1u);
  EXPECT_TRUE(Remove(host, "P", "_printer._tcp"));
  host.Settle();
  host.Hear({0, {{"_printer._tcp.local", kTypePtr}}});
  EXPECT_THAT(Ipv4WordsWithin(host, 2000), IsEmpty());
  host.Hear({0, {{"P._printer._tcp.local", kTypeSrv}}});
  EXPECT_THAT(Ipv4WordsWithin(host, 2000),
              ElementsAre("0 =P._printer._tcp SRV +host A +host AAAA"));
}

TEST(Services, AStopWithdrawsAReservedNameThatAnLpdServiceHasJustTaken) {
  Host host;
  host.AddPrinter("P");
  host.Settle();
  EXPECT_TRUE(Add(host, "P", "_printer._tcp"));
  BeginStop(host.State(), host.Now());
  EXPECT_THAT(Ipv4WordsWithin(host, 250),
              testing::Each(testing::HasSubstr("=P._printer._tcp SRV 0 =P._printer._tcp TXT 0")));
}

TEST(Services, AStopClaimsNoNameAgain) {
  Host host;
  host.Settle();
  host.AddPrinter("P");
  EXPECT_TRUE(Add(host, "P", "_printer._tcp"));
  BeginStop(host.State(), host.Now());
  host.RunFor(250);
  EXPECT_EQ(NextTurn(host.State()), kNever);
}

TEST(Services, OnlyPrintersReserveTheFlagshipsName) {
  Host host;
  ASSERT_TRUE(Add(host, "W", "_http._tcp"));
  host.Settle();
  host.Hear({0, {{"W._printer._tcp.local", kTypeSrv}}});
  EXPECT_THAT(host.RunFor(2000), IsEmpty());
}

// What is said of the service's TXT record, as bytes.
string TextOf(Host& host, size_t service) {
  const Service& own = ServiceAt(host.State(), service);
  return string(TextAt(host.State(), own.txt));
}

TEST(Services, TextsStayWhenThoseBeforeThemGo) {
  Host host(false);
  Core& core = host.State();
  const string longest = string(255, 'x') + "\n" + string(255, 'y');
  const string texts[] = {"a=1", longest, "ty=Printer"};
  for (size_t i = 0; i < std::size(texts); ++i) {
    const string name = "P" + std::to_string(i);
    ASSERT_TRUE(AddService(core, name, "_ipp._tcp", texts[i], 631, 0));
  }
  // The place of the reserved name is the device's first.
  const size_t last = 2 * kServicesPerDevice + kServicesPerDevice - 1;
  ASSERT_EQ(TextOf(host, last), "\x0Aty=Printer");
  const size_t length = core.texts.length;
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(Remove(host, "P1", "_ipp._tcp"));
    EXPECT_EQ(TextOf(host, last), "\x0Aty=Printer");
    EXPECT_TRUE(AddService(core, "P1", "_ipp._tcp", longest, 631, 0));
    EXPECT_EQ(TextOf(host, last), "\x0Aty=Printer");
    EXPECT_EQ(core.texts.length, length);
  }
  EXPECT_TRUE(Remove(host, "P0", "_ipp._tcp"));
  EXPECT_TRUE(Remove(host, "P2", "_ipp._tcp"));
  EXPECT_TRUE(AddService(core, "P2", "_ipp._tcp", "b=2", 631, 0));
  EXPECT_EQ(TextOf(host, last), "\3b=2");
  const string instance(TextAt(core, core.devices[1].instance));
  EXPECT_EQ(instance, "P1");
}

TEST(Services, AllPlacesHaveRoomForTheLongestTexts) {
  Host host(false);
  const string longest = string(255, 'x') + "\n" + string(255, 'y');
  for (int round = 0; round < 2; ++round) {
    for (size_t i = 0; i < 3 * kDevicesMax; ++i) {
      const string name = std::to_string(round) + string(126, 'n') + static_cast<char>('a' + i / 3);
      const char* types[] = {"_printer._tcp", "_ipp._tcp", "_pdl-datastream._tcp"};
      ASSERT_TRUE(AddService(host.State(), name, types[i % 3], longest, 631, 0)) << i;
    }
    EXPECT_LE(host.State().texts.length, kTextsMax);
    for (size_t i = 0; round == 0 && i < 3 * kDevicesMax; ++i) {
      const string name = "0" + string(126, 'n') + static_cast<char>('a' + i / 3);
      const char* types[] = {"_printer._tcp", "_ipp._tcp", "_pdl-datastream._tcp"};
      ASSERT_TRUE(Remove(host, name, types[i % 3])) << i;
    }
  }
}

}  // namespace
