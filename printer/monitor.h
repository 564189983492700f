// The presence monitor: publishes printers that appear in the status file, withdraws those that go.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "printer/services.h"
#include "printer/status_file.h"
#include "printer/txt.h"

/// Characters of the manufacturer and model lines that go into an instance name.
constexpr size_t kNameLinesMax = 115;
/// Pause between two passes.
constexpr unsigned kPassSeconds = 1;

/// A TXT buffer of a registered service. Heap block, owned by the monitor, which frees it once no
/// registry entry refers to its text.
struct PrinterTxt {
  char text[kTxtSize];
  PrinterTxt* nextKept;  ///< links the texts that outlive their printer
};

/// The TXT buffers of the ports' services, by port; null where there is none. Monitor thread.
extern PrinterTxt* printerTxtPdl[kPrinterPorts];
extern PrinterTxt* printerTxtIpp[kPrinterPorts];

/// Which ports have a printer: 0 or 1 by port.
struct PrinterPresence {
  uint32_t present[kPrinterPorts];
};

/// Scans the text of the status file: sets the flag and writes the instance name (into
/// printerServiceNames) of every port with a record whose first three lines are complete. Names of
/// other ports are left alone. A malformed record ends the scan; one without a port digit is passed
/// over. Monitor thread.
void ScanPrinters(std::string_view text, PrinterPresence& presence);

/// Publishes the printers that are in `current` alone and withdraws those that are in `previous`
/// alone, in the order of ports, and makes `previous` equal to `current`.
/// Monitor thread.
void ApplyPresence(PrinterPresence& previous, const PrinterPresence& current);

/// Thread body, without argument. Looks at the status file once a second until a stop is asked for.
/// What is registered then stays registered: the responder withdraws it.
void* CheckUsbDevice(void* argument);
