// The wire form: EncodeLabels, and EncodeRecord with questions and records.
#include "records/encode.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/bytes.h"

namespace {

struct LabelsRow {
  const char* behaviour;
  char separator;
  int32_t maxLabel;
  std::string text;
  const char* wire;
};

const LabelsRow kLabelsRows[] = {
    {"an empty text is the root alone", '.', 64, "", "00"},
    {"dots alone are the root", '.', 64, "...", "00"},
    {"empty labels vanish", '.', 64, ".host..local.", "04 'host' 05 'local' 00"},
    {"a label of 64 and its dot", '.', 64, std::string(64, 'a') + ".b", "40 64*'a' 01 'b' 00"},
    {"a label of 64 at the end", '.', 64, std::string(64, 'a'), "40 64*'a' 00"},
    {"a 65th character is dropped", '.', 64, std::string(64, 'a') + "x", "40 64*'a' 00"},
    {"a dot after it is one", '.', 64, std::string(64, 'a') + "x.b", "40 64*'a' 01 'b' 00"},
    {"the rest is a label", '.', 64, std::string(64, 'a') + "xbcd", "40 64*'a' 03 'bcd' 00"},
    {"a dropped dot is no separator", '.', 64, std::string(64, 'a') + "..b", "40 64*'a' 01 'b' 00"},
    {"bytes are copied as they are", '.', 64, "\xC3\xA4\n.\xFF", "03 C3 A4 0A 01 FF 00"},
    {"line feeds separate TXT strings", '\n', 128, "a.b\n\nc", "03 'a.b' 01 'c' 00"},
    {"a TXT line of 130", '\n', 128, std::string(128, 'a') + "xb", "80 128*'a' 01 'b' 00"},
};

TEST(EncodeLabels, WritesFromThePositionUpToTheZeroByte) {
  for (const LabelsRow& row : kLabelsRows) {
    SCOPED_TRACE(row.behaviour);
    const auto size = static_cast<int32_t>(Wire(row.wire).size());
    Bytes buffer(static_cast<size_t>(size) + 7, 0xEE);
    EXPECT_EQ(EncodeLabels(buffer.data(), size + 5, 5, row.separator, row.text, row.maxLabel),
              size + 5);
    EXPECT_EQ(Hex(buffer), WireHex(std::string("5*EE ") + row.wire + " 2*EE"));
  }
}

// A length byte that does not fit is not counted, nor is the root; characters always are.
TEST(EncodeLabels, KeepsWhatFitsAndCountsTheCharacters) {
  struct Row {
    int32_t capacity;
    const char* wire;
    int32_t end;
  };
  for (const Row& row :
       {Row{6, "02 'ab' 01 'c' 00 EE", 6}, Row{5, "02 'ab' 01 'c' EE EE", 5},
        Row{4, "02 'ab' 01 EE EE EE", 5}, Row{3, "02 'ab' EE EE EE EE", 4},
        Row{2, "02 'a' EE EE EE EE EE", 4}, Row{1, "02 EE EE EE EE EE EE", 4}, Row{0, "7*EE", 3}}) {
    Bytes buffer(7, 0xEE);
    EXPECT_EQ(EncodeLabels(buffer.data(), row.capacity, 0, '.', "ab.c", 64), row.end);
    EXPECT_EQ(Hex(buffer), WireHex(row.wire));
  }
}

TEST(EncodeLabels, PositionBeyondTheCapacityCountsCharactersOnly) {
  Bytes buffer(4, 0xEE);
  EXPECT_EQ(EncodeLabels(buffer.data(), 4, 4, '.', "", 64), 4);
  EXPECT_EQ(EncodeLabels(buffer.data(), 4, 10, '.', "ab.c", 64), 13);
  EXPECT_EQ(Hex(buffer), "EE EE EE EE");
}

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

const RecordRow kRecordRows[] = {
    {"an address is four bytes", Record("host.local", 1, 1, 120, "192.168.1.1"), 0,
     "04 'host' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"},
    {"any non-zero flag sets the bit", Record("h", 1, -2, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 01 80 01 00 00 00 78 00 04 0A 00 00 09"},
    {"the time to live is big-endian", Record("h", 1, 0, 0xF1020304, "10.0.0.9"), 0,
     "01 'h' 00 00 01 00 01 F1 02 03 04 00 04 0A 00 00 09"},
    {"an invalid address is all ones", Record("h", 1, 0, 120, "no address"), 0,
     "01 'h' 00 00 01 00 01 00 00 00 78 00 04 FF FF FF FF"},
    {"labels of owner and target have 64 characters",
     Record(std::string(65, 'o') + ".b", 12, 0, 120, std::string(65, 't') + ".b"), 0,
     "40 64*'o' 01 'b' 00 00 0C 00 01 00 00 00 78 00 44 40 64*'t' 01 'b' 00"},
    {"a pointer carries its target", Record("_ipp._tcp", 12, 0, 4500, "Office._ipp"), 0,
     "04 '_ipp' 04 '_tcp' 00 00 0C 00 01 00 00 11 94 00 0D 06 'Office' 04 '_ipp' 00"},
    {"a pointer without a target points at the root", Record("h", 12, 0, 0, ""), 0,
     "01 'h' 00 00 0C 00 01 00 00 00 00 00 01 00"},
    {"a text leaves out empty lines and the zero byte", Record("h", 16, 1, 4500, "a\n\nbc"), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 00 05 01 'a' 02 'bc'"},
    {"an empty text has no data", Record("h", 16, 1, 4500, ""), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 00 00"},
    {"strings of a text have 128 characters", Record("h", 16, 1, 9, std::string(130, 'a')), 0,
     "01 'h' 00 00 10 80 01 00 00 00 09 00 83 80 128*'a' 01 'a'"},
    {"a text's length takes two bytes",
     Record("h", 16, 1, 4500, std::string(127, 'a') + "\n" + std::string(128, 'b')), 0,
     "01 'h' 00 00 10 80 01 00 00 11 94 01 01 7F 127*'a' 80 128*'b'"},
    {"a server carries port and target", Server("host.local", 631), 0,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 12 00 00 00 00 02 77 04 'host' 05 'local' 00"},
    {"a server writes the port's low bits", Server("h", 0x128F5), 0,
     "01 'p' 00 00 21 80 01 00 00 00 78 00 09 00 00 00 00 28 F5 01 'h' 00"},
    {"a bitmap of five bytes", NextSecure(12, 5), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 C0 0C 00 05 A0 A1 A2 A3 A4"},
    {"the name of a bitmap may be far", NextSecure(0x1234, 1), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 05 D2 34 00 01 A0"},
    {"a negative bitmap length is 0", NextSecure(12, -1), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 04 C0 0C 00 00"},
    {"a bitmap is cut at 32 bytes", NextSecure(12, 33), 0,
     "01 'h' 00 00 2F 80 01 00 00 00 78 00 24 C0 0C 00 20"
     " A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF"
     " B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB BC BD BE BF"},
    {"other types have no data", Record("h", 28, 0, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 1C 00 01 00 00 00 78 00 00"},
    {"only the type's low byte is written", Record("h", 0x10C, 0, 120, "10.0.0.9"), 0,
     "01 'h' 00 00 0C 00 01 00 00 00 78 00 00"},
    {"a question ends after the class", Record("h", 255, 1, 120, "t"), 1, "01 'h' 00 00 FF 80 01"},
    {"any non-zero makes a question", Record("h", 33, 0, 120, "t"), 0x80000000,
     "01 'h' 00 00 21 00 01"},
};

TEST(EncodeRecord, WritesFromThePositionAndReturnsThePositionAfter) {
  for (const RecordRow& row : kRecordRows) {
    SCOPED_TRACE(row.behaviour);
    const auto end = static_cast<int32_t>(12 + Wire(row.wire).size());
    Bytes buffer(static_cast<size_t>(end) + 2);
    EXPECT_EQ(EncodeRecord(buffer.data(), end, 12, row.record, row.questionOnly), end);
    EXPECT_EQ(Hex(buffer), WireHex(std::string("12*00 ") + row.wire + " 00 00"));
  }
}

// A field is written whole or not at all; labels and bitmaps are cut.
TEST(EncodeRecord, WritesWhatFitsAndReturnsTheFullPosition) {
  struct Row {
    MdnsRecord record;
    int32_t capacity;
    const char* wire;
    int32_t end;
  };
  const MdnsRecord address = Record("h", 1, 1, 0x01020304, "192.168.1.1");
  const MdnsRecord pointer = Record("h", 12, 0, 120, "t");
  const MdnsRecord text = Record("h", 16, 0, 120, "t");
  const MdnsRecord server = Server("t", 0x1234);
  const MdnsRecord next = NextSecure(12, 5);
  for (const Row& row : {
           Row{address, 16, "01 'h' 00 00 01 80 01 01 02 03 04 00 04 00 00 00", 17},
           Row{address, 13, "01 'h' 00 00 01 80 01 01 02 03 04 00 04", 17},
           Row{address, 12, "01 'h' 00 00 01 80 01 01 02 03 04 00", 17},
           Row{address, 11, "01 'h' 00 00 01 80 01 01 02 03 04", 17},
           Row{address, 10, "01 'h' 00 00 01 80 01 00 00 00", 17},
           Row{address, 7, "01 'h' 00 00 01 80 01", 17},
           Row{address, 6, "01 'h' 00 00 01 00", 17},
           Row{address, 4, "01 'h' 00 00", 17},
           Row{address, 2, "01 'h'", 16},
           Row{address, 0, "", 15},
           Row{pointer, 15, "01 'h' 00 00 0C 00 01 00 00 00 78 00 02 01 't'", 15},
           Row{pointer, 14, "01 'h' 00 00 0C 00 01 00 00 00 78 00 02 01", 15},
           Row{pointer, 13, "01 'h' 00 00 0C 00 01 00 00 00 78 00 01", 14},
           Row{text, 15, "01 'h' 00 00 10 00 01 00 00 00 78 00 02 01 't'", 15},
           Row{text, 14, "01 'h' 00 00 10 00 01 00 00 00 78 00 02 01", 15},
           Row{server, 21, "01 'p' 00 00 21 80 01 00 00 00 78 00 08 00 00 00 00 12 34 01 't'", 21},
           Row{server, 18, "01 'p' 00 00 21 80 01 00 00 00 78 00 07 00 00 00 00 00", 20},
           Row{next, 19, "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 C0 0C 00 05 A0 A1", 22},
           Row{next, 16, "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 C0 0C 00", 22},
           Row{next, 14, "01 'h' 00 00 2F 80 01 00 00 00 78 00 09 00", 22},
       }) {
    ExactBytes buffer(static_cast<size_t>(row.capacity));
    EXPECT_EQ(EncodeRecord(buffer.Data(), row.capacity, 0, row.record, 0), row.end) << row.wire;
    EXPECT_EQ(Hex(buffer.View()), WireHex(row.wire));
  }
}

// Bytes that are left as the buffer holds them read EE here.
TEST(EncodeRecord, LeavesHighBytesPriorityAndWeightAsTheyAre) {
  for (const RecordRow& row : {
           RecordRow{"", Record("h", 1, 0, 120, ""), 1, "01 'h' 00 EE 01 00 01 EE"},
           RecordRow{"", Server("t", 631), 0,
                     "01 'p' 00 EE 21 80 01 00 00 00 78 00 09 EE EE EE EE 02 77 01 't' 00 EE"},
           RecordRow{"", Record("h", 28, 0, 120, ""), 0,
                     "01 'h' 00 EE 1C 00 01 00 00 00 78 EE 00 EE"},
       }) {
    Bytes buffer(Wire(row.wire).size(), 0xEE);
    EncodeRecord(buffer.data(), static_cast<int32_t>(buffer.size()), 0, row.record,
                 row.questionOnly);
    EXPECT_EQ(Hex(buffer), WireHex(row.wire));
  }
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

}  // namespace
