// The TXT text of a printer: BuildTxtText writes it, GetTXTData finds what goes into it.
#include "printer/txt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "base/text.h"
#include "tests/support/fake_printer.h"
#include "tests/support/fake_responder.h"
#include "tests/support/fault.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kTooSmall[] = "buf is too small!!!\n";

class Txt : public testing::Test {
 protected:
  std::string Text() const { return txt.get(); }

  // The value of a key in the text, "none" when it is not there.
  std::string ValueOf(const std::string& key) const {
    const std::string text = "\n" + Text() + "\n";
    const size_t line = text.find("\n" + key + "=");
    if (line == std::string::npos) return "none";
    const size_t start = line + key.size() + 2;
    return text.substr(start, text.find('\n', start) - start);
  }

  std::string LastKey() const {
    const std::string text = Text();
    const size_t end = text.rfind('=');
    const size_t start = text.rfind('\n', end) + 1;
    return text.substr(start, end - start);
  }

  // On the heap, exactly as large as the module asks for: a sanitizer sees one byte too far.
  std::unique_ptr<char[]> txt{new char[513]()};
};

// BuildTxtText

struct Printer {
  int32_t kind = PRINTER_KIND_PDL;
  std::string manufacturer = "A";
  std::string model = "M";
  std::string commandSet = "PCL";
  std::string deviceName = "R";
  int32_t port = 0;
};

class BuildTxtTextTest : public Txt {
 protected:
  // Builds into a new text, and expects a result and a log line.
  void Build(const Printer& given, int32_t result = 1, const char* line = "") {
    PrinterStatusRecord printer = {};
    CopyText(printer.manufacturer, given.manufacturer);
    CopyText(printer.model, given.model);
    CopyText(printer.commandSet, given.commandSet);
    memset(txt.get(), 0, 513);
    const Log log = LogOf([&] {
      EXPECT_EQ(BuildTxtText(txt.get(), given.port, given.kind, printer, given.deviceName), result);
    });
    EXPECT_EQ(log.out, line);
    EXPECT_EQ(log.err, "");
  }
};

TEST_F(BuildTxtTextTest, WritesTheKeysOfAnIppService) {
  Build({PRINTER_KIND_IPP, "HP", "Model 12", "PJL,PCL", "T5140_00-11-22-AA-BB-CC"});
  EXPECT_EQ(Text(),
            "txtvers=1\n"
            "qtotal=1\n"
            "pdl=application/PJL,application/PCL\n"
            "usb_CLS=PRINTER\n"
            "rp=USB1_LQ\n"
            "ty=Model 12\n"
            "product=(HP Model 12)\n"
            "usb_MFG=HP\n"
            "usb_MDL=Model 12\n"
            "note=T5140_00-11-22-AA-BB-CC\n"
            "usb_CMD=PJL,PCL\n"
            "priority=20");
}

TEST_F(BuildTxtTextTest, QueueIsThatOfThePortAndOnlyIppAndLpdHaveOne) {
  Build({.kind = PRINTER_KIND_LPD, .port = 9});
  EXPECT_EQ(ValueOf("rp"), "USB10_LQ");
  Build({.kind = PRINTER_KIND_IPP, .port = INT32_MIN});
  EXPECT_EQ(ValueOf("rp"), "USB-2147483647_LQ");
  Build({.kind = PRINTER_KIND_PDL});
  EXPECT_EQ(ValueOf("rp"), "none");
}

TEST_F(BuildTxtTextTest, AnyOtherKindHasNeitherQueueNorPriorityAndEveryValueMayBeEmpty) {
  Build({4, "", "", "", ""});
  EXPECT_EQ(Text(),
            "txtvers=1\nqtotal=1\npdl=\nusb_CLS=PRINTER\nty=\nproduct=( )\nusb_MFG=\nusb_MDL=\n"
            "note=\nusb_CMD=\n");
}

TEST_F(BuildTxtTextTest, CommandSetBecomesAListOfMediaTypes) {
  const struct {
    const char* commandSet;
    const char* list;
  } rows[] = {{"PCL", "application/PCL"},
              {"X,Y,Z", "application/X,application/Y,application/Z"},
              {",PJL,,PCL,", "application/PJL,application/PCL"},
              {",,,", ""},
              {" pjl , Pcl ", "application/ pjl ,application/ Pcl "}};
  for (const auto& row : rows) {
    Build({.commandSet = row.commandSet});
    EXPECT_EQ(ValueOf("pdl"), row.list);
    EXPECT_EQ(ValueOf("usb_CMD"), row.commandSet);
  }
}

TEST_F(BuildTxtTextTest, RawPortOfAnHpPrinterComesFirstAndIppOfAnyOther) {
  const struct {
    int32_t kind;
    const char* manufacturer;
    const char* model;
    const char* priority;
  } rows[] = {{PRINTER_KIND_PDL, "Hewlett-Packard", "M", "10"},
              {PRINTER_KIND_IPP, "Hewlett-Packard", "M", "20"},
              {PRINTER_KIND_LPD, "Hewlett-Packard", "M", "30"},
              {PRINTER_KIND_PDL, "A", "M", "20"},
              {PRINTER_KIND_IPP, "A", "M", "10"},
              {PRINTER_KIND_LPD, "A", "M", "30"},
              {PRINTER_KIND_PDL, "The HP co.", "M", "10"},
              {PRINTER_KIND_PDL, "A", "GRAPHPLOT", "10"},
              {PRINTER_KIND_PDL, "A", "a Hewlett-Packard 5", "10"},
              {PRINTER_KIND_PDL, "hp", "hewlett-packard", "20"},
              {PRINTER_KIND_PDL, "Hewlett-Packar", "Hewlett-Packar", "20"},
              {PRINTER_KIND_PDL, "H", "P", "20"}};
  for (const auto& row : rows) {
    Build({.kind = row.kind, .manufacturer = row.manufacturer, .model = row.model});
    EXPECT_EQ(ValueOf("priority"), row.priority) << row.manufacturer << row.model << row.kind;
  }
}

// A text of 512 characters fits, one of 513 does not. All but the variable parts have 52 characters
// up to the class line, 253 up to the model line, 6, 9 and 11.
TEST_F(BuildTxtTextTest, HoldsTheLinesThatFitWhole) {
  const struct {
    int32_t kind;
    size_t language;    // characters of the only one
    size_t deviceName;  // characters
    const char* lastKey;
    int32_t result = -1;
    const char* line = kTooSmall;
  } rows[] = {{PRINTER_KIND_PDL, 59, 63, "priority", 1, ""},
              {PRINTER_KIND_PDL, 59, 64, "usb_CMD"},
              {4, 64, 64, "usb_CMD", 1, ""},
              {4, 65, 63, "note"},
              {PRINTER_KIND_PDL, 178, 23, "note", -1, ""},
              {PRINTER_KIND_PDL, 179, 23, "usb_MDL"},
              {PRINTER_KIND_PDL, 207, 1, "usb_MDL"},
              {PRINTER_KIND_PDL, 208, 1, "usb_MFG"},
              {PRINTER_KIND_PDL, 279, 1, "usb_MFG"},
              {PRINTER_KIND_PDL, 280, 1, "product"},
              {PRINTER_KIND_PDL, 303, 1, "product"},
              {PRINTER_KIND_PDL, 304, 1, "ty"},
              {PRINTER_KIND_PDL, 393, 1, "ty"},
              {PRINTER_KIND_PDL, 394, 1, "usb_CLS"},
              {PRINTER_KIND_IPP, 449, 1, "rp"},
              {PRINTER_KIND_IPP, 450, 1, "usb_CLS"},
              {PRINTER_KIND_PDL, 460, 1, "usb_CLS"},
              {PRINTER_KIND_PDL, 461, 1, "pdl"},
              {PRINTER_KIND_PDL, 476, 1, "pdl"},
              {PRINTER_KIND_PDL, 477, 1, "qtotal"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.language);
    Build({row.kind, std::string(15, 'k'), std::string(63, 'm'), std::string(row.language, 'c'),
           std::string(row.deviceName, 'd')},
          row.result, row.line);
    EXPECT_EQ(LastKey(), row.lastKey);
  }
}

TEST_F(BuildTxtTextTest, ValuesOfLinesThatReach128CharactersFailSilently) {
  Build({.commandSet = std::string(118, 'c')});
  Build({.commandSet = std::string(119, 'c')}, -1);
  EXPECT_EQ(ValueOf("usb_CMD"), "none");
  Build({.deviceName = std::string(121, 'd')});
  Build({.deviceName = std::string(122, 'd')}, -1);
  EXPECT_EQ(ValueOf("note"), "none");
}

TEST_F(BuildTxtTextTest, ManyShortLanguagesOverflowTheListWithTheMessage) {
  // 256 languages of one character would take 256 * 14 characters.
  std::string commandSet;
  for (int i = 0; i < 256; ++i) commandSet += "X,";
  Build({.commandSet = commandSet}, -1, kTooSmall);
  EXPECT_EQ(Text(), "txtvers=1\nqtotal=1\n");
}

TEST_F(BuildTxtTextTest, WritesNoTerminator) {
  memset(txt.get(), '#', 512);
  EXPECT_EQ(BuildTxtText(txt.get(), 0, PRINTER_KIND_PDL, {"A", "M", "X"}, "R"), 1);
  EXPECT_THAT(Text(), testing::HasSubstr("\npriority=20###"));
}

// GetTXTData

class GetTxtDataTest : public Txt {
 protected:
  GetTxtDataTest() {
    fakeStatusFile = {};
    fakePrinterDevice = {};
    fakeResponder.deviceName = "router";
  }

  // Expects a result and an error line. Without a text the buffer is as it was.
  void Get(const std::string& status, int32_t port, int32_t result = 1, const char* error = "") {
    fakeStatusFile.text = status;
    const Log log =
        LogOf([&] { EXPECT_EQ(GetTXTData(txt.get(), port, PRINTER_KIND_PDL), result); });
    EXPECT_EQ(log.out, "");
    EXPECT_EQ(log.err, error);
    if (result == 0) {
      EXPECT_EQ(Text(), "");
    }
  }
};

TEST_F(GetTxtDataTest, MissingFileIsLogged) {
  fakeStatusFile.present = false;
  Get("", 0, 0, "[Bonjour] Can not open \"" BONJOUR_STATUS_FILE "\": No such file or directory\n");
}

TEST_F(GetTxtDataTest, LackOfMemoryIsLoggedAndTheFileNotRead) {
  callocFault.FailCall(1);
  Get("usblp0\nA\nM\nX\n\n", 0, 0, "[Bonjour] calloc error: Cannot allocate memory\n");
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(fakeStatusFile.reads, 0);
}

TEST_F(GetTxtDataTest, LongestDeviceNameGoesWholeIntoTheNote) {
  fakeResponder.deviceName = std::string(64, 'n');
  Get("usblp0\nA\nM\nX\n\n", 0);
  EXPECT_EQ(ValueOf("note"), std::string(64, 'n'));
}

TEST_F(GetTxtDataTest, CommandSetIsCutAfter511Characters) {
  // A text cannot be made from so long a line; the list shows how far it was read.
  for (const size_t commas : {size_t{510}, size_t{511}}) {
    txt.reset(new char[513]());
    Get("usblp0\nA\nM\n" + std::string(commas, ',') + "X\n\n", 0, -1);
    EXPECT_EQ(ValueOf("pdl"), commas == 510 ? "application/X" : "");
  }
}

constexpr char kTwoRecords[] = "usblp0\nA\nFirst\nPCL\n\nusblp3\nB\nSecond\nPS\n\n";
const std::string k15(15, 'k');
const std::string k63(63, 'm');

struct RecordRow {
  const char* behaviour;
  std::string status;
  int32_t port;
  std::string values;  // manufacturer, model and command set, or "none"
};

const RecordRow kRecordRows[] = {
    {"first of two", kTwoRecords, 0, "A|First|PCL"},
    {"second of two", kTwoRecords, 3, "B|Second|PS"},
    {"not listed", kTwoRecords, 1, "none"},
    {"empty file", "", 0, "none"},
    {"rest of the first line is ignored", "port usblp0: a\nA\nM\nX\n", 0, "A|M|X"},
    {"token counts anywhere", "like usblp1\nM\nX\nY\nusblp1\nB\nN\nZ\n", 1, "M|X|Y"},
    {"token is not ended by the digit", "usblp10\nA\nM\nX\n", 1, "A|M|X"},
    {"longest port number", "usblp-214748364\nA\n\nX\nusblp-2147483648\nA\nM\nX\n", INT32_MIN,
     "A|M|X"},
    {"first line incomplete", "usblp0", 0, "none"},
    {"second line incomplete", "usblp0\nA", 0, "none"},
    {"third line incomplete", "usblp0\nA\nM", 0, "none"},
    {"fourth line incomplete", "usblp0\nA\nM\nX", 0, "none"},
    {"empty lines", "usblp0\n\nM\n\n", 0, "|M|"},
    {"nothing is trimmed", "usblp0\r\n A \nM\r\n X \n", 0, " A |M\r| X "},
    {"text ends at a zero byte", std::string("usblp0\nA\nM\0X\n\n", 14), 0, "none"},
    {"manufacturer of 16 is cut", "usblp0\n" + k15 + "K\nM\nX\n", 0, k15 + "|M|X"},
    {"model of 64 is cut", "usblp0\nA\n" + k63 + "M\nX\n", 0, "A|" + k63 + "|X"},
    {"at the end of the largest file", std::string(40947, '\n') + "usblp0\nA\nM\nX\n", 0, "A|M|X"},
};

TEST_F(GetTxtDataTest, RecordIsFoundAndRead) {
  for (const RecordRow& row : kRecordRows) {
    SCOPED_TRACE(row.behaviour);
    memset(txt.get(), 0, 513);
    fakeStatusFile.reads = 0;
    Get(row.status, row.port, row.values != "none");
    EXPECT_EQ(fakeStatusFile.reads, 1);
    EXPECT_THAT(fakePrinterDevice.askedForPort, IsEmpty());
    if (row.values == "none") continue;
    EXPECT_EQ(ValueOf("usb_MFG") + "|" + ValueOf("usb_MDL") + "|" + ValueOf("usb_CMD"), row.values);
  }
}

// A record without a model

TEST_F(GetTxtDataTest, ModelComesFromThePortsDeviceId) {
  fakePrinterDevice.id = "\x01\x02MFG:X;MODEL:HP 5;CMD:Z;";
  Get("usblp0\nA\nM\nX\n\nusblp6\nB\n\nZ\n\n", 6);
  EXPECT_THAT(fakePrinterDevice.askedForPort, ElementsAre(6));
  EXPECT_EQ(ValueOf("ty"), "HP 5");
  EXPECT_EQ(ValueOf("product"), "(B HP 5)");
  EXPECT_EQ(ValueOf("priority"), "10");
}

TEST_F(GetTxtDataTest, DeviceThatDoesNotAnswerOrHasNoModelGivesNoData) {
  Get("usblp6\nB\n\nZ\n\n", 6, 0);
  fakePrinterDevice.id = "\x01\x02MFG:X;MDL:Y;CMD:Z;";
  Get("usblp6\nB\n\nZ\n\n", 6, 0);
}

TEST_F(GetTxtDataTest, DeviceIsAskedAsSoonAsTheModelLineIsComplete) {
  Get("usblp6\nB\n", 6, 0);
  EXPECT_THAT(fakePrinterDevice.askedForPort, IsEmpty());
  fakePrinterDevice.id = "\x01\x02MODEL:Y;";
  Get("usblp6\nB\n\nZ", 6, 0);
  EXPECT_THAT(fakePrinterDevice.askedForPort, ElementsAre(6));
}

}  // namespace
