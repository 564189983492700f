// A buffer for a TXT text, as the monitor hands it over.
#pragma once

#include <cstring>
#include <memory>
#include <string>

/// Exactly 513 bytes, zero-filled, on the heap: AddressSanitizer sees one byte too far.
struct TxtBuffer {
  std::unique_ptr<char[]> bytes{new char[513]()};

  std::string Text() const { return std::string(bytes.get(), strnlen(bytes.get(), 513)); }
};
