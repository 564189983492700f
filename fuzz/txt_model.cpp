// What the printer code should make of a status file and of a device id.
#include "fuzz/txt_model.h"

#include <vector>

namespace {

constexpr size_t kFieldSize = 129;
constexpr size_t kTextLimit = 512;

// The first `count` whole lines of a text from `start` on, without their line feeds; what follows
// the last line feed is no line.
std::vector<std::string> LinesOf(const std::string& text, size_t start, size_t count) {
  std::vector<std::string> lines;
  std::string line;
  for (size_t i = start; i < text.size() && lines.size() < count; ++i) {
    if (text[i] == '\n') {
      lines.push_back(line);
      line.clear();
    } else {
      line.push_back(text[i]);
    }
  }
  return lines;
}

std::string InstanceNameField(std::string name, const std::string& suffix, size_t port) {
  name = name.substr(0, 115) + " " + suffix + std::to_string(port);
  name.resize(kFieldSize);
  return name;
}

std::vector<std::string> Tokens(const std::string& list) {
  std::vector<std::string> tokens(1);
  for (const char c : list) {
    if (c == ',') {
      tokens.emplace_back();
    } else {
      tokens.back().push_back(c);
    }
  }
  std::erase(tokens, "");
  return tokens;
}

std::string PdlLine(const std::string& commandSet) {
  std::string line;
  for (const std::string& token : Tokens(commandSet)) {
    line += (line.empty() ? "" : ",") + ("application/" + token);
  }
  return "pdl=" + line + "\n";
}

std::string PriorityLine(int32_t kind, bool isHp) {
  if (kind == 1) return isHp ? "priority=10" : "priority=20";
  if (kind == 2) return isHp ? "priority=20" : "priority=10";
  return kind == 3 ? "priority=30" : "";
}

}  // namespace

ModelPrinters ModelScan(const std::string& text, const std::string& suffix) {
  std::array<std::optional<std::string>, 10> last;  // manufacturer and model by port
  size_t start = 0;
  for (;;) {
    const size_t token = text.find("usblp", start);
    const std::vector<std::string> lines = LinesOf(text, start, 5);
    if (token == std::string::npos || lines.size() < 3) break;
    const char digit = token + 5 < text.size() ? text[token + 5] : '\0';
    if (digit >= '0' && digit <= '9') {
      last[static_cast<size_t>(digit - '0')] = lines[1] + " " + lines[2];
    }
    if (lines.size() < 5) break;
    for (const std::string& line : lines) start += line.size() + 1;
  }
  ModelPrinters printers;
  for (size_t port = 0; port < last.size(); ++port) {
    if (last[port]) printers[port] = InstanceNameField(*last[port], suffix, port);
  }
  return printers;
}

std::optional<std::string> ModelOfDeviceId(const std::string& text) {
  const std::string key = "MODEL";
  std::string seen;
  std::string rest = text;
  for (;;) {
    const size_t found = rest.find(key);
    if (found == std::string::npos) return std::nullopt;
    seen += rest.substr(0, found);
    rest.erase(0, found + key.size());
    const bool isKey = seen.size() < 2 || seen.back() == ';';
    if (isKey && rest.starts_with(":")) break;
    seen += key;
  }
  const std::string value = rest.substr(1, rest.find(';', 1) - 1);
  if (value.size() >= 64) return std::nullopt;
  return value;
}

int32_t ModelTxt(const std::string& status, int32_t port, int32_t kind,
                 const std::string& deviceName,
                 const std::function<std::optional<std::string>()>& readId, std::string& txt) {
  txt.clear();
  const std::string token = "usblp" + std::to_string(port);
  const size_t found = status.find(token);
  if (found == std::string::npos) return 0;
  const std::vector<std::string> lines = LinesOf(status, found + token.size(), 4);
  if (lines.size() < 3) return 0;
  const std::string manufacturer = lines[1].substr(0, 15);
  std::string model = lines[2].substr(0, 63);
  if (model.empty()) {
    const std::optional<std::string> id = readId();
    const std::optional<std::string> value = id ? ModelOfDeviceId(*id) : std::nullopt;
    if (!value) return 0;
    model = *value;
  }
  if (lines.size() < 4) return 0;
  const std::string commandSet = lines[3].substr(0, 511);

  const std::string pdl = PdlLine(commandSet);
  if (pdl.size() >= 494) return -1;
  std::vector<std::string> parts = {"txtvers=1\nqtotal=1\n" + pdl + "usb_CLS=PRINTER\n"};
  if (kind == 2 || kind == 3) parts.push_back("rp=USB" + std::to_string(port + 1) + "_LQ\n");
  const size_t firstKeyLine = parts.size();
  parts.push_back("ty=" + model + "\n");
  parts.push_back("product=(" + manufacturer + " " + model + ")\n");
  parts.push_back("usb_MFG=" + manufacturer + "\n");
  parts.push_back("usb_MDL=" + model + "\n");
  parts.push_back("note=" + deviceName + "\n");
  parts.push_back("usb_CMD=" + commandSet + "\n");
  for (size_t i = firstKeyLine; i < parts.size(); ++i) {
    if (parts[i].size() >= 128) return -1;
  }
  // "Hewlett-Packard" alone holds no "HP".
  bool isHp = false;
  for (const std::string& text : {manufacturer, model}) {
    isHp = isHp || text.find("HP") != std::string::npos ||
           text.find("Hewlett-Packard") != std::string::npos;
  }
  parts.push_back(PriorityLine(kind, isHp));
  for (const std::string& part : parts) txt += part;
  return txt.size() > kTextLimit ? -1 : 1;
}
