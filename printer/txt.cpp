// The TXT text of a printer service.
#include "printer/txt.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/responder.h"
#include "base/text.h"
#include "printer/printer_device.h"
#include "printer/status_file.h"

namespace {

// A key line of this length or more fails the build.
constexpr size_t kKeyLineSize = 128;
// The pdl line's own buffer, and the length at which it leaves no space in the text.
constexpr size_t kPdlLineSize = 1024;
constexpr size_t kPdlLineLimit = 494;
constexpr size_t kQueueLineSize = 22;
constexpr size_t kTokenSize = 17;

constexpr char kCommandSeparator = ',';

using Parts = std::initializer_list<std::string_view>;

size_t LengthOf(Parts parts) {
  size_t length = 0;
  for (const std::string_view part : parts) length += part.size();
  return length;
}

// A text that grows in a caller's buffer of `size` bytes and stays below that length.
struct Text {
  char* buffer;
  size_t size;
  size_t length;

  // Appends all of the parts, or nothing when they would fill the buffer.
  bool Append(Parts parts) {
    if (length + LengthOf(parts) >= size) return false;
    for (const std::string_view part : parts) {
      CopyCharacters(buffer + length, part);
      length += part.size();
    }
    return true;
  }
};

bool LogTooLong() {
  LogLine("buf is too small!!!");
  return false;
}

bool AppendOrLog(Text& text, Parts parts) { return text.Append(parts) || LogTooLong(); }

bool AppendKeyLine(Text& text, Parts parts) {
  return LengthOf(parts) < kKeyLineSize && AppendOrLog(text, parts);
}

// One media type a token of the command set; empty tokens vanish and what does not fit is dropped.
bool AppendPdlLine(Text& text, std::string_view commandSet) {
  char buffer[kPdlLineSize];
  Text line = {buffer, sizeof(buffer), 0};
  line.Append({"pdl="});
  const size_t emptyLength = line.length;
  while (!commandSet.empty()) {
    const size_t separator = commandSet.find(kCommandSeparator);
    const size_t length = separator == std::string_view::npos ? commandSet.size() : separator;
    const std::string_view token(commandSet.data(), length);
    commandSet.remove_prefix(length < commandSet.size() ? length + 1 : length);
    if (!token.empty() && !line.Append({"application/", token, ","})) break;
  }
  // The line feed takes the place of the last entry's comma.
  if (line.length > emptyLength) --line.length;
  line.Append({"\n"});

  if (line.length >= kPdlLineLimit) return LogTooLong();
  return AppendOrLog(text, {std::string_view(buffer, line.length)});
}

bool AppendQueueLine(Text& text, int32_t port) {
  char line[kQueueLineSize];
  snprintf(line, sizeof(line), "rp=USB%d_LQ\n", static_cast<int>(port) + 1);
  return AppendOrLog(text, {line});
}

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool IsHp(std::string_view manufacturer, std::string_view model) {
  return Contains(manufacturer, "Hewlett-Packard") || Contains(manufacturer, "HP") ||
         Contains(model, "Hewlett-Packard") || Contains(model, "HP");
}

// The lower the number, the sooner a client takes the service: an HP printer prefers the raw port,
// any other printer IPP, and LPD comes last.
std::string_view PriorityLine(int32_t kind, bool isHp) {
  switch (kind) {
    case PRINTER_KIND_PDL:
      return isHp ? "priority=10" : "priority=20";
    case PRINTER_KIND_IPP:
      return isHp ? "priority=20" : "priority=10";
    case PRINTER_KIND_LPD:
      return "priority=30";
    default:
      return "";
  }
}

std::string_view LineText(std::string_view text, size_t start, size_t end) {
  return {text.data() + start, end - start};
}

bool ReadModel(int32_t port, PrinterStatusRecord& printer) {
  const HeapText id = ReadDeviceId(port);
  if (id == nullptr) return false;
  std::string_view model;
  if (!FindModel(DeviceIdText(id.get()), model)) return false;
  CopyText(printer.model, model);
  return true;
}

// Steps through the port's record as far as the TXT keys need it. The printer is asked for its
// model as soon as that line turns out empty.
bool ReadStatusRecord(std::string_view text, int32_t port, PrinterStatusRecord& printer) {
  char token[kTokenSize];
  snprintf(token, sizeof(token), "%s%d", kPortToken.data(), static_cast<int>(port));
  const size_t found = text.find(token);
  if (found == std::string_view::npos) return false;

  const size_t portEnd = FindLineEnd(text, found + strlen(token), 1);
  if (portEnd == std::string_view::npos) return false;
  const size_t manufacturerEnd = FindLineEnd(text, portEnd + 1, 1);
  if (manufacturerEnd == std::string_view::npos) return false;
  CopyText(printer.manufacturer, LineText(text, portEnd + 1, manufacturerEnd));
  const size_t modelEnd = FindLineEnd(text, manufacturerEnd + 1, 1);
  if (modelEnd == std::string_view::npos) return false;
  CopyText(printer.model, LineText(text, manufacturerEnd + 1, modelEnd));
  if (printer.model[0] == '\0' && !ReadModel(port, printer)) return false;
  const size_t commandSetEnd = FindLineEnd(text, modelEnd + 1, 1);
  if (commandSetEnd == std::string_view::npos) return false;
  CopyText(printer.commandSet, LineText(text, modelEnd + 1, commandSetEnd));
  return true;
}

}  // namespace

int32_t BuildTxtText(char* txt, int32_t port, int32_t kind, const PrinterStatusRecord& printer,
                     std::string_view deviceName) {
  const std::string_view manufacturer = FieldText(printer.manufacturer);
  const std::string_view model = FieldText(printer.model);
  const std::string_view commandSet = FieldText(printer.commandSet);
  const bool hasQueue = kind == PRINTER_KIND_IPP || kind == PRINTER_KIND_LPD;

  Text text = {txt, kTxtSize, 0};
  const bool isComplete =
      text.Append({"txtvers=1\n", "qtotal=1\n"}) && AppendPdlLine(text, commandSet) &&
      AppendOrLog(text, {"usb_CLS=PRINTER\n"}) && (!hasQueue || AppendQueueLine(text, port)) &&
      AppendKeyLine(text, {"ty=", model, "\n"}) &&
      AppendKeyLine(text, {"product=(", manufacturer, " ", model, ")\n"}) &&
      AppendKeyLine(text, {"usb_MFG=", manufacturer, "\n"}) &&
      AppendKeyLine(text, {"usb_MDL=", model, "\n"}) &&
      AppendKeyLine(text, {"note=", deviceName, "\n"}) &&
      AppendKeyLine(text, {"usb_CMD=", commandSet, "\n"}) &&
      AppendOrLog(text, {PriorityLine(kind, IsHp(manufacturer, model))});
  return isComplete ? kTxtComplete : kTxtTooLong;
}

int32_t GetTXTData(char* txt, int32_t port, int32_t kind) {
  const HeapText status = NewText(kStatusFileMax);
  if (status == nullptr) {
    LogError("[Bonjour] calloc error", errno);
    return kTxtNoData;
  }
  const int32_t held = ReadPrinterStatus(status.get());
  if (held < 0) LogError(kCannotOpenStatusFile, errno);
  if (held <= 0) return kTxtNoData;

  PrinterStatusRecord printer = {};
  if (!ReadStatusRecord(status.get(), port, printer)) return kTxtNoData;
  return BuildTxtText(txt, port, kind, printer, CurrentDeviceName().text);
}
