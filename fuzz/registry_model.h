// What the registry should hold, and what registering and unregistering should send.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/record_model.h"

/// A service that should be registered.
struct ModelEntry {
  std::string name;
  std::string type;
  std::string domain;
  const char* txt;   ///< the reference that was handed over; null where there is none
  std::string text;  ///< what it refers to, cut to txtLength
  int32_t txtLength;
  uint32_t port;
};

/// The registry as a plain sequence. Its operations give the results that the real ones should, and
/// look at the packets that those handed to the fake sender.
class RegistryModel {
 public:
  std::vector<ModelEntry> entries;  ///< in the order of registration

  /// The index of the first entry whose texts begin with these; the number of entries if none.
  size_t Find(const std::string& name, const std::string& type, const std::string& domain) const;
  uint32_t Add(const std::string& name, const std::string& type, const std::string& domain,
               const char* txt, int32_t txtLength, uint32_t port);
  uint32_t Remove(const std::string& name, const std::string& type, const std::string& domain);
  /// To be called after the real operation.
  uint32_t Register(const std::string& name, const std::string& type, const std::string& domain,
                    const char* txt, int32_t txtLength, uint32_t port);
  /// As Register.
  uint32_t Unregister(const std::string& name, const std::string& type, const std::string& domain,
                      const char* txt, int32_t txtLength, uint32_t port);

  /// Requires that the registry is a well-linked list of these entries in this order, and that no
  /// packet has been sent that was not looked at.
  void RequireSame() const;
  /// Takes every entry out of the registry and out of the model.
  void Purge();
};

/// What ValidateServiceParams should return.
uint32_t ModelValidate(const std::string& name, const std::string& type, const std::string& domain,
                       bool hasText, int32_t txtLength, uint32_t port);

/// An address as dotted text; the empty text for 255.255.255.255. `address` is in host byte order.
std::string DottedText(uint32_t address);
