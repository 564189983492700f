#include "printer/txt.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "base/text.h"
#include "mdns/state.h"
#include "tests/support/case_name.h"
#include "tests/support/fake_printer_device.h"
#include "tests/support/fake_status_file.h"
#include "tests/support/fault.h"
#include "tests/support/log_capture.h"

namespace {

constexpr char kTooSmall[] = "buf is too small!!!\n";
constexpr char kRouter[] = "T5140_00-11-22-AA-BB-CC";

// A TXT buffer of exactly its size (a sanitizer sees one byte too far), zero-filled as the callers
// do.
struct TxtBuffer {
  std::unique_ptr<char[]> bytes{new char[513]()};

  std::string Text() const { return std::string(bytes.get(), strnlen(bytes.get(), 513)); }
};

std::string Times(size_t count, char character) { return std::string(count, character); }

struct BuildCase {
  const char* name;
  int32_t port;
  int32_t kind;
  std::string manufacturer;
  std::string model;
  std::string commandSet;
  std::string deviceName;
  int32_t result;
  const char* output;
  std::string text;  // with a result below 1: the part that was written
};

class BuildTxtTextTest : public testing::TestWithParam<BuildCase> {};

TEST_P(BuildTxtTextTest, WritesTheText) {
  const BuildCase& row = GetParam();
  PrinterStatusRecord printer = {};
  CopyText(printer.manufacturer, row.manufacturer);
  CopyText(printer.model, row.model);
  CopyText(printer.commandSet, row.commandSet);
  const TxtBuffer txt;
  int32_t result = 2;
  const Log log = LogOf(
      [&] { result = BuildTxtText(txt.bytes.get(), row.port, row.kind, printer, row.deviceName); });
  EXPECT_EQ(result, row.result);
  EXPECT_EQ(log.out, row.output);
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(txt.Text(), row.text);
}

INSTANTIATE_TEST_SUITE_P(
    WholeTexts, BuildTxtTextTest,
    testing::Values(
        BuildCase{"IppOfAnHpPrinter", 0, 2, "HP", "Model 12", "PJL,PCL", kRouter, 1, "",
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
                  "priority=20"},
        BuildCase{"RawPortOfAnHpPrinterHasNoQueue", 0, 1, "HP", "Model 12", "PJL,PCL", kRouter, 1,
                  "",
                  "txtvers=1\n"
                  "qtotal=1\n"
                  "pdl=application/PJL,application/PCL\n"
                  "usb_CLS=PRINTER\n"
                  "ty=Model 12\n"
                  "product=(HP Model 12)\n"
                  "usb_MFG=HP\n"
                  "usb_MDL=Model 12\n"
                  "note=T5140_00-11-22-AA-BB-CC\n"
                  "usb_CMD=PJL,PCL\n"
                  "priority=10"},
        BuildCase{"LpdOfTheLastPort", 9, 3, "ACME", "Laser", "PS", "T5140_00-00-00-00-00-00", 1, "",
                  "txtvers=1\n"
                  "qtotal=1\n"
                  "pdl=application/PS\n"
                  "usb_CLS=PRINTER\n"
                  "rp=USB10_LQ\n"
                  "ty=Laser\n"
                  "product=(ACME Laser)\n"
                  "usb_MFG=ACME\n"
                  "usb_MDL=Laser\n"
                  "note=T5140_00-00-00-00-00-00\n"
                  "usb_CMD=PS\n"
                  "priority=30"},
        BuildCase{"AnyOtherKindHasNeitherQueueNorPriority", 0, 4, "HP", "M", "PCL", "R", 1, "",
                  "txtvers=1\n"
                  "qtotal=1\n"
                  "pdl=application/PCL\n"
                  "usb_CLS=PRINTER\n"
                  "ty=M\n"
                  "product=(HP M)\n"
                  "usb_MFG=HP\n"
                  "usb_MDL=M\n"
                  "note=R\n"
                  "usb_CMD=PCL\n"},
        BuildCase{"KindZeroHasNeitherQueueNorPriority", 0, 0, "A", "M", "PCL", "R", 1, "",
                  "txtvers=1\n"
                  "qtotal=1\n"
                  "pdl=application/PCL\n"
                  "usb_CLS=PRINTER\n"
                  "ty=M\n"
                  "product=(A M)\n"
                  "usb_MFG=A\n"
                  "usb_MDL=M\n"
                  "note=R\n"
                  "usb_CMD=PCL\n"},
        BuildCase{"EveryValueMayBeEmpty", 3, 2, "", "", "", "", 1, "",
                  "txtvers=1\n"
                  "qtotal=1\n"
                  "pdl=\n"
                  "usb_CLS=PRINTER\n"
                  "rp=USB4_LQ\n"
                  "ty=\n"
                  "product=( )\n"
                  "usb_MFG=\n"
                  "usb_MDL=\n"
                  "note=\n"
                  "usb_CMD=\n"
                  "priority=10"}),
    CaseName());

// The text of a raw-port service of the printer "A" "M" on the router "R".
std::string TextWith(const std::string& pdlLine, const std::string& commandLine) {
  return "txtvers=1\nqtotal=1\n" + pdlLine +
         "usb_CLS=PRINTER\nty=M\nproduct=(A M)\nusb_MFG=A\nusb_MDL=M\nnote=R\n" + commandLine +
         "priority=20";
}

BuildCase CommandSet(const char* name, const std::string& commandSet, const std::string& pdlLine) {
  return {name,       0,   1, "A", "M",
          commandSet, "R", 1, "",  TextWith(pdlLine, "usb_CMD=" + commandSet + "\n")};
}

INSTANTIATE_TEST_SUITE_P(
    CommandSets, BuildTxtTextTest,
    testing::Values(CommandSet("OneLanguage", "PCL", "pdl=application/PCL\n"),
                    CommandSet("ThreeLanguages", "PJL,PCL,PS",
                               "pdl=application/PJL,application/PCL,application/PS\n"),
                    CommandSet("TrailingCommaYieldsNoEntry", "PJL,PCL,",
                               "pdl=application/PJL,application/PCL\n"),
                    CommandSet("LeadingCommaYieldsNoEntry", ",PJL", "pdl=application/PJL\n"),
                    CommandSet("TwoCommasInARowYieldNoEntry", "PJL,,PCL",
                               "pdl=application/PJL,application/PCL\n"),
                    CommandSet("OnlyCommasYieldAnEmptyList", ",,,", "pdl=\n"),
                    CommandSet("BlanksAndCaseAreKept", " pjl , Pcl ",
                               "pdl=application/ pjl ,application/ Pcl \n"),
                    CommandSet("OneCharacterIsALanguage", "X,Y",
                               "pdl=application/X,application/Y\n")),
    CaseName());

BuildCase Priority(const char* name, int32_t kind, const std::string& manufacturer,
                   const std::string& model, const std::string& priorityLine) {
  const std::string queueLine = kind == 1 ? "" : "rp=USB1_LQ\n";
  return {name,
          0,
          kind,
          manufacturer,
          model,
          "PCL",
          "R",
          1,
          "",
          "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\n" + queueLine + "ty=" +
              model + "\nproduct=(" + manufacturer + " " + model + ")\nusb_MFG=" + manufacturer +
              "\nusb_MDL=" + model + "\nnote=R\nusb_CMD=PCL\n" + priorityLine};
}

INSTANTIATE_TEST_SUITE_P(
    Priorities, BuildTxtTextTest,
    testing::Values(
        Priority("RawPortOfHewlettPackard", 1, "Hewlett-Packard", "M", "priority=10"),
        Priority("IppOfHewlettPackard", 2, "Hewlett-Packard", "M", "priority=20"),
        Priority("LpdOfHewlettPackard", 3, "Hewlett-Packard", "M", "priority=30"),
        Priority("RawPortOfAnother", 1, "A", "M", "priority=20"),
        Priority("IppOfAnother", 2, "A", "M", "priority=10"),
        Priority("LpdOfAnother", 3, "A", "M", "priority=30"),
        Priority("ManufacturerContainsHp", 1, "The HP co.", "M", "priority=10"),
        Priority("ModelIsHp", 1, "A", "HP", "priority=10"),
        Priority("ModelContainsHpInsideAWord", 1, "A", "GRAPHPLOT", "priority=10"),
        Priority("ModelContainsHewlettPackard", 2, "A", "a Hewlett-Packard 5", "priority=20"),
        Priority("LowerCaseIsNoHp", 1, "hp", "hewlett-packard", "priority=20"),
        Priority("HAndPApartAreNoHp", 1, "H P", "PH", "priority=20"),
        Priority("HewlettAloneIsNoHp", 1, "Hewlett", "Packard", "priority=20"),
        Priority("HAtTheManufacturersEndAndPAtTheModelsStartAreNoHp", 1, "H", "P", "priority=20")),
    CaseName());

// 63 characters are the longest model, 15 the longest manufacturer, 64 the longest device name.
const std::string kModel63 = Times(63, 'm');
const std::string kMaker15 = Times(15, 'k');

// Everything before the ty line, for a raw-port service and a command set of one language.
std::string Head(const std::string& language) {
  return "txtvers=1\nqtotal=1\npdl=application/" + language + "\nusb_CLS=PRINTER\n";
}

// The lines ty to usb_MDL for the longest manufacturer and model: 67, 90, 24 and 72 characters.
const std::string kTy = "ty=" + kModel63 + "\n";
const std::string kProduct = "product=(" + kMaker15 + " " + kModel63 + ")\n";
const std::string kMaker = "usb_MFG=" + kMaker15 + "\n";
const std::string kModel = "usb_MDL=" + kModel63 + "\n";

// The head has 52 characters and the language; a text of 512 characters fits, one of 513 does not.
BuildCase Total(const char* name, int32_t kind, size_t language, size_t deviceName, int32_t result,
                const std::string& text) {
  return {name,
          0,
          kind,
          kMaker15,
          kModel63,
          Times(language, 'c'),
          Times(deviceName, 'd'),
          result,
          result == 1 ? "" : kTooSmall,
          text};
}

INSTANTIATE_TEST_SUITE_P(
    Totals, BuildTxtTextTest,
    testing::Values(
        // 52 + 59 + 67 + 90 + 24 + 72 + note 69 + usb_CMD 68 + priority 11 = 512
        Total("FiveHundredAndTwelveCharactersFit", 1, 59, 63, 1,
              Head(Times(59, 'c')) + kTy + kProduct + kMaker + kModel + "note=" + Times(63, 'd') +
                  "\nusb_CMD=" + Times(59, 'c') + "\npriority=20"),
        Total("PriorityLineWouldMakeFiveHundredAndThirteen", 1, 59, 64, -1,
              Head(Times(59, 'c')) + kTy + kProduct + kMaker + kModel + "note=" + Times(64, 'd') +
                  "\nusb_CMD=" + Times(59, 'c') + "\n"),
        // Without the priority line: 52 + 64 + 253 + note 70 + usb_CMD 73 = 512
        Total("CommandSetLineFits", 4, 64, 64, 1,
              Head(Times(64, 'c')) + kTy + kProduct + kMaker + kModel + "note=" + Times(64, 'd') +
                  "\nusb_CMD=" + Times(64, 'c') + "\n"),
        Total("CommandSetLineDoesNotFit", 4, 65, 63, -1,
              Head(Times(65, 'c')) + kTy + kProduct + kMaker + kModel + "note=" + Times(63, 'd') +
                  "\n"),
        // 52 + 178 + 253 + note 29 = 512; the command set is then too long for its line.
        Total("NoteLineDoesNotFit", 1, 179, 23, -1,
              Head(Times(179, 'c')) + kTy + kProduct + kMaker + kModel),
        Total("ModelLineDoesNotFit", 1, 208, 1, -1,
              Head(Times(208, 'c')) + kTy + kProduct + kMaker),
        Total("ManufacturerLineDoesNotFit", 1, 280, 1, -1, Head(Times(280, 'c')) + kTy + kProduct),
        Total("ProductLineDoesNotFit", 1, 304, 1, -1, Head(Times(304, 'c')) + kTy),
        Total("ModelNameLineDoesNotFit", 1, 394, 1, -1, Head(Times(394, 'c'))),
        // The head alone: 52 + 460 = 512, pdl line 477.
        Total("HeadAloneFillsTheText", 1, 460, 1, -1, Head(Times(460, 'c'))),
        Total("ClassLineDoesNotFit", 1, 461, 1, -1,
              "txtvers=1\nqtotal=1\npdl=application/" + Times(461, 'c') + "\n"),
        // 52 + 449 + rp 11 = 512
        Total("QueueLineFitsAndNothingElse", 2, 449, 1, -1, Head(Times(449, 'c')) + "rp=USB1_LQ\n"),
        Total("QueueLineDoesNotFit", 2, 450, 1, -1, Head(Times(450, 'c'))),
        // The pdl line has 17 characters and the language.
        Total("PdlLineOfFourHundredAndNinetyThree", 1, 476, 1, -1,
              "txtvers=1\nqtotal=1\npdl=application/" + Times(476, 'c') + "\n"),
        Total("PdlLineOfFourHundredAndNinetyFour", 1, 477, 1, -1, "txtvers=1\nqtotal=1\n"),
        Total("LongestLanguage", 1, 511, 1, -1, "txtvers=1\nqtotal=1\n")),
    CaseName());

// A line that fits to the last character is followed by one that does not; these show that each of
// them did fit.
INSTANTIATE_TEST_SUITE_P(
    LastLinesThatFit, BuildTxtTextTest,
    testing::Values(
        Total("ModelName", 1, 393, 1, -1, Head(Times(393, 'c')) + kTy),
        Total("Product", 1, 303, 1, -1, Head(Times(303, 'c')) + kTy + kProduct),
        Total("Manufacturer", 1, 279, 1, -1, Head(Times(279, 'c')) + kTy + kProduct + kMaker),
        Total("Model", 1, 207, 1, -1, Head(Times(207, 'c')) + kTy + kProduct + kMaker + kModel)),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    KeyLines, BuildTxtTextTest,
    testing::Values(
        CommandSet("CommandSetOfOneHundredAndEighteen", Times(118, 'c'),
                   "pdl=application/" + Times(118, 'c') + "\n"),
        BuildCase{"CommandSetOfOneHundredAndNineteenFailsSilently", 0, 1, "A", "M", Times(119, 'c'),
                  "R", -1, "",
                  "txtvers=1\nqtotal=1\npdl=application/" + Times(119, 'c') +
                      "\nusb_CLS=PRINTER\nty=M\nproduct=(A M)\nusb_MFG=A\nusb_MDL=M\nnote=R\n"},
        BuildCase{"CommandSetTooLongForItsLineAndTheTextFailsSilently", 0, 1, kMaker15, kModel63,
                  Times(178, 'c'), Times(23, 'd'), -1, "",
                  Head(Times(178, 'c')) + kTy + kProduct + kMaker + kModel +
                      "note=" + Times(23, 'd') + "\n"},
        BuildCase{"DeviceNameOfOneHundredAndTwentyOne", 0, 4, "A", "M", "X", Times(121, 'd'), 1, "",
                  "txtvers=1\nqtotal=1\npdl=application/X\nusb_CLS=PRINTER\nty=M\nproduct=(A M)\n"
                  "usb_MFG=A\nusb_MDL=M\nnote=" +
                      Times(121, 'd') + "\nusb_CMD=X\n"},
        BuildCase{"DeviceNameOfOneHundredAndTwentyTwoFailsSilently", 0, 4, "A", "M", "X",
                  Times(122, 'd'), -1, "",
                  "txtvers=1\nqtotal=1\npdl=application/X\nusb_CLS=PRINTER\nty=M\nproduct=(A M)\n"
                  "usb_MFG=A\nusb_MDL=M\n"}),
    CaseName());

TEST(BuildTxtText, ManyShortLanguagesOverflowThePdlLineWithTheMessage) {
  // 256 languages of one character would take 256 * 14 characters.
  PrinterStatusRecord printer = {"A", "M", ""};
  for (size_t i = 0; i < 511; ++i) printer.commandSet[i] = i % 2 == 0 ? 'X' : ',';
  const TxtBuffer txt;
  int32_t result = 2;
  const Log log = LogOf([&] { result = BuildTxtText(txt.bytes.get(), 0, 1, printer, "R"); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log.out, kTooSmall);
  EXPECT_EQ(txt.Text(), "txtvers=1\nqtotal=1\n");
}

TEST(BuildTxtText, WritesNoTerminator) {
  const TxtBuffer txt;
  memset(txt.bytes.get(), '#', 513);
  EXPECT_EQ(BuildTxtText(txt.bytes.get(), 0, 1, {"A", "M", "X"}, "R"), 1);
  EXPECT_STREQ(std::string(txt.bytes.get() + 99, 24).c_str(), "usb_CMD=X\npriority=20###");
}

class GetTxtData : public testing::Test {
 protected:
  void SetUp() override {
    fakeStatusFile = {};
    fakePrinterDevice = {};
    SetDeviceName(kRouter);
  }

  Log Get(const std::string& status, int32_t port = 0, int32_t kind = PRINTER_KIND_PDL) {
    fakeStatusFile.text = status;
    return LogOf([&] { result = GetTXTData(txt.bytes.get(), port, kind); });
  }

  // The value of a key in the text, "(none)" when it is not there.
  std::string Value(const std::string& key) const {
    const std::string text = "\n" + txt.Text();
    const size_t start = text.find("\n" + key + "=");
    if (start == std::string::npos) return "(none)";
    const size_t value = start + key.size() + 2;
    return text.substr(value, text.find('\n', value) - value);
  }

  TxtBuffer txt;
  int32_t result = 2;
};

TEST_F(GetTxtData, BuildsTheTextOfThePortsRecord) {
  const Log log = Get("usblp0\nHP\nModel 12\nPJL,PCL,\n\n", 0, PRINTER_KIND_IPP);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(txt.Text(),
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
            "usb_CMD=PJL,PCL,\n"
            "priority=20");
  EXPECT_EQ(fakeStatusFile.reads, 1);
  EXPECT_TRUE(fakePrinterDevice.askedForPort.empty());
}

TEST_F(GetTxtData, LongestPortNumberIsWholeInTheTokenAndInTheQueue) {
  Get("usblp-214748364\nACME\nOther\nPS\n\n"
      "usblp-2147483648\nACME\nLaser\nPS\n\n",
      INT32_MIN, PRINTER_KIND_IPP);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Value("ty"), "Laser");
  EXPECT_EQ(Value("rp"), "USB-2147483647_LQ");
}

TEST_F(GetTxtData, MissingFileIsLogged) {
  fakeStatusFile.present = false;
  const Log log = Get("");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(txt.Text(), "");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err,
            "[Bonjour] Can not open \"/proc/printer_status\": No such file or directory\n");
}

TEST_F(GetTxtData, LackOfMemoryIsLoggedAndTheFileNotRead) {
  callocFault.FailCall(1);
  const Log log = Get("usblp0\nA\nM\nX\n\n");
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(result, 0);
  EXPECT_EQ(txt.Text(), "");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "[Bonjour] calloc error: Cannot allocate memory\n");
  EXPECT_EQ(fakeStatusFile.reads, 0);
}

TEST_F(GetTxtData, LongestDeviceNameGoesWholeIntoTheNote) {
  SetDeviceName(Times(64, 'n'));
  Get("usblp0\nA\nM\nX\n\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Value("note"), Times(64, 'n'));
}

struct RecordCase {
  const char* name;
  std::string status;
  int32_t port;
  int32_t result;
  std::string manufacturer;
  std::string model;
  std::string commandSet;
};

class RecordTest : public GetTxtData, public testing::WithParamInterface<RecordCase> {};

TEST_P(RecordTest, IsFoundAndRead) {
  const RecordCase& row = GetParam();
  const Log log = Get(row.status, row.port);
  EXPECT_EQ(result, row.result);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
  if (row.result < 1) {
    EXPECT_EQ(txt.Text(), "");
    return;
  }
  EXPECT_EQ(Value("usb_MFG"), row.manufacturer);
  EXPECT_EQ(Value("usb_MDL"), row.model);
  EXPECT_EQ(Value("ty"), row.model);
  EXPECT_EQ(Value("product"), "(" + row.manufacturer + " " + row.model + ")");
  EXPECT_EQ(Value("usb_CMD"), row.commandSet);
}

constexpr char kTwoRecords[] = "usblp0\nA\nFirst\nPCL\n\nusblp3\nB\nSecond\nPS\n\n";

INSTANTIATE_TEST_SUITE_P(
    , RecordTest,
    testing::Values(
        RecordCase{"FirstOfTwo", kTwoRecords, 0, 1, "A", "First", "PCL"},
        RecordCase{"SecondOfTwo", kTwoRecords, 3, 1, "B", "Second", "PS"},
        RecordCase{"NotListed", kTwoRecords, 1, 0, "", "", ""},
        RecordCase{"EmptyFile", "", 0, 0, "", "", ""},
        RecordCase{"FileWithoutToken", "usblp\nA\nM\nX\n\n", 0, 0, "", "", ""},
        RecordCase{"RestOfTheFirstLineIsIgnored", "port usblp0: ready\nA\nM\nX\n\n", 0, 1, "A", "M",
                   "X"},
        RecordCase{"TokenCountsAnywhere", "usblp0\nlike usblp1\nM\nX\nY\nusblp1\nB\nN\nZ\n\n", 1, 1,
                   "M", "X", "Y"},
        RecordCase{"TokenIsNotEndedByTheDigit", "usblp10\nA\nM\nX\n\n", 1, 1, "A", "M", "X"},
        RecordCase{"FirstRecordOfThePortCounts", "usblp0\nA\nM\nX\n\nusblp0\nB\nN\nY\n\n", 0, 1,
                   "A", "M", "X"},
        RecordCase{"FirstLineIncomplete", "usblp0", 0, 0, "", "", ""},
        RecordCase{"SecondLineIncomplete", "usblp0\nA", 0, 0, "", "", ""},
        RecordCase{"ThirdLineIncomplete", "usblp0\nA\nM", 0, 0, "", "", ""},
        RecordCase{"FourthLineIncomplete", "usblp0\nA\nM\nX", 0, 0, "", "", ""},
        RecordCase{"FourthLineMissing", "usblp0\nA\nM\n", 0, 0, "", "", ""},
        RecordCase{"FifthLineIsNotRead", "usblp0\nA\nM\nX\n", 0, 1, "A", "M", "X"},
        RecordCase{"EmptyManufacturer", "usblp0\n\nM\nX\n\n", 0, 1, "", "M", "X"},
        RecordCase{"EmptyCommandSet", "usblp0\nA\nM\n\n\n", 0, 1, "A", "M", ""},
        RecordCase{"NothingIsTrimmed", "usblp0\n A \n M \n X \n\n", 0, 1, " A ", " M ", " X "},
        RecordCase{"CarriageReturnsAreKept", "usblp0\r\nA\r\nM\r\nX\r\n\r\n", 0, 1, "A\r", "M\r",
                   "X\r"},
        RecordCase{"TextEndsAtAZeroByte", std::string("usblp0\nA\nM\0X\n\n", 14), 0, 0, "", "", ""},
        RecordCase{"ManufacturerOfFifteen", "usblp0\n" + Times(15, 'k') + "\nM\nX\n\n", 0, 1,
                   Times(15, 'k'), "M", "X"},
        RecordCase{"ManufacturerOfSixteenIsCut", "usblp0\n" + Times(15, 'k') + "K\nM\nX\n\n", 0, 1,
                   Times(15, 'k'), "M", "X"},
        RecordCase{"ManufacturerOfTwentyIsCut", "usblp0\nABCDEFGHIJKLMNOPQRST\nM\nX\n\n", 0, 1,
                   "ABCDEFGHIJKLMNO", "M", "X"},
        RecordCase{"ModelOfSixtyThree", "usblp0\nA\n" + Times(63, 'm') + "\nX\n\n", 0, 1, "A",
                   Times(63, 'm'), "X"},
        RecordCase{"ModelOfSixtyFourIsCut", "usblp0\nA\n" + Times(63, 'm') + "M\nX\n\n", 0, 1, "A",
                   Times(63, 'm'), "X"},
        RecordCase{"RecordEndsWithTheLargestFile", Times(40951, '\n') + "usblp0\nA\n", 0, 0, "", "",
                   ""},
        RecordCase{"RecordFitsIntoTheLargestFile", Times(40947, '\n') + "usblp0\nA\nM\nX\n", 0, 1,
                   "A", "M", "X"}),
    CaseName());

TEST_F(GetTxtData, CommandSetIsCutBehindFiveHundredAndElevenCharacters) {
  // A text can't be had from such a line; the pdl line shows how far it was read.
  Get("usblp0\nA\nM\n" + Times(510, ',') + "X\n\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(Value("pdl"), "application/X");
  txt = TxtBuffer();
  Get("usblp0\nA\nM\n" + Times(511, ',') + "X\n\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(Value("pdl"), "");
}

TEST_F(GetTxtData, CommandSetOfOneHundredAndNineteenNeverGivesAText) {
  const Log fits = Get("usblp0\nA\nM\n" + Times(118, 'c') + "\n\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(fits.out, "");
  txt = TxtBuffer();
  const Log fails = Get("usblp0\nA\nM\n" + Times(119, 'c') + "\n\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(fails.out, "");
  EXPECT_EQ(fails.err, "");
}

class EmptyModelLine : public GetTxtData {
 protected:
  Log GetWithId(const std::string& id) {
    fakePrinterDevice.answers = true;
    fakePrinterDevice.id = "\x01\x02" + id;
    return Get("usblp0\nA\nM\nX\n\nusblp6\nX\n\nZ\n\n", 6);
  }
};

TEST_F(EmptyModelLine, ModelComesFromThePortsDeviceId) {
  const Log log = GetWithId("MFG:X;MODEL:Y;CMD:Z;");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(fakePrinterDevice.askedForPort, std::vector<int32_t>{6});
  EXPECT_EQ(Value("ty"), "Y");
  EXPECT_EQ(Value("product"), "(X Y)");
  EXPECT_EQ(Value("usb_MDL"), "Y");
  EXPECT_EQ(Value("usb_CMD"), "Z");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

TEST_F(EmptyModelLine, ModelAtTheVeryStartOfTheIdCounts) {
  GetWithId("MODEL:Y");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Value("ty"), "Y");
}

TEST_F(EmptyModelLine, IdWithTheShortKeyOnlyGivesNoData) {
  const Log log = GetWithId("MFG:X;MDL:Y;CMD:Z;");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(txt.Text(), "");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

TEST_F(EmptyModelLine, KeyThatOnlyEndsInModelGivesNoData) {
  GetWithId("MFG:X;XMODEL:Y;CMD:Z;");
  EXPECT_EQ(result, 0);
}

TEST_F(EmptyModelLine, ModelOfSixtyThreeCharactersIsTakenWhole) {
  GetWithId("MODEL:" + Times(63, 'y') + ";");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Value("ty"), Times(63, 'y'));
}

TEST_F(EmptyModelLine, ModelOfSixtyFourCharactersIsNotCutButGivesNoData) {
  GetWithId("MODEL:" + Times(64, 'y') + ";");
  EXPECT_EQ(result, 0);
}

TEST_F(EmptyModelLine, EmptyModelInTheIdIsTaken) {
  GetWithId("MFG:X;MODEL:;");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Value("ty"), "");
}

TEST_F(EmptyModelLine, HpInTheModelOfTheIdSelectsTheHpPriority) {
  GetWithId("MODEL:HP 5;");
  EXPECT_EQ(Value("priority"), "10");
}

TEST_F(EmptyModelLine, DeviceThatDoesNotAnswerGivesNoData) {
  Get("usblp6\nX\n\nZ\n\n", 6);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(txt.Text(), "");
}

TEST_F(EmptyModelLine, DeviceIsAskedAlthoughTheCommandSetIsMissing) {
  fakePrinterDevice.answers = true;
  fakePrinterDevice.id = "  MODEL:Y;";
  Get("usblp6\nX\n\nZ", 6);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(fakePrinterDevice.askedForPort.size(), 1u);
}

TEST_F(EmptyModelLine, DeviceIsNotAskedWhenTheLineIsNotComplete) {
  Get("usblp6\nX\n", 6);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(fakePrinterDevice.askedForPort.empty());
}

}  // namespace
