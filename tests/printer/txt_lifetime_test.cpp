// How long the TXT texts of the monitor live: as long as an entry of the registry refers to them.
// The monitor runs over the real registration and registry.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <functional>
#include <string>

#include "mdns/state.h"
#include "printer/monitor.h"
#include "records/registration.h"
#include "records/registry.h"
#include "tests/support/fake_printer.h"
#include "tests/support/output.h"

// Of a sanitizer's run-time library, where there is one.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

constexpr char kModelA[] = "usblp0\nHP\nA\nPCL\n\n";
constexpr char kModelB[] = "usblp0\nHP\nB\nPCL\n\n";
constexpr char kNameA[] = "HP A (00:00:00) 0";

// Bytes that the process, which has one thread, holds of the heap.
size_t HeapBytesInUse() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    return __sanitizer_get_current_allocated_bytes();
  }
  return mallinfo2().uordblks;
}

// The model in the text of each entry, and the entry's name and type.
std::string Entries() {
  const RegistryLock lock;
  std::string entries;
  for (const ServiceEntry* entry = responderState.registryHead; entry != nullptr;
       entry = entry->next) {
    const std::string text(entry->txt, static_cast<size_t>(entry->txtLength));
    const size_t model = text.find("\nty=") + 4;
    entries += text.substr(model, text.find('\n', model) - model) + " in " + entry->serviceName +
               " " + entry->serviceType + "\n";
  }
  return entries;
}

constexpr char kEntriesA[] =
    "A in HP A (00:00:00) 0 _pdl-datastream._tcp\n"
    "A in HP A (00:00:00) 0 _ipp._tcp\n";

class TxtLifetime : public testing::Test {
 protected:
  TxtLifetime() {
    SetDeviceName("router");
    memset(hw_addr, 0, 6);
  }

  // The next passes of the monitor, each with what it reads. Returns what they log.
  std::string Pass(std::initializer_list<const char*> texts) {
    return StdoutOf([&] {
      for (const char* text : texts) {
        fakeStatusFile.text = text;
        PrinterPresence current = {};
        ScanPrinters(text, current);
        ApplyPresence(previous, current);
      }
    });
  }

  PrinterPresence previous = {};
};

TEST_F(TxtLifetime, ChangedModelLineLeavesTheOldEntryWithItsOldText) {
  EXPECT_EQ(Pass({kModelA, kModelB, ""}),
            "[Bonjour] device insert lp0\n"
            "[Bonjour] device remove lp0\n"
            "[Bonjour] this service: HP B (00:00:00) 0 _pdl-datastream._tcp .local is not "
            "registered\n"
            "[Bonjour] SERVICE_REMOVE error\n"
            "**********UnRegisterOneService error*************\n"
            "[Bonjour] this service: HP B (00:00:00) 0 _ipp._tcp .local is not registered\n"
            "[Bonjour] SERVICE_REMOVE error\n"
            "**********UnRegisterOneService error*************\n");
  EXPECT_EQ(Entries(), kEntriesA);
  // Printers that come and go meanwhile don't touch it.
  Pass({kModelB, "usblp0\nHP\nB\nPCL\n\nusblp1\nHP\nC\nPCL\n\n", ""});
  EXPECT_EQ(Entries(), kEntriesA);
}

// The passes of `round`, over and over, take no more than `allowed` bytes of the heap.
void ExpectNoGrowth(size_t allowed, const std::function<void()>& round) {
  for (int i = 0; i < 100; ++i) round();
  const size_t before = HeapBytesInUse();
  for (int i = 0; i < 1000; ++i) round();
  EXPECT_LE(HeapBytesInUse(), before + allowed);
}

TEST_F(TxtLifetime, InsertionsAndRemovalsTakeNoMemory) {
  ExpectNoGrowth(0, [this] { Pass({kModelA, ""}); });
}

TEST_F(TxtLifetime, TextOfAnOldEntryIsGivenBackAtTheNextRemovalAfterTheEntryHasGone) {
  ExpectNoGrowth(0, [this] {
    Pass({kModelA, kModelB, ""});
    StdoutOf([] {
      UnRegisterOneService(kNameA, "_pdl-datastream._tcp", ".local", nullptr, 0, 9100);
      UnRegisterOneService(kNameA, "_ipp._tcp", ".local", nullptr, 0, 631);
    });
    Pass({kModelB, ""});
    EXPECT_EQ(Entries(), "");
  });
}

TEST_F(TxtLifetime, PrinterThatChangesItsModelInEveryRoundTakesNoMoreMemoryThanTwoEntries) {
  // Two texts for each entry that is left, and the C library's own.
  ExpectNoGrowth(4096, [this] { Pass({kModelA, kModelB, "", kModelB, kModelA, ""}); });
}

}  // namespace
