// In place of printer/status_file and printer/printer_device: what the kernel says of the printers.
// Included once in a program.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "printer/device_id.h"
#include "printer/printer_device.h"
#include "printer/status_file.h"

struct FakeStatusFile {
  bool present = true;  ///< false: it can't be opened, for ENOENT
  std::string text;     ///< what it holds
  int reads = 0;        ///< how often it was read
};

struct FakePrinterDevice {
  std::optional<std::string> id;  ///< with its length field, zeros follow it; null: none to be had
  std::vector<int32_t> askedForPort;  ///< the ports of all requests, in order
};

FakeStatusFile fakeStatusFile;
FakePrinterDevice fakePrinterDevice;

int32_t ReadPrinterStatus(char* buffer) {
  ++fakeStatusFile.reads;
  if (!fakeStatusFile.present) {
    errno = ENOENT;
    return -1;
  }
  const size_t held = fakeStatusFile.text.copy(buffer, kStatusFileMax);
  buffer[held] = '\0';
  return static_cast<int32_t>(held);
}

HeapText ReadDeviceId(int32_t port) {
  fakePrinterDevice.askedForPort.push_back(port);
  if (!fakePrinterDevice.id) return nullptr;
  // The block has exactly its size, so that a sanitizer sees a read after it.
  HeapText id(static_cast<char*>(calloc(1, kDeviceIdSize)));
  fakePrinterDevice.id->copy(id.get(), kDeviceIdSize);
  return id;
}
