// What the registry should hold.
#include "fuzz/registry_model.h"

#include <netinet/in.h>

#include <cstring>

#include "fuzz/check.h"
#include "fuzz/fake_sender.h"
#include "mdns/state.h"
#include "records/registry.h"

namespace {

constexpr int32_t kPacketCapacity = 1518;

// The text of a fixed field, which has zeros after it up to its end.
template <size_t kSize>
bool FieldHolds(const char (&field)[kSize], const std::string& text) {
  std::string bytes(text);
  bytes.resize(kSize);
  return bytes == std::string(field, kSize);
}

// The part of a service's text that its length covers.
std::string CoveredText(const char* txt, int32_t txtLength) {
  if (txt == nullptr || txtLength <= 0) return {};
  return {txt, strnlen(txt, static_cast<size_t>(txtLength))};
}

ModelService ServiceOf(const std::string& name, const std::string& type, const std::string& domain,
                       const std::string& txt, uint32_t port) {
  char deviceName[65] = {};
  GetDeviceName(deviceName, 64);
  const std::string address = DottedText(ntohl(responderState.interfaceAddress[0].Get()));
  return {deviceName + domain, address, name, type, domain, txt, port};
}

bool IsConnected() { return responderState.connected[0].Get() != 0; }

}  // namespace

size_t RegistryModel::Find(const std::string& name, const std::string& type,
                           const std::string& domain) const {
  size_t index = 0;
  while (index < entries.size() &&
         !(entries[index].name.starts_with(name) && entries[index].type.starts_with(type) &&
           entries[index].domain.starts_with(domain))) {
    ++index;
  }
  return index;
}

uint32_t RegistryModel::Add(const std::string& name, const std::string& type,
                            const std::string& domain, const char* txt, int32_t txtLength,
                            uint32_t port) {
  if (Find(name, type, domain) < entries.size()) return 0;
  entries.push_back({name.substr(0, 128), type.substr(0, 32), domain.substr(0, 32), txt,
                     CoveredText(txt, txtLength), txtLength, port});
  return 1;
}

uint32_t RegistryModel::Remove(const std::string& name, const std::string& type,
                               const std::string& domain) {
  const size_t index = Find(name, type, domain);
  if (index == entries.size()) return 0;
  entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(index));
  return 1;
}

uint32_t RegistryModel::Register(const std::string& name, const std::string& type,
                                 const std::string& domain, const char* txt, int32_t txtLength,
                                 uint32_t port) {
  if (ModelValidate(name, type, domain, txt != nullptr, txtLength, port) == 0) return 0;
  if (Add(name, type, domain, txt, txtLength, port) == 0) return 0;
  if (!IsConnected()) return 1;
  // Unlike an answer, the announcement carries the text to its end.
  const std::string announced = txt != nullptr && txtLength != 0 ? txt : "";
  const ModelService service = ServiceOf(name, type, domain, announced, port);
  const int32_t socket = multicastSocket.Get();
  RequireNextPacket(ServiceProbe(service), kPacketCapacity, socket);
  RequireNextPacket(ServiceResponse(service, type == "_ipp._tcp"), kPacketCapacity, socket);
  return 1;
}

uint32_t RegistryModel::Unregister(const std::string& name, const std::string& type,
                                   const std::string& domain, const char* txt, int32_t txtLength,
                                   uint32_t port) {
  if (ModelValidate(name, type, domain, txt != nullptr, txtLength, port) == 0) return 0;
  if (IsConnected()) {
    RequireNextPacket(ServiceGoodbye(ServiceOf(name, type, domain, "", port), type == "_ipp._tcp"),
                      kPacketCapacity, multicastSocket.Get());
  }
  return Remove(name, type, domain);
}

void RegistryModel::RequireSame() const {
  REQUIRE(sentPackets.empty(), "no packet is sent that is not due");
  const RegistryLock lock;
  const ServiceEntry* previous = nullptr;
  const ServiceEntry* entry = responderState.registryHead;
  for (const ModelEntry& model : entries) {
    REQUIRE(entry != nullptr, "the registry holds every service");
    REQUIRE(entry->previous == previous, "an entry is linked to the one before it");
    REQUIRE(FieldHolds(entry->serviceName, model.name) &&
                FieldHolds(entry->serviceType, model.type) &&
                FieldHolds(entry->serviceDomain, model.domain),
            "the registry holds the services in the order of registration");
    REQUIRE(entry->txtLength == model.txtLength && entry->port == model.port,
            "an entry has the numbers that it was registered with");
    REQUIRE(entry->txt == model.txt, "an entry refers to the text that it was registered with");
    REQUIRE(CoveredText(entry->txt, entry->txtLength) == model.text,
            "a text stays alive and unchanged while an entry refers to it");
    previous = entry;
    entry = entry->next;
  }
  REQUIRE(entry == nullptr, "the registry holds no service beyond those registered");
}

void RegistryModel::Purge() {
  while (ServiceLookup("", "", "") != 0)
    ServiceRegistryUpdate(SERVICE_REMOVE, "", "", "", nullptr, 0, 0);
  entries.clear();
  RequireSame();
}

uint32_t ModelValidate(const std::string& name, const std::string& type, const std::string& domain,
                       bool hasText, int32_t txtLength, uint32_t port) {
  if (name.empty() || name.size() > 128 || type.size() > 32 || domain != ".local") return 0;
  const size_t dot = type.find('.');
  if (type.find('_') != 0 || dot == std::string::npos || dot < 2) return 0;
  if (type.find('_', dot) != dot + 1) return 0;
  if (txtLength < 0 || (hasText && txtLength == 0)) return 0;
  return port <= 65535 ? 1 : 0;
}

std::string DottedText(uint32_t address) {
  if (address == 0xFFFFFFFF) return "";
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
         std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}
