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
  ~RegistryTest() override {
    StdoutOf([] {
      while (Remove("", "", "") != 0) {
      }
    });
  }
};

TEST_F(RegistryTest, IsEmptyAtFirst) { EXPECT_THAT(Names(), ElementsAre()); }

// Addition

TEST_F(RegistryTest, KeepsTheOrderOfRegistration) {
  for (const char* name : {"b", "a", "c"}) EXPECT_EQ(Add(name), 1u);
  EXPECT_THAT(Names(), ElementsAre("b", "a", "c"));
}

TEST_F(RegistryTest, StoresEveryParameter) {
  const char txt[] = "txtvers=1";
  EXPECT_EQ(ServiceRegistryUpdate(SERVICE_ADD, "Office", "_ipp._tcp", ".local", txt, 9, 65535), 1u);
  ServiceEntry entry;
  ASSERT_FALSE(CloseRegistryIfEmpty(entry));
  EXPECT_STREQ(entry.serviceName, "Office");
  EXPECT_STREQ(entry.serviceType, "_ipp._tcp");
  EXPECT_STREQ(entry.serviceDomain, ".local");
  EXPECT_EQ(entry.txt, txt);
  EXPECT_EQ(entry.txtLength, 9);
  EXPECT_EQ(entry.port, 65535u);
  EXPECT_EQ(entry.previous, nullptr);
  EXPECT_EQ(entry.next, nullptr);
}

TEST_F(RegistryTest, CutsTextsThatAreTooLong) {
  EXPECT_EQ(ServiceRegistryUpdate(SERVICE_ADD, (std::string(127, 'n') + "yz").c_str(),
                                  (std::string(31, 't') + "yz").c_str(),
                                  (std::string(31, 'd') + "yz").c_str(), nullptr, 0, 1),
            1u);
  ServiceEntry entry;
  ASSERT_FALSE(CloseRegistryIfEmpty(entry));
  EXPECT_EQ(std::string(entry.serviceName), std::string(127, 'n') + "y");
  EXPECT_EQ(std::string(entry.serviceType), std::string(31, 't') + "y");
  EXPECT_EQ(std::string(entry.serviceDomain), std::string(31, 'd') + "y");
}

TEST_F(RegistryTest, SameKeyTwiceIsRefused) {
  EXPECT_EQ(Add("Office"), 1u);
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Add("Office"), 0u); }),
            "[Bonjour] this service: Office _ipp._tcp .local is already registered\n");
  EXPECT_THAT(Names(), ElementsAre("Office"));
}

TEST_F(RegistryTest, PrefixOfAnEntryIsRefused) {
  EXPECT_EQ(Add("Office"), 1u);
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Add("Off", "_ipp", ".l"), 0u); }),
            "[Bonjour] this service: Off _ipp .l is already registered\n");
}

TEST_F(RegistryTest, ExtensionOfAnEntryIsAdded) {
  EXPECT_EQ(Add("Office"), 1u);
  EXPECT_EQ(Add("Office2"), 1u);
  EXPECT_THAT(Names(), ElementsAre("Office", "Office2"));
}

TEST_F(RegistryTest, SameNameOfAnotherTypeIsAdded) {
  EXPECT_EQ(Add("Office"), 1u);
  EXPECT_EQ(Add("Office", "_pdl-datastream._tcp"), 1u);
  EXPECT_THAT(Names(), ElementsAre("Office", "Office"));
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

// Lookup

struct LookupRow {
  const char* behaviour;
  const char* name;
  const char* type;
  const char* domain;
  uint32_t result;
};

class ServiceLookupTest : public RegistryTest, public testing::WithParamInterface<LookupRow> {};

INSTANTIATE_TEST_SUITE_P(Keys, ServiceLookupTest,
                         testing::ValuesIn(std::initializer_list<LookupRow>{
                             {"WholeKey", "Office", "_ipp._tcp", ".local", 1},
                             {"PrefixOfTheName", "Off", "_ipp._tcp", ".local", 1},
                             {"PrefixOfTheType", "Office", "_ipp._tc", ".local", 1},
                             {"PrefixOfTheDomain", "Office", "_ipp._tcp", ".lo", 1},
                             {"EmptyTexts", "", "", "", 1},
                             {"LongerName", "Office2", "_ipp._tcp", ".local", 0},
                             {"LongerType", "Office", "_ipp._tcp.x", ".local", 0},
                             {"LongerDomain", "Office", "_ipp._tcp", ".local.", 0},
                             {"OtherName", "Lab", "_ipp._tcp", ".local", 0},
                             {"OtherType", "Office", "_printer._tcp", ".local", 0},
                             {"OtherDomain", "Office", "_ipp._tcp", ".lan", 0},
                             {"OtherCase", "office", "_ipp._tcp", ".local", 0},
                             {"SecondEntry", "Second", "_ipp._tcp", ".local", 1},
                             {"NameOfOneAndTypeOfAnother", "Second", "_pdl", ".local", 0},
                         }),
                         [](const auto& row) { return std::string(row.param.behaviour); });

TEST_P(ServiceLookupTest, ComparesByPrefix) {
  const LookupRow& row = GetParam();
  Add("Office");
  Add("Second");
  Add("Third", "_pdl-datastream._tcp");
  EXPECT_EQ(ServiceLookup(row.name, row.type, row.domain), row.result);
}

TEST_F(RegistryTest, LookupInAnEmptyRegistryFindsNothing) {
  EXPECT_EQ(ServiceLookup("", "", ""), 0u);
}

// Removal

TEST_F(RegistryTest, RemovesTheOnlyEntry) {
  Add("a");
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Remove("a"), 1u); }), "");
  EXPECT_THAT(Names(), ElementsAre());
}

TEST_F(RegistryTest, RemovesTheFirstOfThree) {
  for (const char* name : {"a", "b", "c"}) Add(name);
  EXPECT_EQ(Remove("a"), 1u);
  EXPECT_THAT(Names(), ElementsAre("b", "c"));
}

TEST_F(RegistryTest, RemovesTheMiddleOfThree) {
  for (const char* name : {"a", "b", "c"}) Add(name);
  EXPECT_EQ(Remove("b"), 1u);
  EXPECT_THAT(Names(), ElementsAre("a", "c"));
}

TEST_F(RegistryTest, RemovesTheLastOfThreeAndAppendsAfterTheSecond) {
  for (const char* name : {"a", "b", "c"}) Add(name);
  EXPECT_EQ(Remove("c"), 1u);
  EXPECT_EQ(Add("d"), 1u);
  EXPECT_THAT(Names(), ElementsAre("a", "b", "d"));
}

TEST_F(RegistryTest, RemovesTheFirstEntryThatBeginsWithTheKey) {
  for (const char* name : {"Scanner", "PrinterB", "PrinterA"}) Add(name);
  EXPECT_EQ(Remove("Printer"), 1u);
  EXPECT_THAT(Names(), ElementsAre("Scanner", "PrinterA"));
}

TEST_F(RegistryTest, RemovingFromAnEmptyRegistryIsReported) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Remove("a"), 0u); }),
            "[Bonjour] this service: a _ipp._tcp .local is not registered\n");
}

TEST_F(RegistryTest, RemovingAnUnknownServiceIsReported) {
  Add("a");
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Remove("a", "_printer._tcp"), 0u); }),
            "[Bonjour] this service: a _printer._tcp .local is not registered\n");
  EXPECT_THAT(Names(), ElementsAre("a"));
}

TEST_F(RegistryTest, UnknownOperationsDoNothingAndSucceed) {
  Add("a");
  for (const uint32_t operation : {2u, 3u, 0xFFFFFFFFu}) {
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
  ServiceRegistryUpdate(SERVICE_ADD, "b", "_ipp._tcp", ".local", first.c_str(), 4, 631);
  EXPECT_TRUE(IsTextRegistered(first.c_str()));
  EXPECT_FALSE(IsTextRegistered(second.c_str()));
  Remove("a");
  EXPECT_TRUE(IsTextRegistered(first.c_str()));
  Remove("b");
  EXPECT_FALSE(IsTextRegistered(first.c_str()));
}

// Several threads at a time

TEST_F(RegistryTest, SameKeyFromTwoThreadsIsAddedAtLeastOnce) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<uint32_t> added{0};
    std::atomic<int> ready{0};
    const auto add = [&] {
      ++ready;
      while (ready < 2) std::this_thread::yield();
      added += Add("Office");
    };
    StdoutOf([&] {
      std::thread other(add);
      add();
      other.join();
    });
    const uint32_t stored = static_cast<uint32_t>(Names().size());
    EXPECT_GE(stored, 1u);
    EXPECT_EQ(stored, added.load());
    for (uint32_t i = 0; i < stored; ++i) EXPECT_EQ(Remove("Office"), 1u);
    EXPECT_THAT(Names(), ElementsAre());
  }
}

TEST_F(RegistryTest, SameKeyRemovedFromTwoThreadsGoesOnce) {
  for (int round = 0; round < 200; ++round) {
    Add("keep");
    Add("Office");
    std::atomic<uint32_t> removed{0};
    std::atomic<int> ready{0};
    const auto remove = [&] {
      ++ready;
      while (ready < 2) std::this_thread::yield();
      removed += Remove("Office");
    };
    StdoutOf([&] {
      std::thread other(remove);
      remove();
      other.join();
    });
    EXPECT_EQ(removed.load(), 1u);
    EXPECT_THAT(Names(), ElementsAre("keep"));
    Remove("keep");
  }
}

TEST_F(RegistryTest, EntriesComeAndGoWhileOthersLook) {
  constexpr int kWriters = 2;
  constexpr int kRounds = 300;
  Add("keep");
  std::atomic<int> writing{kWriters};
  std::vector<std::thread> threads;
  const std::string out = StdoutOf([&] {
    for (int writer = 0; writer < kWriters; ++writer) {
      threads.emplace_back([&, writer] {
        const std::string name = "writer" + std::to_string(writer);
        for (int round = 0; round < kRounds; ++round) {
          EXPECT_EQ(Add(name), 1u);
          EXPECT_EQ(Remove(name.c_str()), 1u);
        }
        --writing;
      });
    }
    threads.emplace_back([&] {
      while (writing > 0) {
        EXPECT_EQ(ServiceLookup("keep", "_ipp._tcp", ".local"), 1u);
        EXPECT_FALSE(Names().empty());
        EXPECT_TRUE(IsTextRegistered(nullptr));
        ServiceEntry first;
        EXPECT_FALSE(CloseRegistryIfEmpty(first));
        EXPECT_STREQ(first.serviceName, "keep");
      }
    });
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(out, "");
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

TEST_F(RegistryTest, StaysOpenWhileAnEntryIsLeftAndCopiesTheFirst) {
  Add("a");
  Add("b");
  ServiceEntry first{};
  EXPECT_FALSE(CloseRegistryIfEmpty(first));
  EXPECT_STREQ(first.serviceName, "a");
  EXPECT_TRUE(RegistryLock().IsOpen());
  EXPECT_EQ(Add("c"), 1u);
  EXPECT_THAT(Names(), ElementsAre("a", "b", "c"));
}

// These close the registry, which lasts for the rest of the process.
TEST(RegistryCloseTest, ClosedRegistryTakesNoEntry) {
  ServiceEntry copy;
  EXPECT_TRUE(CloseRegistryIfEmpty(copy));
  EXPECT_FALSE(RegistryLock().IsOpen());
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Add("late"), 0u); }), "");
  EXPECT_EQ(ServiceLookup("", "", ""), 0u);
  EXPECT_FALSE(IsTextRegistered(nullptr));
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Remove("late"), 0u); }),
            "[Bonjour] this service: late _ipp._tcp .local is not registered\n");
  EXPECT_TRUE(CloseRegistryIfEmpty(copy));
}

TEST(RegistryCloseTest, ClosingWhileAnAdderWaitsForTheMutexTurnsItAway) {
  onNextLock = [] {
    // The look for a duplicate is over when the adder comes to this lock.
    onNextLock = [] {
      ServiceEntry copy;
      EXPECT_TRUE(CloseRegistryIfEmpty(copy));
    };
  };
  EXPECT_EQ(Add("late"), 0u);
  EXPECT_EQ(onNextLock.load(), nullptr);
  EXPECT_THAT(Names(), ElementsAre());
  DestroyRegistry();
}

TEST(RegistryCloseTest, MutexIsDestroyedWhenTheAdderThatWaitedForItHasGone) {
  static std::atomic<bool> waits{false};
  static std::atomic<bool> mayGo{false};
  onNextLock = [] {
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
}

TEST(RegistryCloseTest, LateUsersLeaveADestroyedMutexAlone) {
  constexpr int kUsers = 3;
  std::atomic<bool> stop{false};
  std::atomic<int> running{0};
  std::vector<std::thread> users;
  const std::string out = StdoutOf([&] {
    for (int user = 0; user < kUsers; ++user) {
      users.emplace_back([&, user] {
        const std::string name = "user" + std::to_string(user);
        bool counted = false;
        while (!stop) {
          Add(name);
          ServiceLookup(name.c_str(), "_ipp", ".local");
          IsTextRegistered("");
          Remove(name.c_str());
          if (!counted) ++running;
          counted = true;
        }
      });
    }
    while (running < kUsers) std::this_thread::yield();
    ServiceEntry first;
    while (!CloseRegistryIfEmpty(first)) Remove(first.serviceName);
    DestroyRegistry();
    EXPECT_EQ(Add("late"), 0u);
    stop = true;
    for (std::thread& user : users) user.join();
  });
  EXPECT_THAT(Names(), ElementsAre());
}

}  // namespace
