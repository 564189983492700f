// What the packets should be: the records of each kind of packet, and their wire form, worked out a
// second time, plainly and slowly, without the code under test.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/walker.h"

/// A question or a record in the sense of its fields; texts are not cut yet.
struct ModelRecord {
  std::string owner;         ///< dotted form
  int32_t type = 0;          ///< as given to the encoder; the wire has its low byte
  bool classTopBit = false;  ///< class bit 15
  uint32_t ttl = 0;
  std::string data;  ///< address, target or text
  int32_t port = 0;
  int32_t nsecNextOffset = 0;
  std::string bitmap;  ///< the bitmap bytes that are written
};

/// A packet in the sense of its records.
struct ModelPacket {
  uint8_t flags;  ///< first flags byte
  std::vector<ModelRecord> questions;
  std::vector<ModelRecord> answers;
  std::vector<ModelRecord> authorities;
};

/// A service in the sense of its texts.
struct ModelService {
  std::string hostName;  ///< with domain
  std::string address;   ///< dotted form
  std::string name;      ///< instance name alone
  std::string type;      ///< "_ipp._tcp"
  std::string domain;    ///< ".local"
  std::string txt;
  uint32_t port;
};

/// The packets that there are.
ModelPacket HostProbe(const std::string& name);
ModelPacket HostAnswer(const std::string& hostName, const std::string& address);
ModelPacket ServiceProbe(const ModelService& service);
ModelPacket ServiceResponse(const ModelService& service, bool hasSubtype);
ModelPacket ServiceGoodbye(const ModelService& service, bool hasSubtype);

/// The labels that a text is written as: cut at each separator and at `maxLabel` characters, where
/// the next character is lost; empty ones vanish.
Labels SplitText(std::string_view text, char separator, size_t maxLabel);

/// A zero-filled buffer of `capacity` bytes that is written as the encoders should write it: each
/// field whole or not at all, positions going on after the end.
class ModelBuffer {
 public:
  explicit ModelBuffer(int32_t capacity) : bytes(static_cast<size_t>(capacity), '\0') {}

  /// Writes at `position` and returns the next one.
  int32_t Labels(int32_t position, std::string_view text, char separator, size_t maxLabel);
  int32_t Record(int32_t position, const ModelRecord& record, bool questionOnly);
  /// Writes the whole packet and returns its length.
  int32_t Packet(const ModelPacket& packet);
  /// The buffer.
  const std::string& Bytes() const { return bytes; }
  /// True when everything that was written fitted.
  bool IsWhole() const { return !isCut; }

 private:
  void Field(int32_t position, std::string_view field);
  int32_t Strings(int32_t position, const ::Labels& strings);
  int32_t Characters(int32_t position, const std::string& characters);

  std::string bytes;
  bool isCut = false;
};

/// Requires that `packet`, read by the walker, holds the records of `model` and nothing else.
void RequireParsesBack(std::string_view packet, const ModelPacket& model);
