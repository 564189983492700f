// Reading the kernel's printer status file.
#include "printer/status_file.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/descriptor.h"

int32_t ReadPrinterStatus(char* buffer) {
  const Descriptor file(open(kStatusFilePath, O_RDONLY));
  if (!file.IsOpen()) return -1;

  size_t held = 0;
  while (held < kStatusFileMax) {
    const size_t left = kStatusFileMax - held;
    const ssize_t count =
        read(file.Get(), buffer + held, left < kStatusReadMax ? left : kStatusReadMax);
    if (count <= 0) break;
    held += static_cast<size_t>(count);
  }
  buffer[held] = '\0';
  return static_cast<int32_t>(held);
}
