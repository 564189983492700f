// The message format of RFC 1035, section 4, as RFC 6762, section 18, uses it: names, the one way
// to read a received message and the one way to write one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The header (RFC 1035, section 4.1.1).
constexpr size_t kHeaderSize = 12;

/// Bytes of the ID, with which it begins.
constexpr size_t kIdSize = 2;
constexpr uint16_t kFlagResponse = 0x8000;
constexpr uint16_t kFlagAuthoritative = 0x0400;
constexpr uint16_t kFlagTruncated = 0x0200;
constexpr uint16_t kOpcodeMask = 0x7800;
constexpr uint16_t kResponseCodeMask = 0x000F;

/// Record types (RFC 1035, section 3.2.2; RFC 3596; RFC 2782; RFC 4034, section 4).
constexpr uint16_t kTypeA = 1;
constexpr uint16_t kTypePtr = 12;
constexpr uint16_t kTypeTxt = 16;
constexpr uint16_t kTypeAaaa = 28;
constexpr uint16_t kTypeSrv = 33;
constexpr uint16_t kTypeNsec = 47;
constexpr uint16_t kTypeAny = 255;

/// Classes. The top bit of a question's class asks for a unicast response (RFC 6762, section 5.4),
/// that of a record's class is the cache-flush bit (section 10.2).
constexpr uint16_t kClassIn = 1;
constexpr uint16_t kClassAny = 255;
constexpr uint16_t kClassTopBit = 0x8000;

/// Limits of names (RFC 1035, section 2.3.4).
constexpr size_t kLabelMax = 63;
constexpr size_t kNameMax = 255;

/// Priority, weight and port, which stand before an SRV record's target (RFC 2782).
constexpr size_t kSrvTargetOffset = 6;

/// The most questions and records of a message that is read: more than a packet of the usual size
/// holds, and few enough to be looked at one by one.
constexpr size_t kEntriesMax = 512;

/// The longest data of a record that is written or, with its names uncompressed, compared.
constexpr size_t kDataMax = 544;

/// A label as text, zero-terminated.
struct Label {
  char text[kLabelMax + 1];
  uint8_t length;
};

/// The text of a label.
inline std::string_view TextOf(const Label& label) { return {label.text, label.length}; }

/// A name without compression: labels, each behind its length byte, and the root's zero byte.
/// All zero but for a `length` of 1: the root.
struct Name {
  uint8_t bytes[kNameMax];
  uint8_t length;
};

/// The root, to which labels are then appended.
Name RootName();

/// Appends a label of 1 to 63 bytes. Returns false, with `name` unchanged, when it does not fit.
bool AppendLabel(Name& name, std::string_view label);

/// True when both are one name: ASCII letters compare without regard to case, all else exactly
/// (RFC 6762, section 16).
bool AreNamesEqual(const Name& a, const Name& b);

/// The same for texts within names.
bool AreLabelsEqual(std::string_view a, std::string_view b);

/// The label at `offset` of `name`, and moves `offset` behind it. Empty at the root.
std::string_view NextLabel(const Name& name, size_t& offset);

/// The sections of a message, in their order.
enum class Section : uint8_t { kQuestion = 0, kAnswer = 1, kAuthority = 2, kAdditional = 3 };
constexpr size_t kSections = 4;

/// The question section's entry.
struct Question {
  Name name;
  uint16_t type;
  uint16_t classBits;  ///< with the top bit as received
};

/// A record as received. `data` is without compression where records of one's own type hold a name
/// (PTR, SRV, NSEC); it points into the message or into `buffer`, so a copy of the record is of no
/// use.
struct ReceivedRecord {
  Section section;
  Name name;
  uint16_t type;
  uint16_t classBits;  ///< with the top bit as received
  uint32_t ttl;        ///< seconds
  const uint8_t* data;
  size_t dataLength;
  uint8_t buffer[kDataMax];
};

/// Reads one message. The bytes are the caller's and stay until the last look.
struct WireReader {
  const uint8_t* bytes;
  size_t length;
  size_t offset;             ///< of what is read next
  uint16_t left[kSections];  ///< entries of each section that were not read yet
  bool isMalformed;          ///< reading came upon bytes that are no message
};

/// The header's ID and flags; 0 when the message is shorter than a header.
uint16_t MessageId(const uint8_t* bytes, size_t length);
uint16_t MessageFlags(const uint8_t* bytes, size_t length);

/// Begins with the first question. A message without a whole header, or with more entries than are
/// read, is malformed.
WireReader ReadMessage(const uint8_t* bytes, size_t length);

/// Reads the next question. False when there is none left or the message is malformed.
bool ReadQuestion(WireReader& reader, Question& question);

/// Reads the next record, whichever section it is in; questions before it are passed over. False
/// when there is none left or the message is malformed.
bool ReadRecord(WireReader& reader, ReceivedRecord& record);

/// True when the whole message can be read: RFC 6762, section 18, has no use for a part of one.
/// Pointers lead backwards alone, behind the header, and there are at most 127 of them in a name,
/// so that what a name costs to read is bounded. Bytes behind the last record do not matter.
bool IsWellFormed(const uint8_t* bytes, size_t length);

/// A record to write. `data` is without compression.
struct Record {
  Name name;
  uint16_t type;
  uint16_t classBits;
  uint32_t ttl;  ///< seconds
  size_t dataLength;
  uint8_t data[kDataMax];
};

/// How many places of a message later names can point to; names that come when they are used up are
/// written out from there on.
constexpr size_t kPointerTargetsMax = 96;

/// Writes one message. Sections are written in their order. A copy taken before a write and put
/// back after it undoes the write.
struct WireWriter {
  uint8_t* bytes;
  size_t capacity;
  size_t length;
  uint16_t counts[kSections];
  uint16_t targets[kPointerTargetsMax];  ///< offsets of labels to point to
  size_t targetCount;
  bool isDataCompressed;  ///< names within data too: RFC 6762, section 18.14
};

/// Begins a message in `capacity` bytes, at least a header. Names within data are compressed when
/// `isDataCompressed`, which a conventional resolver need not understand (RFC 2782; RFC 3597,
/// section 4).
WireWriter WriteMessage(uint8_t* bytes, size_t capacity, bool isDataCompressed);

/// Writes a question. False when it does not fit: the message is then as it was.
bool WriteQuestion(WireWriter& writer, const Name& name, uint16_t type, uint16_t classBits);

/// Writes a record into `section`. False when it does not fit: the message is then as it was.
bool WriteRecord(WireWriter& writer, Section section, const Record& record);

/// Writes the header and returns the message's length.
size_t FinishMessage(WireWriter& writer, uint16_t id, uint16_t flags);

/// True when `data`, received for the type of `record`, say the same as the record's own: the same
/// bytes, but for the case of names.
bool AreDataEqual(const Record& record, const uint8_t* data, size_t length);
