// Takes the place of the status file and of the printers behind it.
#include "fuzz/fake_printer.h"

#include <cerrno>
#include <cstdlib>

#include "fuzz/check.h"
#include "printer/printer_device.h"
#include "printer/status_file.h"

FakePrinters fakePrinters;

namespace {

constexpr size_t kFileLimit = 40960;
constexpr size_t kIdSize = 512;

}  // namespace

std::string VisibleStatus(const std::string& content) {
  return content.substr(0, kFileLimit).c_str();
}

std::string VisibleId(const std::string& id) {
  return id.size() < 2 ? "" : id.substr(2, kIdSize - 2).c_str();
}

int32_t ReadPrinterStatus(char* buffer) {
  const std::optional<std::string> content = fakePrinters.statusFile();
  if (!content) {
    errno = ENOENT;
    return -1;
  }
  const size_t held = content->copy(buffer, kFileLimit);
  buffer[held] = '\0';
  return static_cast<int32_t>(held);
}

// One byte smaller than the real one's block, which has a terminator after the id: nothing relies
// on that.
HeapText ReadDeviceId(int32_t port) {
  REQUIRE(port >= 0 && port < 10, "only the ports 0 to 9 are asked");
  const std::optional<std::string> id = fakePrinters.deviceId(port);
  if (!id) return nullptr;
  HeapText block(static_cast<char*>(calloc(1, kIdSize)));
  REQUIRE(block != nullptr, "there is memory for a device id");
  id->copy(block.get(), kIdSize);
  return block;
}
