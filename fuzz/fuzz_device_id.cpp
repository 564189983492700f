// Device ids: the text in the block, the model in the text, and what becomes of it in a TXT text.
#include <string>

#include "fuzz/check.h"
#include "fuzz/fake_printer.h"
#include "fuzz/input.h"
#include "mdns/state.h"
#include "printer/device_id.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kBlockSize = 512;

// Any text, in a block that ends with it.
void CheckText(std::string_view text) {
  std::string_view model;
  if (!FindModel(text, model)) return;
  REQUIRE(model.size() <= 63, "a model has at most 63 characters");
  REQUIRE(model.data() >= text.data() && model.data() + model.size() <= text.data() + text.size(),
          "a model is a part of the text");
  const auto start = static_cast<size_t>(model.data() - text.data());
  const size_t end = start + model.size();
  REQUIRE(text.substr(0, start).ends_with("MODEL:"), "a model stands behind its key");
  REQUIRE(model.find(';') == std::string_view::npos && (end == text.size() || text[end] == ';'),
          "a model ends at the first semicolon");
}

void CheckBlock(const std::string& id) {
  std::string bytes = id;
  bytes.resize(kBlockSize);
  const ExactBytes block(bytes);
  const std::string_view text = DeviceIdText(reinterpret_cast<const char*>(block.Data()));
  REQUIRE(text == bytes.substr(2).c_str(), "the text lies between the length and the first zero");
  CheckText(text);
}

void CheckTxt(const std::string& id, int32_t kind, const std::string& manufacturer,
              const std::string& commandSet) {
  std::string file = "usblp4\n" + manufacturer + "\n\n" + commandSet + "\n\n";
  SetDeviceName("T5140_00-11-22-AA-BB-CC");
  fakePrinters.statusFile = [&] { return file; };
  fakePrinters.deviceId = [&](int32_t port) {
    REQUIRE(port == 4, "the printer that the record names is asked");
    return id;
  };
  RequireSoundTxt(4, kind);
  fakePrinters = {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const int32_t kind = input.Byte() % 6;
  const std::string manufacturer = input.Text();
  const std::string commandSet = input.Text();
  const std::string id = input.Bytes(size);
  CheckText(ExactBytes(id).Text());
  CheckBlock(id);
  CheckTxt(id, kind, manufacturer, commandSet);
  return 0;
}
