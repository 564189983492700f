// The TXT text of a printer as BuildTxtText writes it: keys, their order, and what does not fit.
#include "printer/txt.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "base/text.h"
#include "tests/support/case_name.h"
#include "tests/support/log_capture.h"
#include "tests/support/txt_buffer.h"

namespace {

constexpr char kTooSmall[] = "buf is too small!!!\n";
constexpr char kRouter[] = "T5140_00-11-22-AA-BB-CC";

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
    testing::Values(BuildCase{"IppOfAnHpPrinter", 0, PRINTER_KIND_IPP, "HP", "Model 12", "PJL,PCL",
                              kRouter, 1, "",
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
                    BuildCase{"RawPortOfAnHpPrinterHasNoQueue", 0, PRINTER_KIND_PDL, "HP",
                              "Model 12", "PJL,PCL", kRouter, 1, "",
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
                    BuildCase{"LpdOfTheLastPort", 9, PRINTER_KIND_LPD, "ACME", "Laser", "PS",
                              "T5140_00-00-00-00-00-00", 1, "",
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
                    BuildCase{"AnyOtherKindHasNeitherQueueNorPriority", 0, 4, "HP", "M", "PCL", "R",
                              1, "",
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
                    BuildCase{"KindZeroHasNeitherQueueNorPriority", 0, 0, "A", "M", "PCL", "R", 1,
                              "",
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
                    BuildCase{"EveryValueMayBeEmpty", 3, PRINTER_KIND_IPP, "", "", "", "", 1, "",
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
std::string RawPortText(const std::string& pdlLine, const std::string& commandLine) {
  return "txtvers=1\nqtotal=1\n" + pdlLine +
         "usb_CLS=PRINTER\nty=M\nproduct=(A M)\nusb_MFG=A\nusb_MDL=M\nnote=R\n" + commandLine +
         "priority=20";
}

BuildCase CommandSetCase(const char* name, const std::string& commandSet,
                         const std::string& pdlLine) {
  return {name,
          0,
          PRINTER_KIND_PDL,
          "A",
          "M",
          commandSet,
          "R",
          1,
          "",
          RawPortText(pdlLine, "usb_CMD=" + commandSet + "\n")};
}

INSTANTIATE_TEST_SUITE_P(
    CommandSets, BuildTxtTextTest,
    testing::Values(CommandSetCase("OneLanguage", "PCL", "pdl=application/PCL\n"),
                    CommandSetCase("ThreeLanguages", "PJL,PCL,PS",
                                   "pdl=application/PJL,application/PCL,application/PS\n"),
                    CommandSetCase("TrailingCommaYieldsNoEntry", "PJL,PCL,",
                                   "pdl=application/PJL,application/PCL\n"),
                    CommandSetCase("LeadingCommaYieldsNoEntry", ",PJL", "pdl=application/PJL\n"),
                    CommandSetCase("TwoCommasInARowYieldNoEntry", "PJL,,PCL",
                                   "pdl=application/PJL,application/PCL\n"),
                    CommandSetCase("OnlyCommasYieldAnEmptyList", ",,,", "pdl=\n"),
                    CommandSetCase("BlanksAndCaseAreKept", " pjl , Pcl ",
                                   "pdl=application/ pjl ,application/ Pcl \n"),
                    CommandSetCase("OneCharacterIsALanguage", "X,Y",
                                   "pdl=application/X,application/Y\n")),
    CaseName());

BuildCase PriorityCase(const char* name, int32_t kind, const std::string& manufacturer,
                       const std::string& model, const std::string& priorityLine) {
  const std::string queueLine = kind == PRINTER_KIND_PDL ? "" : "rp=USB1_LQ\n";
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
        PriorityCase("RawPortOfHewlettPackard", PRINTER_KIND_PDL, "Hewlett-Packard", "M",
                     "priority=10"),
        PriorityCase("IppOfHewlettPackard", PRINTER_KIND_IPP, "Hewlett-Packard", "M",
                     "priority=20"),
        PriorityCase("LpdOfHewlettPackard", PRINTER_KIND_LPD, "Hewlett-Packard", "M",
                     "priority=30"),
        PriorityCase("RawPortOfAnother", PRINTER_KIND_PDL, "A", "M", "priority=20"),
        PriorityCase("IppOfAnother", PRINTER_KIND_IPP, "A", "M", "priority=10"),
        PriorityCase("LpdOfAnother", PRINTER_KIND_LPD, "A", "M", "priority=30"),
        PriorityCase("ManufacturerContainsHp", PRINTER_KIND_PDL, "The HP co.", "M", "priority=10"),
        PriorityCase("ModelIsHp", PRINTER_KIND_PDL, "A", "HP", "priority=10"),
        PriorityCase("ModelContainsHpInsideAWord", PRINTER_KIND_PDL, "A", "GRAPHPLOT",
                     "priority=10"),
        PriorityCase("ModelContainsHewlettPackard", PRINTER_KIND_IPP, "A", "a Hewlett-Packard 5",
                     "priority=20"),
        PriorityCase("LowerCaseIsNoHp", PRINTER_KIND_PDL, "hp", "hewlett-packard", "priority=20"),
        PriorityCase("HAndPApartAreNoHp", PRINTER_KIND_PDL, "H P", "PH", "priority=20"),
        PriorityCase("HewlettAloneIsNoHp", PRINTER_KIND_PDL, "Hewlett", "Packard", "priority=20"),
        PriorityCase("HAtTheManufacturersEndAndPAtTheModelsStartAreNoHp", PRINTER_KIND_PDL, "H",
                     "P", "priority=20")),
    CaseName());

// 63 characters are the longest model, 15 the longest manufacturer, 64 the longest device name.
const std::string kModel63 = std::string(63, 'm');
const std::string kManufacturer15 = std::string(15, 'k');

// Everything before the ty line, for a raw-port service and a command set of one language.
std::string LinesBeforeTy(const std::string& language) {
  return "txtvers=1\nqtotal=1\npdl=application/" + language + "\nusb_CLS=PRINTER\n";
}

// The lines ty to usb_MDL for the longest manufacturer and model: 67, 90, 24 and 72 characters.
const std::string kTyLine = "ty=" + kModel63 + "\n";
const std::string kProductLine = "product=(" + kManufacturer15 + " " + kModel63 + ")\n";
const std::string kManufacturerLine = "usb_MFG=" + kManufacturer15 + "\n";
const std::string kModelLine = "usb_MDL=" + kModel63 + "\n";

// The head has 52 characters and the language; a text of 512 characters fits, one of 513 does not.
BuildCase CaseOfLengths(const char* name, int32_t kind, size_t language, size_t deviceName,
                        int32_t result, const std::string& text) {
  return {name,
          0,
          kind,
          kManufacturer15,
          kModel63,
          std::string(language, 'c'),
          std::string(deviceName, 'd'),
          result,
          result == 1 ? "" : kTooSmall,
          text};
}

INSTANTIATE_TEST_SUITE_P(
    LongestTexts, BuildTxtTextTest,
    testing::Values(
        // 52 + 59 + 67 + 90 + 24 + 72 + note 69 + usb_CMD 68 + priority 11 = 512
        CaseOfLengths("FiveHundredAndTwelveCharactersFit", PRINTER_KIND_PDL, 59, 63, 1,
                      LinesBeforeTy(std::string(59, 'c')) + kTyLine + kProductLine +
                          kManufacturerLine + kModelLine + "note=" + std::string(63, 'd') +
                          "\nusb_CMD=" + std::string(59, 'c') + "\npriority=20"),
        CaseOfLengths("PriorityLineWouldMakeFiveHundredAndThirteen", PRINTER_KIND_PDL, 59, 64, -1,
                      LinesBeforeTy(std::string(59, 'c')) + kTyLine + kProductLine +
                          kManufacturerLine + kModelLine + "note=" + std::string(64, 'd') +
                          "\nusb_CMD=" + std::string(59, 'c') + "\n"),
        // Without the priority line: 52 + 64 + 253 + note 70 + usb_CMD 73 = 512
        CaseOfLengths("CommandSetLineFits", 4, 64, 64, 1,
                      LinesBeforeTy(std::string(64, 'c')) + kTyLine + kProductLine +
                          kManufacturerLine + kModelLine + "note=" + std::string(64, 'd') +
                          "\nusb_CMD=" + std::string(64, 'c') + "\n"),
        CaseOfLengths("CommandSetLineDoesNotFit", 4, 65, 63, -1,
                      LinesBeforeTy(std::string(65, 'c')) + kTyLine + kProductLine +
                          kManufacturerLine + kModelLine + "note=" + std::string(63, 'd') + "\n"),
        // 52 + 178 + 253 + note 29 = 512; the command set is then too long for its line.
        CaseOfLengths("NoteLineDoesNotFit", PRINTER_KIND_PDL, 179, 23, -1,
                      LinesBeforeTy(std::string(179, 'c')) + kTyLine + kProductLine +
                          kManufacturerLine + kModelLine),
        CaseOfLengths("ModelLineDoesNotFit", PRINTER_KIND_PDL, 208, 1, -1,
                      LinesBeforeTy(std::string(208, 'c')) + kTyLine + kProductLine +
                          kManufacturerLine),
        CaseOfLengths("ManufacturerLineDoesNotFit", PRINTER_KIND_PDL, 280, 1, -1,
                      LinesBeforeTy(std::string(280, 'c')) + kTyLine + kProductLine),
        CaseOfLengths("ProductLineDoesNotFit", PRINTER_KIND_PDL, 304, 1, -1,
                      LinesBeforeTy(std::string(304, 'c')) + kTyLine),
        CaseOfLengths("ModelNameLineDoesNotFit", PRINTER_KIND_PDL, 394, 1, -1,
                      LinesBeforeTy(std::string(394, 'c'))),
        // The head alone: 52 + 460 = 512, pdl line 477.
        CaseOfLengths("HeadAloneFillsTheText", PRINTER_KIND_PDL, 460, 1, -1,
                      LinesBeforeTy(std::string(460, 'c'))),
        CaseOfLengths("ClassLineDoesNotFit", PRINTER_KIND_PDL, 461, 1, -1,
                      "txtvers=1\nqtotal=1\npdl=application/" + std::string(461, 'c') + "\n"),
        // 52 + 449 + rp 11 = 512
        CaseOfLengths("QueueLineFitsAndNothingElse", PRINTER_KIND_IPP, 449, 1, -1,
                      LinesBeforeTy(std::string(449, 'c')) + "rp=USB1_LQ\n"),
        CaseOfLengths("QueueLineDoesNotFit", PRINTER_KIND_IPP, 450, 1, -1,
                      LinesBeforeTy(std::string(450, 'c'))),
        // The pdl line has 17 characters and the language.
        CaseOfLengths("PdlLineOfFourHundredAndNinetyThree", PRINTER_KIND_PDL, 476, 1, -1,
                      "txtvers=1\nqtotal=1\npdl=application/" + std::string(476, 'c') + "\n"),
        CaseOfLengths("PdlLineOfFourHundredAndNinetyFour", PRINTER_KIND_PDL, 477, 1, -1,
                      "txtvers=1\nqtotal=1\n"),
        CaseOfLengths("LongestLanguage", PRINTER_KIND_PDL, 511, 1, -1, "txtvers=1\nqtotal=1\n")),
    CaseName());

// A line that fits to the last character is followed by one that does not; these show that each of
// them did fit.
INSTANTIATE_TEST_SUITE_P(
    LastLinesThatFit, BuildTxtTextTest,
    testing::Values(CaseOfLengths("ModelName", PRINTER_KIND_PDL, 393, 1, -1,
                                  LinesBeforeTy(std::string(393, 'c')) + kTyLine),
                    CaseOfLengths("Product", PRINTER_KIND_PDL, 303, 1, -1,
                                  LinesBeforeTy(std::string(303, 'c')) + kTyLine + kProductLine),
                    CaseOfLengths("Manufacturer", PRINTER_KIND_PDL, 279, 1, -1,
                                  LinesBeforeTy(std::string(279, 'c')) + kTyLine + kProductLine +
                                      kManufacturerLine),
                    CaseOfLengths("Model", PRINTER_KIND_PDL, 207, 1, -1,
                                  LinesBeforeTy(std::string(207, 'c')) + kTyLine + kProductLine +
                                      kManufacturerLine + kModelLine)),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    LongestLines, BuildTxtTextTest,
    testing::Values(
        CommandSetCase("CommandSetOfOneHundredAndEighteen", std::string(118, 'c'),
                       "pdl=application/" + std::string(118, 'c') + "\n"),
        BuildCase{"CommandSetOfOneHundredAndNineteenFailsSilently", 0, PRINTER_KIND_PDL, "A", "M",
                  std::string(119, 'c'), "R", -1, "",
                  "txtvers=1\nqtotal=1\npdl=application/" + std::string(119, 'c') +
                      "\nusb_CLS=PRINTER\nty=M\nproduct=(A M)\nusb_MFG=A\nusb_MDL=M\nnote=R\n"},
        BuildCase{"CommandSetTooLongForItsLineAndTheTextFailsSilently", 0, PRINTER_KIND_PDL,
                  kManufacturer15, kModel63, std::string(178, 'c'), std::string(23, 'd'), -1, "",
                  LinesBeforeTy(std::string(178, 'c')) + kTyLine + kProductLine +
                      kManufacturerLine + kModelLine + "note=" + std::string(23, 'd') + "\n"},
        BuildCase{"DeviceNameOfOneHundredAndTwentyOne", 0, 4, "A", "M", "X", std::string(121, 'd'),
                  1, "",
                  "txtvers=1\nqtotal=1\npdl=application/X\nusb_CLS=PRINTER\nty=M\nproduct=(A M)\n"
                  "usb_MFG=A\nusb_MDL=M\nnote=" +
                      std::string(121, 'd') + "\nusb_CMD=X\n"},
        BuildCase{"DeviceNameOfOneHundredAndTwentyTwoFailsSilently", 0, 4, "A", "M", "X",
                  std::string(122, 'd'), -1, "",
                  "txtvers=1\nqtotal=1\npdl=application/X\nusb_CLS=PRINTER\nty=M\nproduct=(A M)\n"
                  "usb_MFG=A\nusb_MDL=M\n"}),
    CaseName());

TEST(BuildTxtText, ManyShortLanguagesOverflowThePdlLineWithTheMessage) {
  // 256 languages of one character would take 256 * 14 characters.
  PrinterStatusRecord printer = {"A", "M", ""};
  for (size_t i = 0; i < 511; ++i) printer.commandSet[i] = i % 2 == 0 ? 'X' : ',';
  const TxtBuffer txt;
  int32_t result = 2;
  const Log log =
      LogOf([&] { result = BuildTxtText(txt.bytes.get(), 0, PRINTER_KIND_PDL, printer, "R"); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log.out, kTooSmall);
  EXPECT_EQ(txt.Text(), "txtvers=1\nqtotal=1\n");
}

TEST(BuildTxtText, WritesNoTerminator) {
  const TxtBuffer txt;
  memset(txt.bytes.get(), '#', 513);
  EXPECT_EQ(BuildTxtText(txt.bytes.get(), 0, PRINTER_KIND_PDL, {"A", "M", "X"}, "R"), 1);
  EXPECT_STREQ(std::string(txt.bytes.get() + 99, 24).c_str(), "usb_CMD=X\npriority=20###");
}

}  // namespace
