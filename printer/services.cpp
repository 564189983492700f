// The service set of a printer.
#include "printer/services.h"

#include <cstring>

#include "base/log.h"
#include "base/responder.h"
#include "base/service_kinds.h"

char printerServiceNames[kPrinterPorts][kServiceNameSize];

namespace {

// A port outside the table has no name, and the registration refuses it.
const char* ServiceName(int32_t port) {
  return port >= 0 && port < kPrinterPorts ? printerServiceNames[port] : "";
}

uint32_t Register(int32_t port, int32_t kind, char* txt) {
  if (GetTXTData(txt, port, kind) < kTxtComplete) {
    LogLine("[Bonjour] GetTXTData error");
    return 0;
  }
  const char* type = PrinterServiceType(kind);
  if (type == nullptr) return 0;
  const uint32_t result =
      RegisterOneService(ServiceName(port), type, kLocalDomain, txt,
                         static_cast<int32_t>(strlen(txt)), PrinterTcpPort(kind, port));
  if (result == 0) LogLine("**********RegisterOneService error*************");
  return result;
}

uint32_t Unregister(int32_t port, int32_t kind) {
  const char* type = PrinterServiceType(kind);
  if (type == nullptr) return 0;
  const uint32_t result = UnRegisterOneService(ServiceName(port), type, kLocalDomain, nullptr, 0,
                                               PrinterTcpPort(kind, port));
  if (result == 0) LogLine("**********UnRegisterOneService error*************");
  return result;
}

}  // namespace

const char* PrinterServiceType(int32_t kind) {
  const ServiceKind* service = FindServiceKind(kind);
  return service == nullptr ? nullptr : service->type;
}

uint32_t PrinterTcpPort(int32_t kind, int32_t port) {
  const ServiceKind* service = FindServiceKind(kind);
  if (service == nullptr) return 0;
  if (kind != PRINTER_KIND_PDL) return service->tcpPort;
  return port >= 0 && port < kPrinterPorts ? service->tcpPort + static_cast<uint32_t>(port) : 0;
}

uint32_t UpdatePrinterService(int32_t port, uint32_t action, int32_t kind, char* txt) {
  switch (action) {
    case kRegisterPrinter:
      return Register(port, kind, txt);
    case kUnregisterPrinter:
      return Unregister(port, kind);
    default:
      return 0;
  }
}
