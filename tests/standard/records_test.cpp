#include "standard/records.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/standard/host.h"

namespace {

// A host with both addresses and an IPP printer, that has its names.
class Records : public testing::Test {
 protected:
  void SetUp() override {
    host.AddPrinter();
    host.Settle();
  }

  NameId Find(std::string_view name) const { return FindName(core, NameOf(name)); }

  // The only record of a name and a type.
  RecordId Only(std::string_view name, uint16_t type) const {
    const RecordSet records = RecordsOfName(core, Find(name));
    RecordId found = kRecordsMax;
    for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
      if (TypeOfRecord(core, id) != type) continue;
      EXPECT_EQ(found, kRecordsMax) << name;
      found = id;
    }
    return found;
  }

  // The names and types of records, without the last label.
  std::vector<std::string> List(const RecordSet& records) const {
    std::vector<std::string> list;
    auto out = std::make_unique<OutgoingDatagram>();
    for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
      Record record;
      EXPECT_TRUE(DescribeRecord(core, id, record));
      out->destination = {kOtherIpv4, kMdnsPort};
      WireWriter writer = WriteMessage(out->bytes, kDatagramMax, true);
      EXPECT_TRUE(WriteRecord(writer, Section::kAnswer, record));
      out->length = FinishMessage(writer, 0, 0);
      const std::string words = InWords(*out);
      list.push_back(words.substr(words.find('=') + 1));
    }
    return list;
  }

  Host host;
  Core& core = host.State();
};

constexpr const char* kIpv6Reverse =
    "1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.e.f.ip6.arpa";

TEST_F(Records, ReadOnTheWireLikeThis) {
  struct Row {
    const char* name;
    uint16_t type;
    uint32_t ttl;
    bool isUnique;
    const char* data;
  };
  const Row rows[] = {
      {"host.local", kTypeA, 120, true, "C0 A8 01 01"},
      {"host.local", kTypeAaaa, 120, true, "FE 80 13*00 01"},
      {"host.local", kTypeNsec, 120, true,
       "04 'host' 05 'local' 00"
       "00 04 40 00 00 08"},
      {"1.1.168.192.in-addr.arpa", kTypePtr, 120, true, "04 'host' 05 'local' 00"},
      {"1.1.168.192.in-addr.arpa", kTypeNsec, 120, true,
       "01 '1' 01 '1' 03 '168' 03 '192' 07 'in-addr' 04 'arpa' 00"
       "00 02 00 08"},
      {kIpv6Reverse, kTypePtr, 120, true, "04 'host' 05 'local' 00"},
      {"_services._dns-sd._udp.local", kTypePtr, 4500, false, "04 '_ipp' 04 '_tcp' 05 'local' 00"},
      {"_ipp._tcp.local", kTypePtr, 4500, false, "07 'Printer' 04 '_ipp' 04 '_tcp' 05 'local' 00"},
      {"_universal._sub._ipp._tcp.local", kTypePtr, 4500, false,
       "07 'Printer' 04 '_ipp' 04 '_tcp' 05 'local' 00"},
      {"Printer._ipp._tcp.local", kTypeSrv, 120, true, "00 00 00 00 02 77 04 'host' 05 'local' 00"},
      {"Printer._ipp._tcp.local", kTypeTxt, 4500, true, "09 'txtvers=1'"},
      {"Printer._ipp._tcp.local", kTypeNsec, 120, true,
       "07 'Printer' 04 '_ipp' 04 '_tcp' 05 'local' 00"
       "00 05 00 00 80 00 40"},
      {"Printer._printer._tcp.local", kTypeSrv, 120, true,
       "00 00 00 00 00 00 04 'host' 05 'local' 00"},
      {"Printer._printer._tcp.local", kTypeTxt, 4500, true, "00"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " " + std::to_string(row.type));
    const RecordId id = Only(row.name, row.type);
    ASSERT_NE(id, kRecordsMax);
    Record record;
    ASSERT_TRUE(DescribeRecord(core, id, record));
    EXPECT_TRUE(AreNamesEqual(record.name, NameOf(row.name)));
    EXPECT_EQ(record.type, row.type);
    EXPECT_EQ(record.classBits, kClassIn);
    EXPECT_EQ(record.ttl, row.ttl);
    EXPECT_EQ(TtlOfRecord(core, id), row.ttl);
    EXPECT_EQ(IsUniqueRecord(id), row.isUnique);
    EXPECT_EQ(Hex({record.data, record.dataLength}), WireHex(row.data));
  }
}

TEST_F(Records, NobodyIsPointedToAReservedName) {
  EXPECT_TRUE(RecordsOfName(core, Find("_printer._tcp.local")).IsEmpty());
}

TEST_F(Records, AreFoundByTheirNamesWithoutRegardToCase) {
  EXPECT_EQ(Find("HOST.Local"), kHostName);
  EXPECT_NE(Find("printer._IPP._tcp.local"), kNamesMax);
  for (const char* name : {"host", "host.local.local", "a.host.local", "host.arpa", "local",
                           "_tcp.local", "_ipp._udp.local", "Printer._ipp._tcp", "Printer.local",
                           "_sub._ipp._tcp.local", "_universal._sub._printer._tcp.local",
                           "Printer (2)._ipp._tcp.local", "2.1.168.192.in-addr.arpa",
                           "1.1.168.192.in-addr.arpa.local", "01.1.168.192.in-addr.arpa"}) {
    EXPECT_EQ(Find(name), kNamesMax) << name;
  }
  EXPECT_EQ(FindName(core, RootName()), kNamesMax);
}

TEST_F(Records, NumbersAndKeysAgree) {
  for (RecordId id = kServiceRecords; id < kRecordsMax; ++id) {
    const RecordKey key = KeyOf(id);
    EXPECT_EQ(ServiceRecord(key.index, key.kind), id);
  }
}

TEST_F(Records, AreFoundByTheirData) {
  const auto find = [&](std::string_view name, const Told& told) {
    const Bytes bytes = BytesOf({kResponseFlags, {}, {told}});
    WireReader reader = ReadMessage(bytes.data(), bytes.size());
    ReceivedRecord record;
    EXPECT_TRUE(ReadRecord(reader, record));
    return FindRecord(core, Find(name), record) != kRecordsMax;
  };
  EXPECT_TRUE(find("host.local", {"host.local", kTypeA, "C0 A8 01 01"}));
  EXPECT_FALSE(find("host.local", {"host.local", kTypeA, "C0 A8 01 02"}));
  EXPECT_FALSE(find("host.local", {"host.local", kTypeTxt, "C0 A8 01 01"}));
  EXPECT_TRUE(find("Printer._ipp._tcp.local", {"Printer._ipp._tcp.local", kTypeSrv,
                                               "00 00 00 00 02 77 04 'HOST' 05 'local' 00"}));
}

TEST_F(Records, BringAdditionalOnes) {
  struct Row {
    const char* name;
    uint16_t type;
    std::vector<std::string> expected;
  };
  const std::vector<std::string> service = {"host A", "host AAAA", "Printer._ipp._tcp SRV",
                                            "Printer._ipp._tcp TXT"};
  const Row rows[] = {
      {"_ipp._tcp.local", kTypePtr, service},
      {"_universal._sub._ipp._tcp.local", kTypePtr, service},
      {"Printer._ipp._tcp.local", kTypeSrv, {"host A", "host AAAA"}},
      {"Printer._ipp._tcp.local", kTypeTxt, {}},
      {"host.local", kTypeA, {"host AAAA"}},
      {"host.local", kTypeAaaa, {"host A"}},
      {"host.local", kTypeNsec, {}},
      {"_services._dns-sd._udp.local", kTypePtr, {}},
      {"1.1.168.192.in-addr.arpa", kTypePtr, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " " + std::to_string(row.type));
    RecordSet answers = {};
    answers.Add(Only(row.name, row.type));
    EXPECT_EQ(List(AdditionalsOf(core, answers)), row.expected);
  }
}

TEST_F(Records, AnAddressBringsWordThatTheOtherFamilyIsMissing) {
  host.SetLink(LinkWith({kOwnIpv4}));
  RecordSet answers = {};
  answers.Add(Only("host.local", kTypeA));
  EXPECT_EQ(List(AdditionalsOf(core, answers)), std::vector<std::string>{"host NSEC"});
  Record record;
  ASSERT_TRUE(DescribeRecord(core, kHostNsecRecord, record));
  EXPECT_EQ(Hex({record.data, record.dataLength}), WireHex("04 'host' 05 'local' 00 00 01 40"));
}

TEST_F(Records, TheAddressesOfAFamilyAreOneSet) {
  constexpr Address kSecondIpv4 = {Family::kIpv4, {192, 168, 1, 2}};
  host.SetLink(LinkWith({kOwnIpv4, kSecondIpv4, kOwnIpv6}));
  RecordSet records = {};
  CompleteSets(core, records);
  EXPECT_TRUE(records.IsEmpty());
  records.Add(0);
  CompleteSets(core, records);
  EXPECT_EQ(List(records), (std::vector<std::string>{"host A", "host A"}));
}

}  // namespace
