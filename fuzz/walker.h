// A reader of DNS messages that shares nothing with the code under test: RFC 1035, section 4, with
// the two liberties that this responder takes, name labels of up to 64 characters and names without
// compression.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The labels of a name, or the strings of a TXT record.
using Labels = std::vector<std::string>;

/// A question, or a resource record with its data as it stands in the message.
struct WireRecord {
  Labels name;
  uint16_t type;
  uint16_t recordClass;
  uint32_t ttl;      ///< 0 for a question
  std::string data;  ///< empty for a question
};

/// A message, section by section.
struct WireMessage {
  uint16_t id;
  uint16_t flags;
  std::vector<WireRecord> questions;
  std::vector<WireRecord> answers;
  std::vector<WireRecord> authorities;
  std::vector<WireRecord> additionals;
};

/// Reads a message whose header counts say what it holds. Returns false unless every byte of
/// `packet` belongs to a record that the header counts.
bool WalkMessage(std::string_view packet, WireMessage& message);

/// Reads the name at `offset`, which moves past it. Returns false when it is not whole.
bool WalkName(std::string_view bytes, size_t& offset, Labels& name);

/// Reads counted strings up to the end of `bytes`. Returns false when the last is not whole.
bool WalkStrings(std::string_view bytes, Labels& strings);
