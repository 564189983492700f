#include "standard/wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace {

// A header with these counts, and what follows.
Bytes MessageWith(std::string_view counts, const Bytes& rest) {
  Bytes bytes = Wire("00 00 84 00");
  const Bytes countBytes = Wire(counts);
  bytes.insert(bytes.end(), countBytes.begin(), countBytes.end());
  bytes.insert(bytes.end(), rest.begin(), rest.end());
  return bytes;
}

bool IsWellFormedCopy(const Bytes& bytes) {
  ExactBytes exact(bytes);
  return IsWellFormed(exact.Data(), exact.Size());
}

// Twelve bytes of header, then the name of a first question, then that of a second.
struct NameRow {
  const char* what;
  const char* first;
  const char* second;
  const char* expected;  // of the second name; null: malformed
};

TEST(Wire, ReadsNamesWithPointersThatLeadBackwards) {
  const NameRow rows[] = {
      {"labels", "01 'a' 00", "01 'b' 02 'cd' 00", "01 'b' 02 'cd' 00"},
      {"the root", "01 'a' 00", "00", "00"},
      {"a pointer", "01 'a' 00", "C0 0C", "01 'a' 00"},
      {"labels, then a pointer", "01 'a' 00", "01 'b' C0 0C", "01 'b' 01 'a' 00"},
      {"a pointer into a name", "01 'b' 01 'a' 00", "C0 0E", "01 'a' 00"},
      {"a pointer to the root", "01 'a' 00", "C0 0E", "00"},
      {"to itself", "01 'a' 00", "C0 13", nullptr},
      {"to the labels before it", "01 'a' 00", "01 'b' C0 13", nullptr},
      {"forwards", "01 'a' 00", "C0 15", nullptr},
      {"into the header", "01 'a' 00", "C0 00", nullptr},
      {"into the header's end", "01 'a' 00", "C0 0B", nullptr},
      {"outside the message", "01 'a' 00", "FF FF", nullptr},
      {"a label of kind 40", "01 'a' 00", "41 'b' 00", nullptr},
      {"a label of kind 80", "01 'a' 00", "81 'b' 00", nullptr},
  };
  for (const NameRow& row : rows) {
    SCOPED_TRACE(row.what);
    const Bytes tail = Wire("00 01 00 01");
    Bytes rest = Wire(row.first);
    rest.insert(rest.end(), tail.begin(), tail.end());
    const Bytes second = Wire(row.second);
    rest.insert(rest.end(), second.begin(), second.end());
    rest.insert(rest.end(), tail.begin(), tail.end());
    ExactBytes bytes(MessageWith("00 02 00 00 00 00 00 00", rest));
    WireReader reader = ReadMessage(bytes.Data(), bytes.Size());
    Question question;
    ASSERT_TRUE(ReadQuestion(reader, question));
    ASSERT_EQ(ReadQuestion(reader, question), row.expected != nullptr);
    EXPECT_EQ(reader.isMalformed, row.expected == nullptr);
    if (row.expected == nullptr) continue;
    EXPECT_EQ(Hex({question.name.bytes, question.name.length}), WireHex(row.expected));
    EXPECT_EQ(reader.offset, bytes.Size());
  }
}

TEST(Wire, NamesHaveAtMost255Bytes) {
  // Three labels of 63 bytes take 192 of them, the root one.
  const std::string start = "3F 63*'a' 3F 63*'a' 3F 63*'a' ";
  const std::string tail = " 00 00 01 00 01";
  EXPECT_TRUE(
      IsWellFormedCopy(MessageWith("00 01 00 00 00 00 00 00", Wire(start + "3D 61*'a'" + tail))));
  EXPECT_FALSE(
      IsWellFormedCopy(MessageWith("00 01 00 00 00 00 00 00", Wire(start + "3E 62*'a'" + tail))));
}

// Each pointer leads to the one before, the first to a root.
Bytes PointerChain(size_t pointers) {
  Bytes rest = Wire("00 00 01 00 01");
  for (size_t i = 0; i < pointers; ++i) {
    const size_t target = i == 0 ? 12 : 17 + (i - 1) * 6;
    rest.push_back(static_cast<uint8_t>(0xC0 | target >> 8));
    rest.push_back(static_cast<uint8_t>(target & 0xFF));
    const Bytes tail = Wire("00 01 00 01");
    rest.insert(rest.end(), tail.begin(), tail.end());
  }
  Bytes message = MessageWith("00 00 00 00 00 00 00 00", rest);
  message[5] = static_cast<uint8_t>(pointers + 1);
  return message;
}

TEST(Wire, FollowsAtMost127PointersForAName) {
  EXPECT_TRUE(IsWellFormedCopy(PointerChain(127)));
  EXPECT_FALSE(IsWellFormedCopy(PointerChain(128)));
}

TEST(Wire, DataHaveTheFormOfTheirType) {
  struct Row {
    const char* what;
    const char* typeToEnd;
    bool isWellFormed;
  };
  const Row rows[] = {
      {"A", "00 01 00 01 00 00 00 00 00 04 01 02 03 04", true},
      {"A of three bytes", "00 01 00 01 00 00 00 00 00 03 01 02 03", false},
      {"AAAA", "00 1C 00 01 00 00 00 00 00 10 16*'x'", true},
      {"AAAA of fifteen bytes", "00 1C 00 01 00 00 00 00 00 0F 15*'x'", false},
      {"PTR", "00 0C 00 01 00 00 00 00 00 02 C0 0C", true},
      {"PTR without a name", "00 0C 00 01 00 00 00 00 00 00", false},
      {"PTR and a byte more", "00 0C 00 01 00 00 00 00 00 03 C0 0C 00", false},
      {"PTR whose name passes the end", "00 0C 00 01 00 00 00 00 00 01 C0 0C", false},
      {"SRV", "00 21 00 01 00 00 00 00 00 08 00 00 00 00 00 01 C0 0C", true},
      {"SRV without a target", "00 21 00 01 00 00 00 00 00 06 00 00 00 00 00 01", false},
      {"NSEC", "00 2F 00 01 00 00 00 00 00 05 C0 0C 00 01 40", true},
      {"NSEC longer than any own data", "00 2F 00 01 00 00 00 00 02 5A C0 0C 600*'x'", true},
      {"NSEC whose name passes the end", "00 2F 00 01 00 00 00 00 00 01 C0 0C", false},
      {"NSEC without a name", "00 2F 00 01 00 00 00 00 00 02 C0 FF", false},
      {"TXT of any bytes", "00 10 00 01 00 00 00 00 00 02 FF FF", true},
      {"a type unknown, empty", "FF FF 00 01 00 00 00 00 00 00", true},
      {"data behind the end", "FF FF 00 01 00 00 00 00 00 02 00", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Bytes rest = Wire("01 'a' 00");
    const Bytes tail = Wire(row.typeToEnd);
    rest.insert(rest.end(), tail.begin(), tail.end());
    EXPECT_EQ(IsWellFormedCopy(MessageWith("00 00 00 01 00 00 00 00", rest)), row.isWellFormed);
  }
}

TEST(Wire, EveryCutOfAMessageIsMalformed) {
  const Bytes message =
      MessageWith("00 01 00 01 00 01 00 01",
                  Wire("01 'a' 00 00 FF 80 01  C0 0C 00 01 80 01 00 00 00 78 00 04 01 02 03 04"
                       "C0 0C 00 21 00 01 00 00 00 78 00 08 00 00 00 00 02 77 C0 0C"
                       "01 'b' C0 0C 00 10 00 01 00 00 11 94 00 01 00"));
  EXPECT_TRUE(IsWellFormedCopy(message));
  for (size_t length = 0; length < message.size(); ++length) {
    EXPECT_FALSE(IsWellFormedCopy({message.begin(), message.begin() + static_cast<long>(length)}));
  }
}

TEST(Wire, MessagesHaveAtMost512Entries) {
  Bytes rest;
  for (size_t i = 0; i < 513; ++i) {
    const Bytes question = Wire("00 00 01 00 01");
    rest.insert(rest.end(), question.begin(), question.end());
  }
  EXPECT_TRUE(IsWellFormedCopy(MessageWith("02 00 00 00 00 00 00 00", rest)));
  EXPECT_FALSE(IsWellFormedCopy(MessageWith("02 01 00 00 00 00 00 00", rest)));
}

TEST(Wire, ReadsRecordsOfAllSectionsWithTheirNamesWrittenOut) {
  ExactBytes bytes(
      MessageWith("00 01 00 01 00 01 00 01",
                  Wire("01 'a' 00 00 FF 80 01  C0 0C 00 0C 00 01 00 00 00 78 00 04 01 'b' C0 0C"
                       "C0 0C 00 21 80 01 00 00 00 78 00 08 00 00 00 00 02 77 C0 0C"
                       "00 00 2F 00 01 00 00 11 94 00 05 C0 0C 00 01 40")));
  struct Row {
    Section section;
    const char* name;
    uint16_t type;
    uint16_t classBits;
    uint32_t ttl;
    const char* data;
  };
  const Row rows[] = {
      {Section::kAnswer, "01 'a' 00", kTypePtr, 1, 120, "01 'b' 01 'a' 00"},
      {Section::kAuthority, "01 'a' 00", kTypeSrv, 0x8001, 120, "00 00 00 00 02 77 01 'a' 00"},
      {Section::kAdditional, "00", kTypeNsec, 1, 4500, "01 'a' 00 00 01 40"},
  };
  WireReader reader = ReadMessage(bytes.Data(), bytes.Size());
  ReceivedRecord record;
  for (const Row& row : rows) {
    ASSERT_TRUE(ReadRecord(reader, record));
    EXPECT_EQ(record.section, row.section);
    EXPECT_EQ(Hex({record.name.bytes, record.name.length}), WireHex(row.name));
    EXPECT_EQ(record.type, row.type);
    EXPECT_EQ(record.classBits, row.classBits);
    EXPECT_EQ(record.ttl, row.ttl);
    EXPECT_EQ(Hex({record.data, record.dataLength}), WireHex(row.data));
  }
  EXPECT_FALSE(ReadRecord(reader, record));
  EXPECT_FALSE(reader.isMalformed);
}

Name NameFrom(std::initializer_list<std::string_view> labels) {
  Name name = RootName();
  for (const std::string_view label : labels) EXPECT_TRUE(AppendLabel(name, label));
  return name;
}

Record ServerRecord() {
  Record record = {NameFrom({"P", "_ipp"}), kTypeSrv, 0x8001, 120, 0, {}};
  const Bytes data = Wire("00 00 00 00 02 77 04 'host' 04 '_ipp' 00");
  record.dataLength = data.size();
  std::copy(data.begin(), data.end(), record.data);
  return record;
}

TEST(Wire, WritesNamesAsPointersToWhatWasWritten) {
  ExactBytes bytes(100);
  WireWriter writer = WriteMessage(bytes.Data(), bytes.Size(), true);
  ASSERT_TRUE(WriteQuestion(writer, NameFrom({"P", "_ipp"}), kTypeAny, 0x8001));
  ASSERT_TRUE(WriteQuestion(writer, NameFrom({"p", "_ipp"}), kTypeA, kClassIn));
  ASSERT_TRUE(WriteRecord(writer, Section::kAuthority, ServerRecord()));
  const size_t length = FinishMessage(writer, 0x1234, 0x0200);
  EXPECT_EQ(Hex({bytes.Data(), length}),
            WireHex("12 34 02 00 00 02 00 00 00 01 00 00"
                    "01 'P' 04 '_ipp' 00 00 FF 80 01"
                    "01 'p' C0 0E 00 01 00 01"  // in its own case
                    "C0 0C 00 21 80 01 00 00 00 78 00 0D 00 00 00 00 02 77 04 'host' C0 0E"));
}

TEST(Wire, LeavesDataUncompressedForConventionalResolvers) {
  ExactBytes bytes(100);
  WireWriter writer = WriteMessage(bytes.Data(), bytes.Size(), false);
  ASSERT_TRUE(WriteRecord(writer, Section::kAnswer, ServerRecord()));
  ASSERT_TRUE(WriteRecord(writer, Section::kAnswer, ServerRecord()));
  const size_t length = FinishMessage(writer, 0, 0);
  EXPECT_EQ(
      Hex({bytes.Data() + 12, length - 12}),
      WireHex("01 'P' 04 '_ipp' 00 00 21 80 01 00 00 00 78 00 11"
              "00 00 00 00 02 77 04 'host' 04 '_ipp' 00"
              "C0 0C 00 21 80 01 00 00 00 78 00 11 00 00 00 00 02 77 04 'host' 04 '_ipp' 00"));
}

TEST(Wire, WhatDoesNotFitLeavesTheMessageAsItWas) {
  const Bytes full = Wire(
      "00 00 00 00 00 00 00 01 00 00 00 00 01 'P' 04 '_ipp' 00 00 21 80 01 00 00 00 78 00 0D"
      "00 00 00 00 02 77 04 'host' C0 0E");
  for (size_t capacity = kHeaderSize; capacity < full.size(); ++capacity) {
    ExactBytes bytes(capacity);
    WireWriter writer = WriteMessage(bytes.Data(), capacity, true);
    EXPECT_FALSE(WriteRecord(writer, Section::kAnswer, ServerRecord()));
    EXPECT_EQ(writer.length, kHeaderSize);
    EXPECT_EQ(writer.targetCount, 0u);
    FinishMessage(writer, 0, 0);
    EXPECT_EQ(Hex({bytes.Data(), kHeaderSize}), WireHex("12*00"));
  }
  ExactBytes bytes(full.size());
  WireWriter writer = WriteMessage(bytes.Data(), bytes.Size(), true);
  EXPECT_TRUE(WriteRecord(writer, Section::kAnswer, ServerRecord()));
  FinishMessage(writer, 0, 0);
  EXPECT_EQ(Hex(bytes.View()), Hex(full));
}

TEST(Wire, WritesOnWhenThereAreTooManyNamesToPointTo) {
  ExactBytes bytes(4000);
  WireWriter writer = WriteMessage(bytes.Data(), bytes.Size(), true);
  for (size_t i = 0; i < kPointerTargetsMax + 10; ++i) {
    ASSERT_TRUE(WriteQuestion(writer, NameFrom({"n" + std::to_string(i)}), kTypeA, kClassIn));
  }
  EXPECT_TRUE(IsWellFormed(bytes.Data(), FinishMessage(writer, 0, 0)));
}

TEST(Name, LabelsHave1To63BytesAndNamesAtMost255) {
  Name name = RootName();
  EXPECT_FALSE(AppendLabel(name, ""));
  EXPECT_FALSE(AppendLabel(name, std::string(64, 'a')));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(AppendLabel(name, std::string(63, 'a')));
  EXPECT_FALSE(AppendLabel(name, std::string(62, 'a')));
  EXPECT_TRUE(AppendLabel(name, std::string(61, 'a')));
  EXPECT_EQ(name.length, 255);
}

TEST(Name, AsciiLettersCompareWithoutCaseAndAllElseExactly) {
  EXPECT_TRUE(AreNamesEqual(NameFrom({"aZ09", "b"}), NameFrom({"Az09", "B"})));
  EXPECT_FALSE(AreNamesEqual(NameFrom({"a"}), NameFrom({"a", "b"})));
  EXPECT_FALSE(AreNamesEqual(NameFrom({"a.b"}), NameFrom({"a", "b"})));
  EXPECT_FALSE(AreNamesEqual(NameFrom({"\xC3\xA4"}), NameFrom({"\xC3\x84"})));
  EXPECT_FALSE(AreNamesEqual(NameFrom({"["}), NameFrom({"{"})));
  EXPECT_FALSE(AreNamesEqual(NameFrom({"@"}), NameFrom({"`"})));
}

TEST(Wire, DataAreEqualButForTheCaseOfTheirNames) {
  struct Row {
    uint16_t type;
    const char* own;
    const char* other;
    bool areEqual;
  };
  const Row rows[] = {
      {kTypeA, "01 02 03 04", "01 02 03 04", true},
      {kTypeTxt, "01 'a'", "01 'A'", false},
      {kTypePtr, "01 'a' 00", "01 'A' 00", true},
      {kTypePtr, "01 'a' 00", "01 'b' 00", false},
      {kTypePtr, "01 'a' 00", "01 'a' 01 'a' 00", false},
      {kTypeSrv, "00 00 00 00 00 'a' 01 'a' 00", "00 00 00 00 00 'a' 01 'A' 00", true},
      {kTypeSrv, "00 00 00 00 00 'a' 01 'a' 00", "00 00 00 00 00 'A' 01 'a' 00", false},
      {kTypeNsec, "01 'a' 00 00 01 'A'", "01 'A' 00 00 01 'A'", true},
      {kTypeNsec, "01 'a' 00 00 01 'A'", "01 'a' 00 00 01 'a'", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.own);
    const Bytes own = Wire(row.own);
    const Bytes other = Wire(row.other);
    Record record = {RootName(), row.type, kClassIn, 120, own.size(), {}};
    std::copy(own.begin(), own.end(), record.data);
    EXPECT_EQ(AreDataEqual(record, other.data(), other.size()), row.areEqual);
  }
}

}  // namespace
