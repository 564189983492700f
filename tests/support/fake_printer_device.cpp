#include "tests/support/fake_printer_device.h"

#include <cstring>

#include "printer/device_id.h"
#include "printer/printer_device.h"

FakePrinterDevice fakePrinterDevice;

HeapText ReadDeviceId(int32_t port) {
  fakePrinterDevice.askedForPort.push_back(port);
  if (!fakePrinterDevice.answers) return nullptr;
  // The block has exactly its size, so that a sanitizer sees a read after it.
  HeapText id(static_cast<char*>(calloc(1, kDeviceIdSize)));
  memcpy(id.get(), fakePrinterDevice.id.data(), fakePrinterDevice.id.size());
  return id;
}
