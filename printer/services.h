// The service set of a printer: from a port and a service kind to a registration.
#pragma once

#include <cstdint>

#include "base/responder.h"
#include "printer/status_file.h"
#include "printer/txt.h"

/// Actions of UpdatePrinterService.
constexpr uint32_t kUnregisterPrinter = 0;
constexpr uint32_t kRegisterPrinter = 1;

/// The instance name under which all services of a port are published, by port; zero-terminated.
/// The monitor thread alone writes and reads it.
extern char printerServiceNames[kPrinterPorts][kServiceNameSize];

/// The service type of a kind, for example "_ipp._tcp"; null for a kind that does not exist.
const char* PrinterServiceType(int32_t kind);

/// The TCP port of a kind's service for the printer on `port`; 0 where there is none.
uint32_t PrinterTcpPort(int32_t kind, int32_t port);

/// Registers or unregisters the service `kind` of the printer on `port` (0 to 9) under the port's
/// instance name; any other action does nothing. For registering, `txt` is the caller's kTxtSize
/// zero-filled bytes: the TXT text is built into it and the registry keeps referring to it. For
/// unregistering it is not used. Failures are logged. Returns the registration's result, 0 when
/// none was made. Monitor thread.
uint32_t UpdatePrinterService(int32_t port, uint32_t action, int32_t kind, char* txt);
