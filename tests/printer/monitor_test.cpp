// ScanPrinters finds ports and service names in a status file, ApplyPresence acts on them for one
// pass, CheckUsbDevice (the thread) for a sequence of passes.
#include "printer/monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "tests/support/fake_printer.h"
#include "tests/support/fault.h"
#include "tests/support/output.h"

namespace {

constexpr uint8_t kMac[6] = {0x00, 0x11, 0x22, 0xAA, 0x0B, 0xC0};
constexpr char kOnePrinter[] = "usblp0\nHP\nModel 12\nPCL\n\n";
constexpr char kInsertion[] = "[Bonjour] device insert lp0\n";
constexpr char kRemoval[] = "[Bonjour] device remove lp0\n";
constexpr char kPublished[] = "+0 pdl HP Model 12 (aa:0b:c0) 0\n+0 ipp HP Model 12 (aa:0b:c0) 0\n";
constexpr char kWithdrawn[] = "-0 pdl HP Model 12 (aa:0b:c0) 0\n-0 ipp HP Model 12 (aa:0b:c0) 0\n";
constexpr char kCannotOpen[] = "[Bonjour] Can not open \"" BONJOUR_STATUS_FILE "\"\n";
constexpr char kNoMemory[] = "[Bonjour] malloc error: Cannot allocate memory\n";

static_assert(sizeof(PrinterTxt::text) == 513, "a text takes 512 characters and its terminator");

const std::string k50(50, 'a');
const std::string k64(64, 'm');

struct ScanRow {
  const char* behaviour;
  std::string text;
  std::string names;  // of the ports that have a printer
};

const ScanRow kScanRows[] = {
    {"text without token", "usb\nA\nM\nX\n\n", ""},
    {"order in the file is free", "usblp1\nA\nM\nX\n\nusblp0\nB\nN\nX\n\n",
     "B N (aa:0b:c0) 0|A M (aa:0b:c0) 1"},
    {"only the digit after the token counts", "printer at usblp10 ready\nA\nM\nX\n\n",
     "A M (aa:0b:c0) 1"},
    {"later record of a port leaves nothing of a longer name",
     "usblp0\nManufacturer\nM\nX\n\nusblp0\nB\nN\nX\n\n", "B N (aa:0b:c0) 0"},
    {"record with a character below the digits is passed over",
     "usblp/\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n", "B N (aa:0b:c0) 1"},
    {"record with a character above the digits is passed over",
     "usblp:\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n", "B N (aa:0b:c0) 1"},
    {"byte above ASCII is passed over", "usblp\xb1\nA\nM\nX\n\n", ""},
    {"token at the end of the text has no digit", "A\nB\nC\nD\nusblp", ""},
    // Lines are counted from the record's start, the port comes from where the token stands.
    {"token in a later line", "first\nA\nusblp4\nX\n\n", "A usblp4 (aa:0b:c0) 4"},
    {"token after the whole record", "first\nA\nM\nX\n\nusblp5\nB\nN\nX\n\n", "B N (aa:0b:c0) 5"},
    {"second token of a record is not looked at", "usblp1\nusblp2\nM\nX\n\n",
     "usblp2 M (aa:0b:c0) 1"},
    {"second line incomplete", "usblp0\nA", ""},
    {"third line incomplete", "usblp0\nA\nM", ""},
    {"three lines are enough", "usblp0\nA\nM\n", "A M (aa:0b:c0) 0"},
    {"fifth line incomplete ends the scan", "usblp0\nA\nM\nX\nusblp1", "A M (aa:0b:c0) 0"},
    {"record of four lines shifts all that follow",
     "usblp0\nA\nM\nX\nusblp1\nB\nN\nY\n\nusblp2\nC\nO\nZ\n\n",
     "A M (aa:0b:c0) 0|N Y (aa:0b:c0) 2"},
    {"empty lines give two blanks", "usblp0\n\n\nX\n\n", "  (aa:0b:c0) 0"},
    {"nothing is trimmed", "usblp0\n A \n M \nX\n\n", " A   M  (aa:0b:c0) 0"},
    {"115 characters are taken whole", "usblp9\n" + k50 + "\n" + k64 + "\nX\n\n",
     k50 + " " + k64 + " (aa:0b:c0) 9"},
    {"116 characters are cut", "usblp0\n" + k50 + "\n" + k64 + "M\nX\n\n",
     k50 + " " + k64 + " (aa:0b:c0) 0"},
    {"cut after the manufacturer's line feed", "usblp0\n" + k50 + k64 + "\nM\nX\n\n",
     k50 + k64 + "  (aa:0b:c0) 0"},
};

TEST(ScanPrinters, FindsPortsAndNames) {
  memcpy(hw_addr, kMac, 6);
  for (const ScanRow& row : kScanRows) {
    SCOPED_TRACE(row.behaviour);
    memset(printerServiceNames, 0, sizeof(printerServiceNames));
    PrinterPresence presence = {};
    // A view of exactly the text, on the heap: a sanitizer sees one byte too far.
    const std::vector<char> text(row.text.begin(), row.text.end());
    ScanPrinters({text.data(), text.size()}, presence);
    std::string names;
    for (int32_t port = 0; port < 10; ++port) {
      const std::string name(FieldText(printerServiceNames[port]));
      EXPECT_EQ(presence.present[port], name.empty() ? 0u : 1u);
      if (name.empty()) continue;
      names += (names.empty() ? "" : "|") + name;
      EXPECT_TRUE(name.ends_with(" " + std::to_string(port)));
    }
    EXPECT_EQ(names, row.names);
  }
}

TEST(ScanPrinters, NamesAndFlagsOfOtherPortsAreLeftAlone) {
  PrinterPresence presence = {};
  presence.present[5] = 1;
  CopyText(printerServiceNames[4], "gone");
  ScanPrinters("usblp0\nA\nM\nX\n\n", presence);
  EXPECT_EQ(presence.present[5], 1u);
  EXPECT_STREQ(printerServiceNames[4], "gone");
}

// The registrations (+) and unregistrations (-), a line each: port, kind, name; and their result.
std::string calls;
uint32_t result;

class Monitor : public testing::Test {
 protected:
  Monitor() {
    calls.clear();
    result = 1;
    fakeStatusFile = {};
    bTerminate.Set(0);
    memcpy(hw_addr, kMac, 6);
    memset(printerServiceNames, 0, sizeof(printerServiceNames));
  }
  // A stopped monitor leaves its texts to the services that are still registered.
  ~Monitor() override {
    for (int32_t port = 0; port < 10; ++port) {
      free(printerTxtPdl[port]);
      free(printerTxtIpp[port]);
      printerTxtPdl[port] = nullptr;
      printerTxtIpp[port] = nullptr;
    }
  }

  // A pass that sees printers on these ports.
  Log Apply(std::string_view ports) {
    PrinterPresence current = {};
    for (const char digit : ports) current.present[digit - '0'] = 1;
    const Log log = LogOf([&] { ApplyPresence(previous, current); });
    EXPECT_EQ(memcmp(&previous, &current, sizeof(current)), 0);
    return log;
  }

  // Runs the monitor pass by pass, each with the file as it is then: null when it can't be opened.
  static Log Run(const std::vector<std::optional<std::string>>& passes) {
    size_t pass = 0;
    const auto show = [&] {
      fakeStatusFile.present = passes[pass].has_value();
      fakeStatusFile.text = passes[pass].value_or("");
    };
    onSleep = [&](unsigned seconds) {
      EXPECT_EQ(seconds, 1u);
      ++pass;
      if (pass < passes.size()) return show();
      bTerminate.Set(1);
    };
    show();
    const Log log = LogOf([] { EXPECT_EQ(CheckUsbDevice(nullptr), nullptr); });
    EXPECT_EQ(log.err, "");
    onSleep = nullptr;
    return log;
  }

  PrinterPresence previous = {};
};

TEST_F(Monitor, PortsAreHandledInOrderInsertionsAndRemovalsMixedAndThoseThatStayLeftAlone) {
  Apply("13");
  calls.clear();
  EXPECT_EQ(Apply("0349").out,
            "[Bonjour] device insert lp0\n[Bonjour] device remove lp1\n"
            "[Bonjour] device insert lp4\n[Bonjour] device insert lp9\n");
  EXPECT_EQ(calls,
            "+0 pdl \n+0 ipp \n-1 pdl \n-1 ipp \n"
            "+4 pdl \n+4 ipp \n+9 pdl \n+9 ipp \n");
}

TEST_F(Monitor, FailedRegistrationKeepsItsBufferAndIsUnregisteredAllTheSame) {
  result = 0;
  Apply("7");
  EXPECT_NE(printerTxtPdl[7], nullptr);
  EXPECT_NE(printerTxtIpp[7], nullptr);
  Apply("7");
  Apply("");
  EXPECT_EQ(calls, "+7 pdl \n+7 ipp \n-7 pdl \n-7 ipp \n");
}

TEST_F(Monitor, ServiceWithoutMemoryForItsTextIsLeftOutAndTheOtherOneIsNot) {
  const char* const left[] = {"+7 ipp \n-7 ipp \n", "+7 pdl \n-7 pdl \n"};
  for (const int failed : {0, 1}) {
    calls.clear();
    callocFault.FailCall(failed + 1);
    const Log log = Apply("7");
    EXPECT_TRUE(callocFault.HasStruck());
    EXPECT_EQ(log.out, "[Bonjour] device insert lp7\n");
    EXPECT_EQ(log.err, kNoMemory);
    EXPECT_EQ(Apply("").out, "[Bonjour] device remove lp7\n");
    EXPECT_EQ(calls, left[failed]);
  }
}

TEST_F(Monitor, StartsWithEmptyTables) {
  PrinterTxt stale = {};
  for (int32_t port = 0; port < 10; ++port) {
    printerTxtPdl[port] = &stale;
    printerTxtIpp[port] = &stale;
    memset(printerServiceNames[port], 'x', 128);
  }
  Run({""});
  for (int32_t port = 0; port < 10; ++port) {
    EXPECT_EQ(printerTxtPdl[port], nullptr);
    EXPECT_EQ(printerTxtIpp[port], nullptr);
    EXPECT_EQ(std::string(printerServiceNames[port], 129), std::string(129, '\0'));
  }
}

TEST_F(Monitor, LackOfMemoryAtTheStartEndsItAtOnce) {
  callocFault.FailCall(1);
  const Log log = LogOf([] { EXPECT_EQ(CheckUsbDevice(nullptr), nullptr); });
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(log.err, kNoMemory);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(fakeStatusFile.reads, 0);
}

TEST_F(Monitor, FirstPassPublishesNextOnesDoNothingAndAnEmptyFileWithdraws) {
  EXPECT_EQ(Run({kOnePrinter, kOnePrinter, ""}).out, std::string(kInsertion) + kRemoval);
  EXPECT_EQ(calls, std::string(kPublished) + kWithdrawn);
  EXPECT_EQ(fakeStatusFile.reads, 3);
  EXPECT_EQ(printerTxtPdl[0], nullptr);
  EXPECT_EQ(printerTxtIpp[0], nullptr);
}

TEST_F(Monitor, FileThatCannotBeOpenedChangesNothing) {
  const Log log = Run({std::nullopt, kOnePrinter, std::nullopt, kOnePrinter, ""});
  EXPECT_EQ(log.out, std::string(kCannotOpen) + kInsertion + kCannotOpen + kRemoval);
}

TEST_F(Monitor, LargestFileIsLookedThroughToItsEnd) {
  EXPECT_EQ(Run({std::string(40954, '\n') + "usblp0"}).out, kInsertion);
}

TEST_F(Monitor, TextEndsAtAZeroByte) {
  EXPECT_EQ(Run({std::string("usblp0\nA\nM\0\nX\n\n", 15)}).out, "");
}

TEST_F(Monitor, StopBeforeTheFirstPassReadsNothing) {
  bTerminate.Set(1);
  EXPECT_EQ(Run({kOnePrinter}).out, "");
  EXPECT_EQ(fakeStatusFile.reads, 0);
}

TEST_F(Monitor, StopLeavesPrintersRegisteredAndTheirTextsAlive) {
  EXPECT_EQ(Run({kOnePrinter}).out, kInsertion);
  EXPECT_EQ(calls, kPublished);
  EXPECT_STREQ(printerTxtPdl[0]->text, "x");
  EXPECT_STREQ(printerTxtIpp[0]->text, "x");
}

}  // namespace

// In place of printer/services. A service to register comes with a zeroed buffer of its own.
char printerServiceNames[kPrinterPorts][kServiceNameSize];

uint32_t UpdatePrinterService(int32_t port, uint32_t action, int32_t kind, char* txt) {
  const std::string kindName = kind == 1 ? " pdl " : kind == 2 ? " ipp " : " other ";
  calls += (action == 1 ? "+" : "-") + std::to_string(port) + kindName;
  calls += std::string(printerServiceNames[port]) + "\n";
  if (action == 1) {
    EXPECT_EQ(txt, (kind == 1 ? printerTxtPdl : printerTxtIpp)[port]->text);
    EXPECT_TRUE(std::all_of(txt, txt + 513, [](char byte) { return byte == '\0'; }));
    txt[0] = 'x';
  }
  return result;
}
