// The wire form of names, questions and records.
#include "records/encode.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "base/text.h"

namespace {

constexpr uint8_t kClassInternet = 0x01;
constexpr uint8_t kClassTopBit = 0x80;

// Offsets from the end of a record's owner name (RFC 1035, section 4.1.3).
constexpr int32_t kTypeOffset = 0;
constexpr int32_t kClassOffset = 2;
constexpr int32_t kQuestionEnd = 4;
constexpr int32_t kTtlOffset = 4;
constexpr int32_t kDataLengthOffset = 8;
constexpr int32_t kDataOffset = 10;
// Offsets from the start of SRV and NSEC data.
constexpr int32_t kSrvPortOffset = 4;
constexpr int32_t kSrvTargetOffset = 6;
constexpr int32_t kNsecBitmapLengthOffset = 2;
constexpr int32_t kNsecBitmapOffset = 4;
constexpr int32_t kAddressSize = 4;

// The one guarded writer: a field is written whole when its last byte fits, else not at all.
struct Output {
  uint8_t* bytes;
  int32_t capacity;

  bool Fits(int32_t position) const { return position < capacity; }
  void Byte(int32_t position, uint8_t value) const {
    if (Fits(position)) bytes[position] = value;
  }
  void Word(int32_t position, uint32_t value) const {
    if (!Fits(position + 1)) return;
    bytes[position] = static_cast<uint8_t>(value >> 8);
    bytes[position + 1] = static_cast<uint8_t>(value);
  }
  void Long(int32_t position, uint32_t value) const {
    if (!Fits(position + 3)) return;
    Word(position, value >> 16);
    Word(position + 2, value);
  }
  // Copies as many of the bytes as fit.
  void Bytes(int32_t position, const void* source, int32_t count) const {
    if (!Fits(position)) return;
    const int32_t left = capacity - position;
    memcpy(bytes + position, source, static_cast<size_t>(count < left ? count : left));
  }
};

// Writes the labels of a text without the zero byte that ends a name; returns the position after
// the last. A label whose length byte does not fit advances by its characters only.
int32_t WriteLabels(const Output& out, int32_t position, char separator, std::string_view text,
                    int32_t maxLabel) {
  size_t offset = 0;
  while (offset < text.size()) {
    const char* const label = text.data() + offset;
    const size_t left = text.size() - offset;
    const size_t limit =
        left < static_cast<size_t>(maxLabel) ? left : static_cast<size_t>(maxLabel);
    const void* stop = memchr(label, separator, limit);
    const size_t length =
        stop == nullptr ? limit : static_cast<size_t>(static_cast<const char*>(stop) - label);
    if (length > 0) {
      const auto count = static_cast<int32_t>(length);
      if (out.Fits(position)) out.Byte(position++, static_cast<uint8_t>(count));
      out.Bytes(position, label, count);
      position += count;
    }
    // One character further: the separator, or the one that a cut label swallows.
    offset += length + 1;
  }
  return position;
}

int32_t WriteName(const Output& out, int32_t position, std::string_view name) {
  return EncodeLabels(out.bytes, out.capacity, position, kNameSeparator, name, kNameLabelMax);
}

int32_t WriteAddressData(const Output& out, int32_t dataLength, int32_t data,
                         const MdnsRecord& record) {
  out.Word(dataLength, kAddressSize);
  const in_addr_t address = inet_addr(record.rdata);
  if (out.Fits(data + kAddressSize - 1)) out.Bytes(data, &address, kAddressSize);
  return data + kAddressSize;
}

int32_t WritePointerData(const Output& out, int32_t dataLength, int32_t data,
                         const MdnsRecord& record) {
  const int32_t end = WriteName(out, data, FieldText(record.rdata));
  out.Word(dataLength, static_cast<uint32_t>(end - data));
  return end;
}

// The strings of a TXT record stand without a zero byte after them, so the next record begins
// where the label encoder would put one. The length is that of the strings also where the buffer's
// end left no space for that byte: a record that just fits is whole.
int32_t WriteTextData(const Output& out, int32_t dataLength, int32_t data,
                      const MdnsRecord& record) {
  const int32_t end = WriteLabels(out, data, kTxtSeparator, FieldText(record.rdata), kTxtStringMax);
  out.Word(dataLength, static_cast<uint32_t>(end - data));
  return end;
}

int32_t WriteServiceData(const Output& out, int32_t dataLength, int32_t data,
                         const MdnsRecord& record) {
  out.Word(data + kSrvPortOffset, static_cast<uint32_t>(record.port));
  const int32_t end = WriteName(out, data + kSrvTargetOffset, FieldText(record.rdata));
  out.Word(dataLength, static_cast<uint32_t>(end - data));
  return end;
}

int32_t WriteNextDomainData(const Output& out, int32_t dataLength, int32_t data,
                            const MdnsRecord& record) {
  const auto offset = static_cast<uint32_t>(record.nsecNextOffset);
  const int32_t bitmapLength =
      std::clamp(record.bitmapLength, 0, static_cast<int32_t>(kBitmapSize));
  out.Word(dataLength, static_cast<uint32_t>(kNsecBitmapOffset + bitmapLength));
  out.Word(data, (uint32_t{kPointerMark} << 8) | offset);
  out.Word(data + kNsecBitmapLengthOffset, static_cast<uint32_t>(bitmapLength));
  out.Bytes(data + kNsecBitmapOffset, record.bitmap, bitmapLength);
  return data + kNsecBitmapOffset + bitmapLength;
}

}  // namespace

int32_t EncodeLabels(uint8_t* buffer, int32_t capacity, int32_t position, char separator,
                     std::string_view text, int32_t maxLabel) {
  const Output out = {buffer, capacity};
  const int32_t end = WriteLabels(out, position, separator, text, maxLabel);
  if (!out.Fits(end)) return end;
  out.Byte(end, 0);
  return end + 1;
}

int32_t EncodeRecord(uint8_t* buffer, int32_t capacity, int32_t position, const MdnsRecord& record,
                     uint32_t questionOnly) {
  const Output out = {buffer, capacity};
  const int32_t end = WriteName(out, position, FieldText(record.name));
  // Every type in use is below 256: the high byte stays as the zero-filled buffer holds it.
  out.Byte(end + kTypeOffset + 1, static_cast<uint8_t>(record.type));
  out.Word(end + kClassOffset,
           (record.cacheFlush != 0 ? uint32_t{kClassTopBit} << 8 : 0) | kClassInternet);
  if (questionOnly != 0) return end + kQuestionEnd;

  out.Long(end + kTtlOffset, record.ttl);
  const int32_t dataLength = end + kDataLengthOffset;
  const int32_t data = end + kDataOffset;
  switch (record.type) {
    case kTypeA:
      return WriteAddressData(out, dataLength, data, record);
    case kTypePtr:
      return WritePointerData(out, dataLength, data, record);
    case kTypeTxt:
      return WriteTextData(out, dataLength, data, record);
    case kTypeSrv:
      return WriteServiceData(out, dataLength, data, record);
    case kTypeNsec:
      return WriteNextDomainData(out, dataLength, data, record);
    default:
      out.Byte(dataLength + 1, 0);
      return data;
  }
}
