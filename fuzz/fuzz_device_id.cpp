// Device ids: the text in the block, the model in the text, and what becomes of it in a TXT text.
#include <cstring>
#include <string>

#include "fuzz/check.h"
#include "fuzz/fake_printer.h"
#include "fuzz/input.h"
#include "fuzz/txt_model.h"
#include "mdns/state.h"
#include "printer/device_id.h"
#include "printer/txt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kBlockSize = 512;
constexpr size_t kTxtFieldSize = 513;

// Any text, in a block that ends with it.
void CheckText(std::string_view text) {
  const std::optional<std::string> expected = ModelOfDeviceId(std::string(text));
  std::string_view model;
  REQUIRE(FindModel(text, model) == expected.has_value(),
          "a model is found where a key MODEL has a value that fits");
  if (!expected) return;
  REQUIRE(model == *expected, "a model is the value of the first key that counts");
  REQUIRE(model.size() <= 63, "a model has at most 63 characters");
  REQUIRE(model.data() >= text.data() && model.data() + model.size() <= text.data() + text.size(),
          "a model is a part of the text");
}

void CheckBlock(const std::string& id) {
  std::string bytes = id;
  bytes.resize(kBlockSize);
  const ExactBytes block(bytes);
  const std::string_view text = DeviceIdText(reinterpret_cast<const char*>(block.Data()));
  REQUIRE(text == VisibleId(bytes), "the text lies between the length field and the first zero");
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
  std::string expected;
  const int32_t due = ModelTxt(
      VisibleStatus(file), 4, kind, "T5140_00-11-22-AA-BB-CC", [&] { return VisibleId(id); },
      expected);
  const ExactBytes field(std::string(kTxtFieldSize, '\0'));
  const int32_t result = GetTXTData(reinterpret_cast<char*>(field.Data()), 4, kind);
  REQUIRE(result == due, "a TXT text has the result that the printer's words give");
  REQUIRE(field.Data()[kTxtFieldSize - 1] == 0, "a TXT text has at most 512 characters");
  expected.resize(kTxtFieldSize);
  REQUIRE(result != 1 || field.Text() == expected,
          "a TXT text has the lines that the printer's words give");
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
