// The presence monitor.
#include "printer/monitor.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/responder.h"
#include "base/text.h"

PrinterTxt* printerTxtPdl[kPrinterPorts];
PrinterTxt* printerTxtIpp[kPrinterPorts];

namespace {

// Texts whose printer has gone while a registry entry still referred to them: the printer's lines
// changed while it was plugged in, so that the removal went under another name.
PrinterTxt* keptTexts = nullptr;

// Stands for every text that the responder has copied.
PrinterTxt copiedText;

// Manufacturer and model, and what tells apart two printers of a kind on one link: the end of the
// bridge's address and the port.
void SetServiceName(int32_t port, std::string_view lines) {
  static_assert(kNameLinesMax + sizeof(" (00:00:00) 0") == kServiceNameSize);
  char* name = printerServiceNames[port];
  const size_t length = lines.size() < kNameLinesMax ? lines.size() : kNameLinesMax;
  CopyText(name, kServiceNameSize, length, lines);
  snprintf(name + length, kServiceNameSize - length, " (%02x:%02x:%02x) %d", unsigned{hw_addr[3]},
           unsigned{hw_addr[4]}, unsigned{hw_addr[5]}, static_cast<int>(port));
  for (size_t i = 0; i < length; ++i) {
    if (name[i] == '\n') name[i] = ' ';
  }
}

void InsertService(int32_t port, int32_t kind, PrinterTxt*& txt) {
  txt = static_cast<PrinterTxt*>(calloc(1, sizeof(PrinterTxt)));
  if (txt == nullptr) {
    LogNoMemory();
    return;
  }
  UpdatePrinterService(port, kRegisterPrinter, kind, txt->text);
  if (AreTextsCopied()) {
    free(txt);
    txt = &copiedText;
  }
}

// Gives back every text that nothing refers to any more.
void FreeUnusedTexts() {
  PrinterTxt** link = &keptTexts;
  while (*link != nullptr) {
    PrinterTxt* txt = *link;
    if (IsTextRegistered(txt->text)) {
      link = &txt->nextKept;
    } else {
      *link = txt->nextKept;
      free(txt);
    }
  }
}

void RemoveService(int32_t port, int32_t kind, PrinterTxt*& txt) {
  if (txt == nullptr) return;
  UpdatePrinterService(port, kUnregisterPrinter, kind, txt->text);
  if (!AreTextsCopied()) {
    txt->nextKept = keptTexts;
    keptTexts = txt;
  }
  txt = nullptr;
  FreeUnusedTexts();
}

void InsertPrinter(int32_t port) {
  LogLine({"[Bonjour] device insert lp", FormatNumber(port).text});
  InsertService(port, PRINTER_KIND_PDL, printerTxtPdl[port]);
  InsertService(port, PRINTER_KIND_IPP, printerTxtIpp[port]);
}

void RemovePrinter(int32_t port) {
  LogLine({"[Bonjour] device remove lp", FormatNumber(port).text});
  RemoveService(port, PRINTER_KIND_PDL, printerTxtPdl[port]);
  RemoveService(port, PRINTER_KIND_IPP, printerTxtIpp[port]);
}

// One look at the status file. While it can't be opened nothing changes.
void RunPass(char* buffer, PrinterPresence& previous) {
  const int32_t held = ReadPrinterStatus(buffer);
  if (held < 0) {
    LogLine(kCannotOpenStatusFile);
    return;
  }
  PrinterPresence current = {};
  ScanPrinters(buffer, current);
  ApplyPresence(previous, current);
}

}  // namespace

void ScanPrinters(std::string_view text, PrinterPresence& presence) {
  size_t start = 0;
  size_t token = text.find(kPortToken);
  while (token != std::string_view::npos) {
    // Lines are counted from the record's start, also where the token stands in a later line.
    const size_t portEnd = FindLineEnd(text, start, 1);
    const size_t modelEnd = FindLineEnd(text, start, 3);
    if (modelEnd == std::string_view::npos) return;

    const size_t digit = token + kPortToken.size();
    const int32_t port = digit < text.size() ? text[digit] - '0' : -1;
    if (port >= 0 && port < kPrinterPorts) {
      SetServiceName(port, {text.data() + portEnd + 1, modelEnd - portEnd - 1});
      presence.present[port] = 1;
    }

    const size_t recordEnd = FindLineEnd(text, start, kRecordLines);
    if (recordEnd == std::string_view::npos) return;
    start = recordEnd + 1;
    token = text.find(kPortToken, start);
  }
}

void ApplyPresence(PrinterPresence& previous, const PrinterPresence& current) {
  for (int32_t port = 0; port < kPrinterPorts; ++port) {
    if (current.present[port] == previous.present[port]) continue;
    if (current.present[port] != 0) {
      InsertPrinter(port);
    } else {
      RemovePrinter(port);
    }
  }
  previous = current;
}

void* CheckUsbDevice(void* /*argument*/) {
  const HeapText buffer = NewText(kStatusFileMax);
  if (buffer == nullptr) {
    LogNoMemory();
    return nullptr;
  }
  for (int32_t port = 0; port < kPrinterPorts; ++port) {
    printerTxtPdl[port] = nullptr;
    printerTxtIpp[port] = nullptr;
  }
  memset(printerServiceNames, 0, sizeof(printerServiceNames));

  PrinterPresence previous = {};
  while (!IsTerminating()) {
    RunPass(buffer.get(), previous);
    sleep(kPassSeconds);
  }
  return nullptr;
}
