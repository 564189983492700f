#include "tests/support/fake_services.h"

#include <algorithm>

#include "printer/services.h"

FakeServices fakeServices;
char printerServiceNames[kPrinterPorts][kServiceNameSize];

uint32_t UpdatePrinterService(int32_t port, uint32_t action, int32_t kind, char* txt) {
  const bool isZeroed = std::all_of(txt, txt + kTxtSize, [](char byte) { return byte == '\0'; });
  fakeServices.calls.push_back({port, action, kind, txt, isZeroed, printerServiceNames[port]});
  if (action == kRegisterPrinter) txt[0] = 'x';
  return fakeServices.result;
}
