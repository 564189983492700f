// The router's model and the device name.
#include "app/device_name.h"

#include <cerrno>
#include <cstdio>

#include "base/interface.h"
#include "base/log.h"
#include "base/text.h"

namespace {

constexpr std::string_view kDefaultModel = "T5140";
constexpr std::string_view kModels[] = {kDefaultModel, "T5100b3", "GLXE4800b5", "GLXE4700"};

std::string_view KnownModel(std::string_view requested) {
  for (const std::string_view model : kModels) {
    if (model == requested) return model;
  }
  return kDefaultModel;
}

}  // namespace

void ChooseModel(char (&model)[kModelNameSize], int argc, char* const* argv) {
  char requested[kModelNameSize];
  CopyText(requested, argc == 2 ? argv[1] : kDefaultModel);
  CopyText(model, KnownModel(FieldText(requested)));
}

void FormatDeviceName(char (&name)[kDeviceNameSize], const char* model,
                      const uint8_t (&mac)[kMacSize]) {
  snprintf(name, sizeof(name), "%s_%02X-%02X-%02X-%02X-%02X-%02X", model, mac[0], mac[1], mac[2],
           mac[3], mac[4], mac[5]);
}

bool ReadBridgeMac(uint8_t (&mac)[kMacSize]) {
  InterfaceQuery bridge(kBridgeName);
  if (!bridge.IsOpen()) return false;
  if (bridge.ReadMac(mac)) return true;
  LogError("[Bonjour] ioctl HWADDR error", errno);
  return false;
}
