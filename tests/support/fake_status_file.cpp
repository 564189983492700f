#include "tests/support/fake_status_file.h"

#include <cerrno>
#include <cstring>

#include "printer/status_file.h"

FakeStatusFile fakeStatusFile;

int32_t ReadPrinterStatus(char* buffer) {
  ++fakeStatusFile.reads;
  if (!fakeStatusFile.present) {
    errno = ENOENT;
    return -1;
  }
  const std::string& text = fakeStatusFile.text;
  const size_t held = text.size() < kStatusFileMax ? text.size() : kStatusFileMax;
  memcpy(buffer, text.data(), held);
  buffer[held] = '\0';
  return static_cast<int32_t>(held);
}
