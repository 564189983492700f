// Asking a printer for its IEEE 1284 device id.
#include "printer/printer_device.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>

#include "base/descriptor.h"
#include "base/log.h"
#include "printer/device_id.h"

namespace {

constexpr size_t kDevicePathSize = 23;

// The C libraries disagree on the type of a request: unsigned long here, int there.
template <typename Request>
Request RequestTypeOf(int (*)(int, Request, ...));
using IoctlRequest = decltype(RequestTypeOf(&ioctl));

// LPIOC_GET_DEVICE_ID of the kernel's USB printer driver, with the size of the buffer.
constexpr auto kGetDeviceIdRequest =
    static_cast<IoctlRequest>(_IOC(_IOC_READ, 'P', 1, kDeviceIdSize));

}  // namespace

HeapText ReadDeviceId(int32_t port) {
  char path[kDevicePathSize];
  snprintf(path, sizeof(path), "/dev/usblp%d", static_cast<int>(port));
  Descriptor device(open(path, O_RDWR));
  if (!device.IsOpen()) {
    LogError("[Bonjour] no usb device", errno);
    return nullptr;
  }
  HeapText id = NewText(kDeviceIdSize);
  if (id == nullptr) {
    LogNoMemory();
    return nullptr;
  }
  const int result = ioctl(device.Get(), kGetDeviceIdRequest, id.get());
  const int error = errno;
  // At once: the printer is free for its print server again.
  device.Close();
  if (result < 0) {
    LogError("[Bonjour] ioctl printer failed", error);
    return nullptr;
  }
  return id;
}
