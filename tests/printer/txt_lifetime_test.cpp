// How long the TXT texts of the monitor live: as long as an entry of the registry refers to them.
// The monitor runs over the real registration and registry; what it reads and its pauses are fake.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "mdns/state.h"
#include "printer/monitor.h"
#include "records/registration.h"
#include "records/registry.h"
#include "tests/support/fake_printer_device.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/fake_status_file.h"
#include "tests/support/heap_use.h"
#include "tests/support/log_capture.h"

namespace {

constexpr char kModelA[] = "usblp0\nHP\nA\nPCL\n\n";
constexpr char kModelB[] = "usblp0\nHP\nB\nPCL\n\n";
constexpr char kNameA[] = "HP A (00:00:00) 0";
constexpr char kNameB[] = "HP B (00:00:00) 0";

constexpr char kPdlTextA[] =
    "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\nty=A\nproduct=(HP A)\n"
    "usb_MFG=HP\nusb_MDL=A\nnote=router\nusb_CMD=PCL\npriority=10";
constexpr char kIppTextA[] =
    "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\nrp=USB1_LQ\nty=A\n"
    "product=(HP A)\nusb_MFG=HP\nusb_MDL=A\nnote=router\nusb_CMD=PCL\npriority=20";
constexpr char kPdlTextB[] =
    "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\nty=B\nproduct=(HP B)\n"
    "usb_MFG=HP\nusb_MDL=B\nnote=router\nusb_CMD=PCL\npriority=10";

// The text that an answer for the service would carry, copied out of its entry as an answer does;
// "(not registered)" when there is no entry.
std::string AnsweredText(const std::string& name, const std::string& type) {
  const RegistryLock lock;
  for (const ServiceEntry* entry = responderState.registryHead; entry != nullptr;
       entry = entry->next) {
    if (name != entry->serviceName || type != entry->serviceType) continue;
    return std::string(entry->txt, static_cast<size_t>(entry->txtLength));
  }
  return "(not registered)";
}

int EntryCount() {
  const RegistryLock lock;
  int count = 0;
  for (const ServiceEntry* entry = responderState.registryHead; entry != nullptr;
       entry = entry->next) {
    ++count;
  }
  return count;
}

// Runs the monitor for `passes` passes; `beforePass` sets what each of them reads.
void RunMonitor(int passes, const std::function<void(int pass)>& beforePass) {
  bTerminate.Set(0);
  int pass = 0;
  fakeSleep.hook = [&](unsigned) {
    ++pass;
    if (pass == passes) {
      bTerminate.Set(1);
    } else {
      beforePass(pass);
    }
  };
  beforePass(0);
  CheckUsbDevice(nullptr);
  fakeSleep.hook = nullptr;
}

// Sends standard output to nowhere for as long as it lives.
class Silence {
 public:
  Silence() : saved(dup(STDOUT_FILENO)) {
    fflush(stdout);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
  }
  ~Silence() {
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  int saved;
};

class TxtLifetime : public testing::Test {
 protected:
  void SetUp() override {
    SetDeviceName("router");
    memset(hw_addr, 0, 6);
  }

  // The next passes, each with what it reads; what the monitor knows stays between two calls.
  void Pass(const char* text) {
    fakeStatusFile.text = text;
    PrinterPresence current = {};
    ScanPrinters(text, current);
    ApplyPresence(previous, current);
  }

  PrinterPresence previous = {};
};

TEST_F(TxtLifetime, PrinterThatComesIsAnsweredWithItsTexts) {
  const Log log = LogOf([&] { Pass(kModelA); });
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n");
  EXPECT_EQ(AnsweredText(kNameA, "_pdl-datastream._tcp"), kPdlTextA);
  EXPECT_EQ(AnsweredText(kNameA, "_ipp._tcp"), kIppTextA);
  LogOf([&] { Pass(""); });
}

TEST_F(TxtLifetime, PrinterThatGoesLeavesNoEntry) {
  const Log log = LogOf([&] {
    Pass(kModelA);
    Pass("");
  });
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n[Bonjour] device remove lp0\n");
  EXPECT_EQ(EntryCount(), 0);
}

TEST_F(TxtLifetime, ChangedModelLineLeavesTheOldEntryAnsweredWithItsOldText) {
  const Log log = LogOf([&] {
    Pass(kModelA);
    Pass(kModelB);
    Pass("");
  });
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n"
            "[Bonjour] device remove lp0\n"
            "[Bonjour] this service: HP B (00:00:00) 0 _pdl-datastream._tcp .local is not "
            "registered\n"
            "[Bonjour] SERVICE_REMOVE error\n"
            "**********UnRegisterOneService error*************\n"
            "[Bonjour] this service: HP B (00:00:00) 0 _ipp._tcp .local is not registered\n"
            "[Bonjour] SERVICE_REMOVE error\n"
            "**********UnRegisterOneService error*************\n");
  EXPECT_EQ(AnsweredText(kNameA, "_pdl-datastream._tcp"), kPdlTextA);
  EXPECT_EQ(AnsweredText(kNameA, "_ipp._tcp"), kIppTextA);

  // Printers that come and go meanwhile don't touch it.
  LogOf([&] {
    Pass(kModelB);
    Pass("usblp0\nHP\nB\nPCL\n\nusblp1\nHP\nC\nPCL\n\n");
  });
  EXPECT_EQ(AnsweredText(kNameB, "_pdl-datastream._tcp"), kPdlTextB);
  LogOf([&] { Pass(""); });
  EXPECT_EQ(EntryCount(), 2);
  EXPECT_EQ(AnsweredText(kNameA, "_pdl-datastream._tcp"), kPdlTextA);
  EXPECT_EQ(AnsweredText(kNameA, "_ipp._tcp"), kIppTextA);
}

TEST_F(TxtLifetime, TextOfAnOldEntryIsGivenBackAtTheNextRemovalAfterTheEntryHasGone) {
  const auto round = [&] {
    // Leaves the entry of model A behind, with its texts.
    Pass(kModelA);
    Pass(kModelB);
    Pass("");
    UnRegisterOneService(kNameA, "_pdl-datastream._tcp", ".local", nullptr, 0, 9100);
    UnRegisterOneService(kNameA, "_ipp._tcp", ".local", nullptr, 0, 631);
    Pass(kModelB);
    Pass("");
  };
  const Silence silence;
  for (int i = 0; i < 100; ++i) round();
  const size_t before = HeapBytesInUse();
  for (int i = 0; i < 1000; ++i) round();
  EXPECT_EQ(EntryCount(), 0);
  EXPECT_LE(HeapBytesInUse(), before);
}

TEST_F(TxtLifetime, OneHundredThousandInsertionsAndRemovalsTakeNoMemory) {
  constexpr int kWarmUpPasses = 200;
  constexpr int kPasses = kWarmUpPasses + 200000;
  const Silence silence;
  size_t before = 0;
  RunMonitor(kPasses, [&](int pass) {
    if (pass == kWarmUpPasses) before = HeapBytesInUse();
    fakeStatusFile.text = pass % 2 == 0 ? kModelA : "";
    if (pass == kPasses - 1) {
      EXPECT_EQ(EntryCount(), 2);
    }
  });
  EXPECT_EQ(EntryCount(), 0);
  EXPECT_LE(HeapBytesInUse(), before);
}

TEST_F(TxtLifetime, PrinterThatChangesItsModelInEveryRoundTakesNoMoreMemoryThanTwoEntries) {
  // Inserted as A, removed as B; inserted as B, removed as A; and so on.
  constexpr const char* kRound[] = {kModelA, kModelB, "", kModelB, kModelA, ""};
  constexpr int kWarmUpPasses = 600;
  constexpr int kPasses = kWarmUpPasses + 6000;
  const Silence silence;
  size_t before = 0;
  RunMonitor(kPasses, [&](int pass) {
    if (pass == kWarmUpPasses) before = HeapBytesInUse();
    fakeStatusFile.text = kRound[pass % 6];
  });
  EXPECT_LE(EntryCount(), 4);
  // Two texts for each entry that is left, and the C library's own.
  EXPECT_LE(HeapBytesInUse(), before + 4096);
}

}  // namespace
