#include "base/service_kinds.h"

#include <gtest/gtest.h>

namespace {

TEST(ServiceKinds, HaveTheirTypeLabelAndPort) {
  const struct {
    int32_t kind;
    const char* label;
    const char* type;
    uint16_t tcpPort;
  } rows[] = {{1, "_pdl-datastream", "_pdl-datastream._tcp", 9100},
              {2, "_ipp", "_ipp._tcp", 631},
              {3, "_printer", "_printer._tcp", 515}};
  for (const auto& row : rows) {
    const ServiceKind* service = FindServiceKind(row.kind);
    ASSERT_NE(service, nullptr);
    EXPECT_STREQ(service->type, row.type);
    EXPECT_EQ(service->Label(), row.label);
    EXPECT_EQ(service->tcpPort, row.tcpPort);
    EXPECT_TRUE(IsPrinterLabel(row.label));
  }
}

TEST(ServiceKinds, OthersDoNotExist) {
  for (const int32_t kind : {0, 4, -1}) EXPECT_EQ(FindServiceKind(kind), nullptr);
  for (const char* label : {"", "_ip", "_ipps", "_IPP", "_pdl-datastream._tcp"}) {
    EXPECT_FALSE(IsPrinterLabel(label)) << label;
  }
}

TEST(ServiceKinds, OnlyIppHasTheUniversalSubtype) {
  EXPECT_TRUE(HasUniversalSubtype("_ipp._tcp"));
  for (const char* type : {"_pdl-datastream._tcp", "_printer._tcp", "_ipp._tc", "_ipp._tcp."}) {
    EXPECT_FALSE(HasUniversalSubtype(type)) << type;
  }
  EXPECT_STREQ(kUniversalSubtype, "_universal._sub._ipp._tcp.local");
  EXPECT_STREQ(kUniversalSubtypeLabel, "_universal");
}

}  // namespace
