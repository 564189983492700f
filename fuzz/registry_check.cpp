// What is true of the registry at any time.
#include "fuzz/registry_check.h"

#include <cstring>
#include <string>

#include "fuzz/check.h"

namespace {

template <size_t kSize>
bool IsZeroFilledText(const char (&field)[kSize]) {
  std::string text(field, strnlen(field, kSize));
  if (text.size() == kSize) return false;
  text.resize(kSize);
  return text == std::string(field, kSize);
}

}  // namespace

std::vector<ServiceEntry> RequireSoundRegistry() {
  std::vector<ServiceEntry> entries;
  const RegistryLock lock;
  const ServiceEntry* previous = nullptr;
  for (const ServiceEntry* entry = responderState.registryHead; entry != nullptr;
       entry = entry->next) {
    REQUIRE(entry->previous == previous, "an entry is linked to the one before it");
    REQUIRE(IsZeroFilledText(entry->serviceName) && IsZeroFilledText(entry->serviceType) &&
                IsZeroFilledText(entry->serviceDomain),
            "a text ends inside its field, with zeros after it");
    // Reads the text: one that was freed meanwhile is an error that AddressSanitizer sees.
    REQUIRE(entry->txt == nullptr || strlen(entry->txt) <= UINT16_MAX, "a text has its end");
    entries.push_back(*entry);
    previous = entry;
  }
  return entries;
}

void EmptyRegistry() {
  while (ServiceRegistryUpdate(SERVICE_REMOVE, "", "", "", nullptr, 0, 0) != 0) {
  }
  REQUIRE(RequireSoundRegistry().empty(), "the registry is empty once nothing can be removed");
}
