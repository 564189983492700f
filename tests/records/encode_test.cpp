// EncodeRecord: a question or a resource record in wire form; and the offsets of the wire format.
#include "records/encode.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/bytes.h"

namespace {

MdnsRecord Record(std::string_view name, int32_t type, int32_t cacheFlush, uint32_t ttl,
                  std::string_view rdata) {
  MdnsRecord record{};
  memcpy(record.name, name.data(), name.size());
  record.type = type;
  record.cacheFlush = cacheFlush;
  record.ttl = ttl;
  memcpy(record.rdata, rdata.data(), rdata.size());
  return record;
}

MdnsRecord Server(std::string_view target, int32_t port) {
  MdnsRecord record = Record("p", 33, 1, 120, target);
  record.port = port;
  return record;
}

MdnsRecord NextSecure(int32_t nextOffset, int32_t bitmapLength) {
  MdnsRecord record = Record("h", 47, 1, 120, "");
  record.nsecNextOffset = nextOffset;
  record.bitmapLength = bitmapLength;
  for (size_t i = 0; i < sizeof(record.bitmap); ++i) {
    record.bitmap[i] = static_cast<uint8_t>(0xA0 + i);
  }
  return record;
}

struct RecordRow {
  const char* behaviour;
  MdnsRecord record;
  uint32_t questionOnly;
  const char* wire;
};

class EncodeRecordTest : public testing::TestWithParam<RecordRow> {};

const RecordRow kRecordRows[] = {
    {"AddressIsFourBytes", Record("host.local", 1, 1, 120, "192.168.1.1"), 0,
     "04 'host' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"},
    {"ClearFlagGivesPlainClass", Record("h", 1, 0, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 01 00 01 00 00 00 78 00 04 0A 00 00 09"},
    {"AnyNonZeroFlagSetsTheBit", Record("h", 1, -2, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 01 80 01 00 00 00 78 00 04 0A 00 00 09"},
    {"TimeToLiveIsBigEndian", Record("h", 1, 0, 0x01020304, "10.0.0.9"), 0,
     "01 'h' 00 00 01 00 01 01 02 03 04 00 04 0A 00 00 09"},
    {"LargestTimeToLive", Record("h", 1, 0, 0xFFFFFFFF, "10.0.0.9"), 0,
     "01 'h' 00 00 01 00 01 FF FF FF FF 00 04 0A 00 00 09"},
    {"InvalidAddressIsAllOnes", Record("h", 1, 0, 120, "no address"), 0,
     "01 'h' 00 00 01 00 01 00 00 00 78 00 04 FF FF FF FF"},
    {"EmptyAddressIsAllOnes", Record("h", 1, 0, 120, ""), 0,
     "01 'h' 00 00 01 00 01 00 00 00 78 00 04 FF FF FF FF"},
    {"EmptyOwnerIsTheRoot", Record("", 1, 0, 120, "10.0.0.9"), 0,
     "00 00 01 00 01 00 00 00 78 00 04 0A 00 00 09"},
    {"OwnerLabelOf64Characters", Record(std::string(64, 'a') + ".b", 1, 0, 120, "10.0.0.9"), 0,
     "40 64*'a' 01 'b' 00 00 01 00 01 00 00 00 78 00 04 0A 00 00 09"},
    {"TargetLabelOf64Characters", Record("h", 12, 0, 120, std::string(64, 'a') + ".b"), 0,
     "01 'h' 00 00 0C 00 01 00 00 00 78 00 44 40 64*'a' 01 'b' 00"},
    {"PointerCarriesItsTarget", Record("_ipp._tcp.local", 12, 0, 4500, "Office._ipp._tcp.local"), 0,
     "04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
     " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"},
    {"PointerWithoutTargetPointsAtTheRoot", Record("h", 12, 0, 0, ""), 0,
     "01 'h' 00 00 0C 00 01 00 00 00 00 00 01 00"},
    {"TextLeavesOutEmptyLinesAndTheZeroByte", Record("h", 16, 1, 4500, "a\n\nbc"), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 00 05 01 'a' 02 'bc'"},
    {"EmptyTextHasNoData", Record("h", 16, 1, 4500, ""), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 00 00"},
    {"LineFeedsAloneHaveNoData", Record("h", 16, 1, 4500, "\n\n"), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 00 00"},
    {"TextLineOf130Characters", Record("h", 16, 1, 4500, std::string(128, 'a') + "xb"), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 00 83 80 128*'a' 01 'b'"},
    {"TextLengthTakesTwoBytes",
     Record("h", 16, 1, 4500, std::string(127, 'a') + "\n" + std::string(128, 'b')), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 01 01 7F 127*'a' 80 128*'b'"},
    {"ServerCarriesPortAndTarget", Server("host.local", 631), 0,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 12 00 00 00 00 02 77 04 'host' 05 'local' 00"},
    {"ServerWritesThePortsLowBits", Server("h", 0x128F5), 0,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 09 00 00 00 00 28 F5 01 'h' 00"},
    {"ServerWithoutTarget", Server("", 9100), 0,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 07 00 00 00 00 23 8C 00"},
    {"NextSecureWithFiveBytes", NextSecure(12, 5), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 C0 0C 00 05 A0 A1 A2 A3 A4"},
    {"NextSecureWithoutBitmap", NextSecure(12, 0), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 04 C0 0C 00 00"},
    {"NextSecureWithAFarName", NextSecure(0x1234, 1), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 05 D2 34 00 01 A0"},
    {"NextSecureWithANegativeLengthHasNoBitmap", NextSecure(12, -1), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 04 C0 0C 00 00"},
    {"NextSecureBeyondTheLongestBitmapIsCut", NextSecure(12, 33), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 24 C0 0C 00 20"
     " A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB BC BD "
     "BE BF"},
    {"NextSecureWithTheLongestBitmap", NextSecure(12, 32), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 24 C0 0C 00 20"
     " A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF"
     " B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB BC BD BE BF"},
    {"OtherTypesHaveNoData", Record("h", 28, 0, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 1C 00 01 00 00 00 78 00 00"},
    {"TypesBeyondTheLastHaveNoData", Record("h", 48, 0, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 30 00 01 00 00 00 78 00 00"},
    {"TypeZeroHasNoData", Record("h", 0, 0, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 00 00 01 00 00 00 78 00 00"},
    {"OnlyTheTypesLowByteIsWritten", Record("h", 0x10C, 0, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 0C 00 01 00 00 00 78 00 00"},
    {"QuestionEndsAfterTheClass", Record("host.local", 1, 0, 120, "10.0.0.9"), 1,
     "04 'host' 05 'local' 00 00 01 00 01"},
    {"QuestionForAnyWithUnicastResponse", Record("h", 255, 1, 0, ""), 1, "01 'h' 00 00 FF 80 01"},
    {"AnyNonZeroMakesAQuestion", Record("h", 33, 0, 120, "t"), 0x80000000, "01 'h' 00 00 21 00 01"},
};

INSTANTIATE_TEST_SUITE_P(Records, EncodeRecordTest, testing::ValuesIn(kRecordRows),
                         [](const auto& row) { return std::string(row.param.behaviour); });

TEST_P(EncodeRecordTest, WritesAndReturnsThePositionAfter) {
  const RecordRow& row = GetParam();
  const Bytes expected = Wire(row.wire);
  ExactBytes buffer(expected.size());
  EXPECT_EQ(EncodeRecord(buffer.Data(), static_cast<int32_t>(buffer.Size()), 0, row.record,
                         row.questionOnly),
            static_cast<int32_t>(expected.size()));
  EXPECT_EQ(Hex(buffer.View()), Hex(expected));
}

TEST_P(EncodeRecordTest, BeginsAtThePosition) {
  const RecordRow& row = GetParam();
  const Bytes expected = Wire(row.wire);
  ExactBytes buffer(expected.size() + 12);
  EXPECT_EQ(EncodeRecord(buffer.Data(), static_cast<int32_t>(buffer.Size()), 12, row.record,
                         row.questionOnly),
            static_cast<int32_t>(expected.size() + 12));
  EXPECT_EQ(Hex(buffer.View()), Hex(Bytes(12)) + " " + Hex(expected));
}

TEST_P(EncodeRecordTest, NeverWritesAtOrBeyondTheCapacity) {
  const RecordRow& row = GetParam();
  const size_t size = Wire(row.wire).size();
  for (size_t capacity = 0; capacity <= size; ++capacity) {
    ExactBytes buffer(capacity);
    EncodeRecord(buffer.Data(), static_cast<int32_t>(capacity), 0, row.record, row.questionOnly);
    Bytes guarded(capacity + 300, 0xEE);
    EncodeRecord(guarded.data(), static_cast<int32_t>(capacity), 0, row.record, row.questionOnly);
    EXPECT_EQ(Bytes(guarded.begin() + static_cast<std::ptrdiff_t>(capacity), guarded.end()),
              Bytes(300, 0xEE))
        << capacity;
  }
}

struct CapacityRow {
  const char* name;
  MdnsRecord record;
  int32_t capacity;
  const char* wire;
  int32_t end;
};

class EncodeRecordCapacityTest : public testing::TestWithParam<CapacityRow> {};

MdnsRecord ShortAddress() { return Record("h", 1, 1, 0x01020304, "192.168.1.1"); }
MdnsRecord ShortPointer() { return Record("h", 12, 0, 120, "t"); }
MdnsRecord ShortText() { return Record("h", 16, 0, 120, "t"); }

// A field is written whole or not at all; labels and bitmaps are cut.
const CapacityRow kCapacityRows[] = {
    {"Address17", ShortAddress(), 17, "01 'h' 00 00 01 80 01 01 02 03 04 00 04 C0 A8 01 01", 17},
    {"Address16", ShortAddress(), 16, "01 'h' 00 00 01 80 01 01 02 03 04 00 04 00 00 00", 17},
    {"Address13", ShortAddress(), 13, "01 'h' 00 00 01 80 01 01 02 03 04 00 04", 17},
    {"Address12", ShortAddress(), 12, "01 'h' 00 00 01 80 01 01 02 03 04 00", 17},
    {"Address11", ShortAddress(), 11, "01 'h' 00 00 01 80 01 01 02 03 04", 17},
    {"Address10", ShortAddress(), 10, "01 'h' 00 00 01 80 01 00 00 00", 17},
    {"Address7", ShortAddress(), 7, "01 'h' 00 00 01 80 01", 17},
    {"Address6", ShortAddress(), 6, "01 'h' 00 00 01 00", 17},
    {"Address5", ShortAddress(), 5, "01 'h' 00 00 01", 17},
    {"Address4", ShortAddress(), 4, "01 'h' 00 00", 17},
    {"Address3", ShortAddress(), 3, "01 'h' 00", 17},
    {"Address2", ShortAddress(), 2, "01 'h'", 16},
    {"Address1", ShortAddress(), 1, "01", 16},
    {"Address0", ShortAddress(), 0, "", 15},
    {"Pointer16", ShortPointer(), 16, "01 'h' 00 00 0C 00 01 00 00 00 78 00 03 01 't' 00", 16},
    {"PointerWithoutRoot", ShortPointer(), 15, "01 'h' 00 00 0C 00 01 00 00 00 78 00 02 01 't'",
     15},
    {"PointerWithoutCharacter", ShortPointer(), 14, "01 'h' 00 00 0C 00 01 00 00 00 78 00 02 01",
     15},
    {"PointerWithoutData", ShortPointer(), 13, "01 'h' 00 00 0C 00 01 00 00 00 78 00 01", 14},
    {"PointerWithoutLength", ShortPointer(), 12, "01 'h' 00 00 0C 00 01 00 00 00 78 00", 14},
    {"PointerToTheRootThatDoesNotFit", Record("h", 12, 0, 120, ""), 13,
     "01 'h' 00 00 0C 00 01 00 00 00 78 00 00", 13},
    {"TextThatJustFitsIsWhole", ShortText(), 15, "01 'h' 00 00 10 00 01 00 00 00 78 00 02 01 't'",
     15},
    {"TextWithoutCharacter", ShortText(), 14, "01 'h' 00 00 10 00 01 00 00 00 78 00 02 01", 15},
    {"TextWithoutData", ShortText(), 13, "01 'h' 00 00 10 00 01 00 00 00 78 00 01", 14},
    {"TextWithoutLength", ShortText(), 12, "01 'h' 00 00 10 00 01 00 00 00 78 00", 14},
    {"Server22", Server("t", 0x1234), 22,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 09 00 00 00 00 12 34 01 't' 00", 22},
    {"ServerWithoutRoot", Server("t", 0x1234), 21,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 08 00 00 00 00 12 34 01 't'", 21},
    {"ServerWithoutTarget", Server("t", 0x1234), 19,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 07 00 00 00 00 12 34", 20},
    {"ServerWithHalfAPort", Server("t", 0x1234), 18,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 07 00 00 00 00 00", 20},
    {"ServerWithoutLength", Server("t", 0x1234), 12, "01 'p' 00 00 21 80 01 00 00 00 78 00", 20},
    {"NextSecureWithHalfABitmap", NextSecure(12, 5), 19,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 C0 0C 00 05 A0 A1", 22},
    {"NextSecureWithHalfABitmapLength", NextSecure(12, 5), 16,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 C0 0C 00", 22},
    {"NextSecureWithHalfAPointer", NextSecure(12, 5), 14,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 00", 22},
    {"NextSecureWithoutLength", NextSecure(12, 5), 12, "01 'h' 00 00 2F 80 01 00 00 00 78 00", 22},
};

INSTANTIATE_TEST_SUITE_P(Capacities, EncodeRecordCapacityTest, testing::ValuesIn(kCapacityRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(EncodeRecordCapacityTest, WritesWhatFitsAndReturnsTheFullPosition) {
  const CapacityRow& row = GetParam();
  ExactBytes buffer(static_cast<size_t>(row.capacity));
  EXPECT_EQ(EncodeRecord(buffer.Data(), row.capacity, 0, row.record, 0), row.end);
  EXPECT_EQ(Hex(buffer.View()), WireHex(row.wire));
}

struct UnwrittenRow {
  const char* name;
  MdnsRecord record;
  uint32_t questionOnly;
  const char* wire;
};

class EncodeRecordUnwrittenBytesTest : public testing::TestWithParam<UnwrittenRow> {};

// Bytes that are left as the buffer holds them read EE here.
const UnwrittenRow kUnwrittenRows[] = {
    {"TypesHighByte", Record("h", 1, 0, 120, ""), 1, "01 'h' 00 EE 01 00 01 EE"},
    {"PriorityAndWeight", Server("t", 631), 0,
     "01 'p' 00 EE 21 80 01 00 00 00 78 00 09 EE EE EE EE 02 77 01 't' 00 EE"},
    {"LengthsHighByteOfOtherTypes", Record("h", 28, 0, 120, ""), 0,
     "01 'h' 00 EE 1C 00 01 00 00 00 78 EE 00 EE"},
};

INSTANTIATE_TEST_SUITE_P(Fields, EncodeRecordUnwrittenBytesTest, testing::ValuesIn(kUnwrittenRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(EncodeRecordUnwrittenBytesTest, StayAsTheBufferHoldsThem) {
  const UnwrittenRow& row = GetParam();
  const Bytes expected = Wire(row.wire);
  Bytes buffer(expected.size(), 0xEE);
  EncodeRecord(buffer.data(), static_cast<int32_t>(buffer.size()), 0, row.record, row.questionOnly);
  EXPECT_EQ(Hex(buffer), Hex(expected));
}

TEST(EncodeRecord, RecordAfterATextOverwritesItsZeroByte) {
  ExactBytes buffer(34);
  const int32_t end = EncodeRecord(buffer.Data(), 34, 0, Record("h", 16, 1, 120, "t"), 0);
  EXPECT_EQ(end, 15);
  EXPECT_EQ(EncodeRecord(buffer.Data(), 34, end, Record("i", 12, 0, 120, "uvw"), 0), 33);
  EXPECT_EQ(Hex(buffer.View()), WireHex("01 'h' 00 00 10 80 01 00 00 00 78 00 02 01 't'"
                                        " 01 'i' 00 00 0C 00 01 00 00 00 78 00 05 03 'uvw' 00 00"));
}

TEST(EncodeRecord, FieldsWithoutTerminatorAreReadToTheirEnd) {
  MdnsRecord record{};
  memset(record.name, 'n', sizeof(record.name));
  memset(record.rdata, 'r', sizeof(record.rdata));
  record.type = 16;
  Bytes buffer(1400);
  // 196 characters: three labels of 64 with one dropped after each, one of 1, the root. 1024
  // characters: seven strings of 128 with one dropped after each, one of 121.
  EXPECT_EQ(EncodeRecord(buffer.data(), 1400, 0, record, 0), 198 + 10 + 7 * 129 + 122);
}

TEST(WireFormat, NamesTheHeadersFieldsAndTheTypes) {
  EXPECT_EQ(kHeaderSize, 12);
  EXPECT_EQ(kFlagsOffset, 2);
  EXPECT_EQ(kQuestionCountOffset, 4);
  EXPECT_EQ(kAnswerCountOffset, 6);
  EXPECT_EQ(kAuthorityCountOffset, 8);
  EXPECT_EQ(kAdditionalCountOffset, 10);
  EXPECT_EQ(sizeof(MdnsRecord::name), 196u);
  EXPECT_EQ(sizeof(MdnsRecord::rdata), 1024u);
  EXPECT_EQ(sizeof(MdnsRecord::bitmap), 32u);
}

}  // namespace
