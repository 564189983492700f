// The list of registered services: addition, lookup, removal, and its end.
#include "records/registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/fault.h"
#include "tests/support/output.h"
#include "tests/support/registry.h"

namespace {

using testing::ElementsAre;

uint32_t Add(const std::string& name, const char* type = "_ipp._tcp",
             const char* domain = ".local") {
  return ServiceRegistryUpdate(1, name.c_str(), type, domain, nullptr, 0, 631);
}

uint32_t Remove(const char* name, const char* type = "_ipp._tcp", const char* domain = ".local") {
  return ServiceRegistryUpdate(0, name, type, domain, nullptr, 0, 0);
}

// The names from the head on; empty as well when a link back is wrong.
std::vector<std::string> Names() {
  const RegistryLock lock;
  std::vector<std::string> names;
  const ServiceEntry* previous = nullptr;
  for (const ServiceEntry* entry = responderState.registryHead; entry != nullptr;
       entry = entry->next) {
    if (entry->previous != previous) return {};
    names.emplace_back(entry->serviceName);
    previous = entry;
  }
  return names;
}

class RegistryTest : public testing::Test {
 protected:
  ~RegistryTest() override { EmptyRegistry(); }
};

TEST_F(RegistryTest, CutsTextsThatAreTooLong) {
  EXPECT_EQ(Add(std::string(127, 'n') + "yz", (std::string(31, 't') + "yz").c_str(),
                (std::string(31, 'd') + "yz").c_str()),
            1u);
  ServiceEntry entry;
  ASSERT_FALSE(CloseRegistryIfEmpty(entry));
  EXPECT_EQ(std::string(entry.serviceName), std::string(127, 'n') + "y");
  EXPECT_EQ(std::string(entry.serviceType), std::string(31, 't') + "y");
  EXPECT_EQ(std::string(entry.serviceDomain), std::string(31, 'd') + "y");
}

TEST_F(RegistryTest, WhatBeginsLikeAnEntryOfTheRegistryIsRefused) {
  EXPECT_EQ(Add("Office"), 1u);
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Add("Off", "_ipp", ".l"), 0u); }),
            "[Bonjour] this service: Off _ipp .l is already registered\n");
  EXPECT_EQ(Add("Office2"), 1u);
  EXPECT_EQ(Add("Office", "_pdl-datastream._tcp"), 1u);
  EXPECT_THAT(Names(), ElementsAre("Office", "Office2", "Office"));
}

TEST_F(RegistryTest, WithoutMemoryNothingIsAdded) {
  Add("first");
  CapturedOutput output;
  callocFault.FailCall(1);
  EXPECT_EQ(Add("second"), 0u);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "");
  EXPECT_THAT(Names(), ElementsAre("first"));
}

TEST_F(RegistryTest, LookupComparesEachTextByPrefix) {
  struct Row {
    const char* name;
    const char* type;
    const char* domain;
    uint32_t result;
  };
  EXPECT_EQ(ServiceLookup("", "", ""), 0u);
  Add("Office");
  Add("Second");
  Add("Third", "_pdl-datastream._tcp");
  for (const Row& row :
       {Row{"Office", "_ipp._tcp", ".local", 1}, Row{"Off", "_ipp", ".lo", 1}, Row{"", "", "", 1},
        Row{"Office2", "_ipp._tcp", ".local", 0}, Row{"Office", "_ipp._tcp.x", ".local", 0},
        Row{"Office", "_ipp._tcp", ".local.", 0}, Row{"office", "_ipp._tcp", ".local", 0},
        Row{"Second", "_ipp._tcp", ".local", 1}, Row{"Second", "_pdl", "", 0}}) {
    EXPECT_EQ(ServiceLookup(row.name, row.type, row.domain), row.result)
        << row.name << row.type << row.domain;
  }
}

TEST_F(RegistryTest, RemovesAnEntryFromAnyPlace) {
  for (const char* name : {"a", "b", "c", "d"}) Add(name);
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Remove("b"), 1u); }), "");
  EXPECT_THAT(Names(), ElementsAre("a", "c", "d"));
  EXPECT_EQ(Remove("a"), 1u);
  EXPECT_THAT(Names(), ElementsAre("c", "d"));
  EXPECT_EQ(Remove("d"), 1u);
  Add("e");
  EXPECT_THAT(Names(), ElementsAre("c", "e"));
  Remove("e");
  EXPECT_EQ(Remove("c"), 1u);
  EXPECT_THAT(Names(), ElementsAre());
}

TEST_F(RegistryTest, RemovesTheFirstEntryThatBeginsWithTheKey) {
  for (const char* name : {"Scanner", "PrinterB", "PrinterA"}) Add(name);
  EXPECT_EQ(Remove("Printer"), 1u);
  EXPECT_THAT(Names(), ElementsAre("Scanner", "PrinterA"));
}

TEST_F(RegistryTest, UnknownOperationsDoNothingAndSucceed) {
  Add("a");
  for (const uint32_t operation : {2u, 0xFFFFFFFFu}) {
    EXPECT_EQ(ServiceRegistryUpdate(operation, "a", "_ipp._tcp", ".local", nullptr, 0, 1), 1u);
    EXPECT_EQ(ServiceRegistryUpdate(operation, "b", "_ipp._tcp", ".local", nullptr, 0, 1), 1u);
  }
  EXPECT_THAT(Names(), ElementsAre("a"));
}

TEST_F(RegistryTest, TextIsRegisteredWhileAnEntryRefersToIt) {
  const std::string first = "same";
  const std::string second = "same";
  EXPECT_FALSE(IsTextRegistered(first.c_str()));
  Add("other");
  ServiceRegistryUpdate(SERVICE_ADD, "a", "_ipp._tcp", ".local", first.c_str(), 4, 631);
  EXPECT_TRUE(IsTextRegistered(first.c_str()));
  EXPECT_FALSE(IsTextRegistered(second.c_str()));
  Remove("a");
  EXPECT_FALSE(IsTextRegistered(first.c_str()));
}

TEST_F(RegistryTest, EntriesComeAndGoWhileOthersLook) {
  Add("keep");
  std::atomic<bool> isWriting{true};
  std::thread writer([&] {
    for (int round = 0; round < 300; ++round) {
      EXPECT_EQ(Add("other"), 1u);
      EXPECT_EQ(Remove("other"), 1u);
    }
    isWriting = false;
  });
  while (isWriting) {
    EXPECT_EQ(ServiceLookup("keep", "_ipp._tcp", ".local"), 1u);
    EXPECT_FALSE(Names().empty());
    EXPECT_TRUE(IsTextRegistered(nullptr));
    ServiceEntry first;
    EXPECT_FALSE(CloseRegistryIfEmpty(first));
    EXPECT_STREQ(first.serviceName, "keep");
  }
  writer.join();
  EXPECT_THAT(Names(), ElementsAre("keep"));
}

TEST_F(RegistryTest, ServiceThatGoesBeforeItsRemovalIsNotRemovedTwice) {
  Add("Office");
  Add("keep");
  onNextLock = [] {
    // The look for the entry is over when the removal comes to this lock.
    onNextLock = [] { EXPECT_EQ(Remove("Office"), 1u); };
  };
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Remove("Office"), 0u); }), "");
  EXPECT_THAT(Names(), ElementsAre("keep"));
}

// The end of the registry

// These close the registry, which lasts for the rest of the process.
TEST(RegistryCloseTest, ClosedRegistryTakesNoEntryAndLeavesItsMutexAlone) {
  ServiceEntry copy;
  EXPECT_TRUE(CloseRegistryIfEmpty(copy));
  DestroyRegistry();
  onNextLock = [] { ADD_FAILURE(); };
  EXPECT_FALSE(RegistryLock().IsOpen());
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Add("late"), 0u); }), "");
  EXPECT_EQ(ServiceLookup("", "", ""), 0u);
  EXPECT_FALSE(IsTextRegistered(nullptr));
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Remove("late"), 0u); }),
            "[Bonjour] this service: late _ipp._tcp .local is not registered\n");
  EXPECT_TRUE(CloseRegistryIfEmpty(copy));
  onNextLock = nullptr;
}

TEST(RegistryCloseTest, AdderThatWaitedForTheMutexIsTurnedAwayBeforeTheMutexIsDestroyed) {
  static std::atomic<bool> waits{false};
  static std::atomic<bool> mayGo{false};
  onNextLock = [] {
    // The look for a duplicate is over when the adder comes to this lock.
    onNextLock = [] {
      ServiceEntry copy;
      EXPECT_TRUE(CloseRegistryIfEmpty(copy));
      waits = true;
      while (!mayGo) std::this_thread::yield();
    };
  };
  std::thread adder([] { EXPECT_EQ(Add("late"), 0u); });
  while (!waits) std::this_thread::yield();
  onUsleep = [](unsigned microseconds) {
    EXPECT_EQ(microseconds, 1000u);
    mayGo = true;
    std::this_thread::yield();
  };
  DestroyRegistry();
  EXPECT_TRUE(mayGo);
  onUsleep = nullptr;
  adder.join();
  EXPECT_THAT(Names(), ElementsAre());
}

}  // namespace
