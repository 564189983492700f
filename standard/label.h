// Labels made of texts: what the host and the printers are called on the link.
#pragma once

#include <cstdint>
#include <string_view>

#include "standard/wire.h"

/// Makes a label of a text: control characters become blanks, bytes that are no UTF-8 question
/// marks (RFC 6763, section 4.1.1), and it is cut between characters so that `suffix` fits behind
/// it.
Label MakeLabel(std::string_view text, std::string_view suffix);

/// The suffixes of a number, zero-terminated: "-1" for a host, " (2)" for a service; empty for 0.
struct Suffix {
  char text[16];
};
Suffix HostSuffix(uint32_t number);
Suffix InstanceSuffix(uint32_t number);

/// Cuts a text into the strings of a TXT record (RFC 6763, section 6.1): one for each line that is
/// not empty, cut at 255 bytes between characters; a text without any is one empty string. Returns
/// the length in bytes, or 0 when they do not fit into `capacity`.
size_t MakeTxt(std::string_view text, uint8_t* data, size_t capacity);
