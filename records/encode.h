// The wire form: message header offsets, names, TXT strings, questions and resource records
// (RFC 1035, section 4; RFC 6762, section 18). The only writers of names and records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Message header (RFC 1035, section 4.1.1): its size and the offsets of its fields.
constexpr int32_t kHeaderSize = 12;
constexpr int32_t kFlagsOffset = 2;
constexpr int32_t kQuestionCountOffset = 4;
constexpr int32_t kAnswerCountOffset = 6;
constexpr int32_t kAuthorityCountOffset = 8;

/// First flags byte: a query, and an authoritative response (RFC 6762, sections 18.2 and 18.4).
constexpr uint8_t kFlagsQuery = 0x00;
constexpr uint8_t kFlagsResponse = 0x84;

/// Record types (RFC 1035, section 3.2.2; RFC 2782; RFC 4034, section 4).
constexpr int32_t kTypeA = 1;
constexpr int32_t kTypePtr = 12;
constexpr int32_t kTypeTxt = 16;
constexpr int32_t kTypeSrv = 33;
constexpr int32_t kTypeNsec = 47;
constexpr int32_t kTypeAny = 255;

/// In the place of a label's length: the end of a name, and the mark of a compression pointer
/// (RFC 1035, sections 3.1 and 4.1.4).
constexpr uint8_t kRootLabel = 0x00;
constexpr uint8_t kPointerMark = 0xC0;

/// The longest labels that are written. A name label may carry one character more than the 63 of
/// RFC 1035, section 2.3.4, and TXT strings are cut at 128: what is published under such names and
/// texts keeps its bytes (docs/behaviour.md).
constexpr int32_t kNameLabelMax = 64;
constexpr int32_t kTxtStringMax = 128;
constexpr char kNameSeparator = '.';
constexpr char kTxtSeparator = '\n';

/// Fields of an MdnsRecord and the most characters that composers put into them.
constexpr size_t kRecordNameSize = 196;
constexpr size_t kRecordNameMax = 192;
constexpr size_t kRecordDataSize = 1024;
constexpr size_t kRecordDataMax = 1023;
constexpr size_t kBitmapSize = 32;

/// One resource record or question in memory. A composer zero-fills it before each record.
struct MdnsRecord {
  char name[kRecordNameSize];   ///< owner name in dotted form, zero-terminated
  int32_t type;                 ///< record type; only its low byte is written
  int32_t cacheFlush;           ///< non-zero: class bit 15, cache-flush or unicast-response
  uint32_t ttl;                 ///< time to live in seconds, 0 in a goodbye
  char rdata[kRecordDataSize];  ///< zero-terminated: PTR and SRV target, TXT strings separated by
                                ///< line feeds, A dotted quad
  int32_t nsecNextOffset;       ///< NSEC: offset of the next domain name in the packet
  int32_t port;                 ///< SRV: the port; its low 16 bits are written
  int32_t bitmapLength;  ///< NSEC: bytes of `bitmap` to write; taken as 0 below it and as 32 above
  uint8_t bitmap[kBitmapSize];  ///< NSEC: type bitmap of window block 0
};

/// Writes `text` at `position` of `buffer` as labels, each a length byte and 1 to `maxLabel`
/// characters, and a zero byte after the last. `separator` ends a label and is not part of it;
/// empty labels vanish. A label that is cut at `maxLabel` swallows the character after it. No byte
/// at or beyond `capacity` is written. Returns the position after the zero byte; when the buffer
/// is too small it runs on as if everything had been written, but for the length bytes and the zero
/// byte that did not fit. `position` is 0 or more and at least 8 KiB below the type's limit.
int32_t EncodeLabels(uint8_t* buffer, int32_t capacity, int32_t position, char separator,
                     std::string_view text, int32_t maxLabel);

/// Writes `record` at `position` of `buffer`: as a question (name, type, class) when `questionOnly`
/// is non-zero, else as a full resource record. Returns the position after it, which runs past
/// `capacity` when the buffer is too small; nothing is written there. The buffer must be
/// zero-filled: the type's high byte, SRV priority and weight are left as they are. `position` as
/// above.
int32_t EncodeRecord(uint8_t* buffer, int32_t capacity, int32_t position, const MdnsRecord& record,
                     uint32_t questionOnly);
