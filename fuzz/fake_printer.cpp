// Takes the place of the status file and of the printers behind it.
#include "fuzz/fake_printer.h"

#include <cerrno>
#include <cstdlib>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "printer/printer_device.h"
#include "printer/status_file.h"
#include "printer/txt.h"

FakePrinters fakePrinters;

namespace {

constexpr size_t kFileLimit = 40960;
constexpr size_t kIdSize = 512;
constexpr size_t kTxtFieldSize = 513;

}  // namespace

void RequireSoundTxt(int32_t port, int32_t kind) {
  const ExactBytes field(std::string(kTxtFieldSize, '\0'));
  const int32_t result = GetTXTData(reinterpret_cast<char*>(field.Data()), port, kind);
  REQUIRE(result >= -1 && result <= 1, "a TXT text is made, is not, or is too long");
  const std::string_view text = field.Text();
  REQUIRE(text.back() == '\0', "a TXT text has at most 512 characters");
  REQUIRE(result != 1 || text.starts_with("txtvers=1\nqtotal=1\npdl="), "a TXT text is whole");
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
