// The kinds of service under which a printer can be published: one table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/// Service kinds.
constexpr int32_t PRINTER_KIND_PDL = 1;  ///< raw print data
constexpr int32_t PRINTER_KIND_IPP = 2;
constexpr int32_t PRINTER_KIND_LPD = 3;

/// One kind of service (the names are those of the service name registry of RFC 6335).
struct ServiceKind {
  int32_t kind;         ///< PRINTER_KIND_...
  char type[21];        ///< service type
  uint8_t labelLength;  ///< characters of its first label
  uint16_t tcpPort;  ///< where jobs are taken; with raw print data, those of the printer on port 0

  /// The type's first label, for example "_ipp".
  constexpr std::string_view Label() const { return {type, labelLength}; }
};

constexpr ServiceKind kPdlService = {PRINTER_KIND_PDL, "_pdl-datastream._tcp", 15, 9100};
constexpr ServiceKind kIppService = {PRINTER_KIND_IPP, "_ipp._tcp", 4, 631};
constexpr ServiceKind kLpdService = {PRINTER_KIND_LPD, "_printer._tcp", 8, 515};
constexpr ServiceKind kServiceKinds[] = {kPdlService, kIppService, kLpdService};

/// The kind's row, null for a kind that does not exist.
inline const ServiceKind* FindServiceKind(int32_t kind) {
  for (const ServiceKind& service : kServiceKinds) {
    if (service.kind == kind) return &service;
  }
  return nullptr;
}

/// True when a service whose type begins with `label` is one of a printer.
inline bool IsPrinterLabel(std::string_view label) {
  for (const ServiceKind& service : kServiceKinds) {
    if (service.Label() == label) return true;
  }
  return false;
}

/// True when services of that type are also reachable under the subtype that any IPP client may
/// browse for, kUniversalSubtype.
inline bool HasUniversalSubtype(const char* type) { return strcmp(type, kIppService.type) == 0; }

/// That subtype's name and its first label.
constexpr char kUniversalSubtype[] = "_universal._sub._ipp._tcp.local";
constexpr char kUniversalSubtypeLabel[] = "_universal";
