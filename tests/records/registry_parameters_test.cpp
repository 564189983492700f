// ValidateServiceParams: what a service must look like to be registered.
#include <gtest/gtest.h>

#include <string>

#include "records/registry.h"
#include "tests/support/output.h"

namespace {

struct ParametersRow {
  const char* behaviour;
  std::string name;
  std::string type;
  std::string domain;
  const char* txt;
  int32_t txtLength;
  uint32_t port;
  uint32_t result;
  const char* output;
};

class ServiceParametersTest : public testing::TestWithParam<ParametersRow> {};

const char kNameRefused[] = "[Bonjour] serviceName Length\n";
const char kTypeRefused[] = "[Bonjour] SRVTYPE_NAME_MAX Length\n";
const char kDomainTooLong[] = "[Bonjour] SRVTYPE_DOMAIN_MAX Length\n";
const char kDomainRefused[] = "[Bonjour] sorry, we now only support '.local' service domain\n";

const std::string kName128(128, 'n');
const ParametersRow kParametersRows[] = {
    {"Ipp", "Office", "_ipp._tcp", ".local", "a", 1, 631, 1, ""},
    {"NameOf128", kName128, "_ipp._tcp", ".local", "a", 1, 631, 1, ""},
    {"NameOf129", kName128 + "n", "_ipp._tcp", ".local", "a", 1, 631, 0, kNameRefused},
    {"NameOf1", "n", "_ipp._tcp", ".local", "a", 1, 631, 1, ""},
    {"EmptyName", "", "_ipp._tcp", ".local", "a", 1, 631, 0, kNameRefused},
    {"TypeOf32", "n", "_ipp._" + std::string(26, 't'), ".local", "a", 1, 631, 1, ""},
    {"TypeOf33", "n", "_ipp._" + std::string(27, 't'), ".local", "a", 1, 631, 0, kTypeRefused},
    {"DomainOf33", "n", "_ipp._tcp", "." + std::string(32, 'l'), "a", 1, 631, 0, kDomainTooLong},
    {"DomainOf32", "n", "_ipp._tcp", "." + std::string(31, 'l'), "a", 1, 631, 0, kDomainRefused},
    {"TypeWithoutUnderscore", "n", "ipp._tcp", ".local", "a", 1, 631, 0, ""},
    {"TypeWithAnUnderscoreLater", "n", "i_pp._tcp", ".local", "a", 1, 631, 0, ""},
    {"TypeOfAnUnderscoreAlone", "n", "_._tcp", ".local", "a", 1, 631, 0, ""},
    {"TypeOfOneLetter", "n", "_i._tcp", ".local", "a", 1, 631, 1, ""},
    {"ProtocolWithoutUnderscore", "n", "_ipp.tcp", ".local", "a", 1, 631, 0, ""},
    {"ProtocolWithAnUnderscoreLater", "n", "_ipp.t_cp", ".local", "a", 1, 631, 0, ""},
    {"ProtocolOfAnUnderscoreAlone", "n", "_ipp._", ".local", "a", 1, 631, 1, ""},
    {"ProtocolOfAnyText", "n", "_ipp._sub.x", ".local", "a", 1, 631, 1, ""},
    {"TypeWithoutDot", "n", "_ipp", ".local", "a", 1, 631, 0, ""},
    {"TypeThatEndsInItsDot", "n", "_ipp.", ".local", "a", 1, 631, 0, ""},
    {"EmptyType", "n", "", ".local", "a", 1, 631, 0, ""},
    {"DomainWithoutDot", "n", "_ipp._tcp", "local", "a", 1, 631, 0, kDomainRefused},
    {"DomainInUpperCase", "n", "_ipp._tcp", ".LOCAL", "a", 1, 631, 0, kDomainRefused},
    {"DomainWithTrailingDot", "n", "_ipp._tcp", ".local.", "a", 1, 631, 0, kDomainRefused},
    {"EmptyDomain", "n", "_ipp._tcp", "", "a", 1, 631, 0, kDomainRefused},
    {"TextOfNoLength", "n", "_ipp._tcp", ".local", "a", 0, 631, 0, ""},
    {"EmptyTextOfNoLength", "n", "_ipp._tcp", ".local", "", 0, 631, 0, ""},
    {"NoText", "n", "_ipp._tcp", ".local", nullptr, 0, 631, 1, ""},
    {"NoTextWithALength", "n", "_ipp._tcp", ".local", nullptr, 5, 631, 1, ""},
    {"NegativeLength", "n", "_ipp._tcp", ".local", "a", -1, 631, 0, ""},
    {"NegativeLengthWithoutText", "n", "_ipp._tcp", ".local", nullptr, -1, 631, 0, ""},
    {"Port0", "n", "_ipp._tcp", ".local", "a", 1, 0, 1, ""},
    {"Port65535", "n", "_ipp._tcp", ".local", "a", 1, 65535, 1, ""},
    {"Port65536", "n", "_ipp._tcp", ".local", "a", 1, 65536, 0, ""},
    {"PortIsUnsigned", "n", "_ipp._tcp", ".local", "a", 1, 0xFFFFFFFF, 0, ""},
    // The first check that fails decides.
    {"NameBeforeType", "", std::string(33, 't'), ".local", "a", 1, 631, 0, kNameRefused},
    {"TypeLengthBeforeDomainLength", "n", std::string(33, 't'), std::string(33, 'd'), "a", 1, 631,
     0, kTypeRefused},
    {"DomainLengthBeforeTypeForm", "n", "ipp", std::string(33, 'd'), "a", 1, 631, 0,
     kDomainTooLong},
    {"TypeFormBeforeDomain", "n", "ipp", "local", "a", 1, 631, 0, ""},
    {"DomainBeforeText", "n", "_ipp._tcp", "local", "a", -1, 631, 0, kDomainRefused},
    {"DomainBeforePort", "n", "_ipp._tcp", "local", "a", 1, 65536, 0, kDomainRefused},
};

INSTANTIATE_TEST_SUITE_P(Checks, ServiceParametersTest, testing::ValuesIn(kParametersRows),
                         [](const auto& row) { return std::string(row.param.behaviour); });

TEST_P(ServiceParametersTest, AreAcceptedOrRefused) {
  const ParametersRow& row = GetParam();
  const std::string out = StdoutOf([&] {
    EXPECT_EQ(ValidateServiceParams(row.name.c_str(), row.type.c_str(), row.domain.c_str(), row.txt,
                                    row.txtLength, row.port),
              row.result);
  });
  EXPECT_EQ(out, row.output);
}

}  // namespace
