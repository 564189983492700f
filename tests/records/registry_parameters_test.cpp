// ValidateServiceParams: what a service must look like to be registered.
#include <gtest/gtest.h>

#include <string>

#include "records/registry.h"
#include "tests/support/output.h"

namespace {

constexpr char kNameRefused[] = "[Bonjour] serviceName Length\n";
constexpr char kTypeRefused[] = "[Bonjour] SRVTYPE_NAME_MAX Length\n";
constexpr char kDomainTooLong[] = "[Bonjour] SRVTYPE_DOMAIN_MAX Length\n";
constexpr char kDomainRefused[] = "[Bonjour] sorry, we now only support '.local' service domain\n";

const std::string k33Letters(33, 'x');

struct Parameters {
  std::string name = "n";
  std::string type = "_ipp._tcp";
  std::string domain = ".local";
  const char* txt = "a";
  int32_t txtLength = 1;
  uint32_t port = 631;
};

struct ParametersRow {
  const char* behaviour;
  Parameters parameters;
  uint32_t result = 0;
  const char* output = "";
};

const ParametersRow kParametersRows[] = {
    {"a usual service", {}, 1},
    {"a name of 128", {.name = std::string(128, 'n')}, 1},
    {"a name of 129", {.name = std::string(129, 'n')}, 0, kNameRefused},
    {"no name", {.name = ""}, 0, kNameRefused},
    {"a type of 32", {.type = "_ipp._" + std::string(26, 't')}, 1},
    {"a type of 33", {.type = "_ipp._" + std::string(27, 't')}, 0, kTypeRefused},
    {"a domain of 32", {.domain = "." + std::string(31, 'l')}, 0, kDomainRefused},
    {"a domain of 33", {.domain = "." + std::string(32, 'l')}, 0, kDomainTooLong},
    {"no type", {.type = ""}},
    {"a type without its underscore", {.type = "ipp._tcp"}},
    {"a type of an underscore alone", {.type = "_._tcp"}},
    {"a type of one letter", {.type = "_i._tcp"}, 1},
    {"a type without a dot", {.type = "_ipp"}},
    {"a type that ends in its dot", {.type = "_ipp."}},
    {"a protocol without its underscore", {.type = "_ipp.t_cp"}},
    {"a protocol of an underscore alone", {.type = "_ipp._"}, 1},
    {"a domain without its dot", {.domain = "local"}, 0, kDomainRefused},
    {"a domain with one more dot", {.domain = ".local."}, 0, kDomainRefused},
    {"a text of no length", {.txtLength = 0}},
    {"no text", {.txt = nullptr, .txtLength = 0}, 1},
    {"no text with a length", {.txt = nullptr, .txtLength = 5}, 1},
    {"a negative length", {.txtLength = -1}},
    {"a negative length without a text", {.txt = nullptr, .txtLength = -1}},
    {"the last port", {.port = 65535}, 1},
    {"a port beyond the last", {.port = 65536}},
    // The first check that fails decides.
    {"name before type", {.name = "", .type = k33Letters}, 0, kNameRefused},
    {"type before domain", {.type = k33Letters, .domain = k33Letters}, 0, kTypeRefused},
    {"lengths before forms", {.type = "ipp", .domain = k33Letters}, 0, kDomainTooLong},
    {"the type's form before the domain", {.type = "ipp", .domain = "local"}},
    {"domain before text", {.domain = "local", .txtLength = -1}, 0, kDomainRefused},
};

TEST(ServiceParameters, AreAcceptedOrRefused) {
  for (const ParametersRow& row : kParametersRows) {
    SCOPED_TRACE(row.behaviour);
    const std::string out = StdoutOf([&] {
      const auto& [name, type, domain, txt, txtLength, port] = row.parameters;
      EXPECT_EQ(
          ValidateServiceParams(name.c_str(), type.c_str(), domain.c_str(), txt, txtLength, port),
          row.result);
    });
    EXPECT_EQ(out, row.output);
  }
}

}  // namespace
