// GetTXTData: which record of the status file a text is made from, and where the model comes from.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "printer/txt.h"
#include "tests/support/case_name.h"
#include "tests/support/fake_printer_device.h"
#include "tests/support/fake_responder.h"
#include "tests/support/fake_status_file.h"
#include "tests/support/fault.h"
#include "tests/support/log_capture.h"
#include "tests/support/txt_buffer.h"

namespace {

constexpr char kRouter[] = "T5140_00-11-22-AA-BB-CC";

class GetTxtData : public testing::Test {
 protected:
  void SetUp() override {
    fakeStatusFile = {};
    fakePrinterDevice = {};
    fakeResponder.deviceName = kRouter;
  }

  Log Get(const std::string& status, int32_t port = 0, int32_t kind = PRINTER_KIND_PDL) {
    fakeStatusFile.text = status;
    return LogOf([&] { result = GetTXTData(txt.bytes.get(), port, kind); });
  }

  // The value of a key in the text, "(none)" when it is not there.
  std::string ValueOf(const std::string& key) const {
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
  EXPECT_EQ(ValueOf("ty"), "Laser");
  EXPECT_EQ(ValueOf("rp"), "USB-2147483647_LQ");
}

TEST_F(GetTxtData, MissingFileIsLogged) {
  fakeStatusFile.present = false;
  const Log log = Get("");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(txt.Text(), "");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err,
            "[Bonjour] Can not open \"" BONJOUR_STATUS_FILE "\": No such file or directory\n");
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
  fakeResponder.deviceName = std::string(64, 'n');
  Get("usblp0\nA\nM\nX\n\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(ValueOf("note"), std::string(64, 'n'));
}

struct StatusRecordCase {
  const char* name;
  std::string status;
  int32_t port;
  int32_t result;
  std::string manufacturer;
  std::string model;
  std::string commandSet;
};

class StatusRecordTest : public GetTxtData, public testing::WithParamInterface<StatusRecordCase> {};

TEST_P(StatusRecordTest, IsFoundAndRead) {
  const StatusRecordCase& row = GetParam();
  const Log log = Get(row.status, row.port);
  EXPECT_EQ(result, row.result);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
  if (row.result < 1) {
    EXPECT_EQ(txt.Text(), "");
    return;
  }
  EXPECT_EQ(ValueOf("usb_MFG"), row.manufacturer);
  EXPECT_EQ(ValueOf("usb_MDL"), row.model);
  EXPECT_EQ(ValueOf("ty"), row.model);
  EXPECT_EQ(ValueOf("product"), "(" + row.manufacturer + " " + row.model + ")");
  EXPECT_EQ(ValueOf("usb_CMD"), row.commandSet);
}

constexpr char kTwoRecords[] = "usblp0\nA\nFirst\nPCL\n\nusblp3\nB\nSecond\nPS\n\n";

INSTANTIATE_TEST_SUITE_P(
    , StatusRecordTest,
    testing::Values(
        StatusRecordCase{"FirstOfTwo", kTwoRecords, 0, 1, "A", "First", "PCL"},
        StatusRecordCase{"SecondOfTwo", kTwoRecords, 3, 1, "B", "Second", "PS"},
        StatusRecordCase{"NotListed", kTwoRecords, 1, 0, "", "", ""},
        StatusRecordCase{"EmptyFile", "", 0, 0, "", "", ""},
        StatusRecordCase{"FileWithoutToken", "usblp\nA\nM\nX\n\n", 0, 0, "", "", ""},
        StatusRecordCase{"RestOfTheFirstLineIsIgnored", "port usblp0: ready\nA\nM\nX\n\n", 0, 1,
                         "A", "M", "X"},
        StatusRecordCase{"TokenCountsAnywhere", "usblp0\nlike usblp1\nM\nX\nY\nusblp1\nB\nN\nZ\n\n",
                         1, 1, "M", "X", "Y"},
        StatusRecordCase{"TokenIsNotEndedByTheDigit", "usblp10\nA\nM\nX\n\n", 1, 1, "A", "M", "X"},
        StatusRecordCase{"FirstRecordOfThePortCounts", "usblp0\nA\nM\nX\n\nusblp0\nB\nN\nY\n\n", 0,
                         1, "A", "M", "X"},
        StatusRecordCase{"FirstLineIncomplete", "usblp0", 0, 0, "", "", ""},
        StatusRecordCase{"SecondLineIncomplete", "usblp0\nA", 0, 0, "", "", ""},
        StatusRecordCase{"ThirdLineIncomplete", "usblp0\nA\nM", 0, 0, "", "", ""},
        StatusRecordCase{"FourthLineIncomplete", "usblp0\nA\nM\nX", 0, 0, "", "", ""},
        StatusRecordCase{"FourthLineMissing", "usblp0\nA\nM\n", 0, 0, "", "", ""},
        StatusRecordCase{"FifthLineIsNotRead", "usblp0\nA\nM\nX\n", 0, 1, "A", "M", "X"},
        StatusRecordCase{"EmptyManufacturer", "usblp0\n\nM\nX\n\n", 0, 1, "", "M", "X"},
        StatusRecordCase{"EmptyCommandSet", "usblp0\nA\nM\n\n\n", 0, 1, "A", "M", ""},
        StatusRecordCase{"NothingIsTrimmed", "usblp0\n A \n M \n X \n\n", 0, 1, " A ", " M ",
                         " X "},
        StatusRecordCase{"CarriageReturnsAreKept", "usblp0\r\nA\r\nM\r\nX\r\n\r\n", 0, 1, "A\r",
                         "M\r", "X\r"},
        StatusRecordCase{"TextEndsAtAZeroByte", std::string("usblp0\nA\nM\0X\n\n", 14), 0, 0, "",
                         "", ""},
        StatusRecordCase{"ManufacturerOfFifteen", "usblp0\n" + std::string(15, 'k') + "\nM\nX\n\n",
                         0, 1, std::string(15, 'k'), "M", "X"},
        StatusRecordCase{"ManufacturerOfSixteenIsCut",
                         "usblp0\n" + std::string(15, 'k') + "K\nM\nX\n\n", 0, 1,
                         std::string(15, 'k'), "M", "X"},
        StatusRecordCase{"ManufacturerOfTwentyIsCut", "usblp0\nABCDEFGHIJKLMNOPQRST\nM\nX\n\n", 0,
                         1, "ABCDEFGHIJKLMNO", "M", "X"},
        StatusRecordCase{"ModelOfSixtyThree", "usblp0\nA\n" + std::string(63, 'm') + "\nX\n\n", 0,
                         1, "A", std::string(63, 'm'), "X"},
        StatusRecordCase{"ModelOfSixtyFourIsCut", "usblp0\nA\n" + std::string(63, 'm') + "M\nX\n\n",
                         0, 1, "A", std::string(63, 'm'), "X"},
        StatusRecordCase{"RecordEndsWithTheLargestFile", std::string(40951, '\n') + "usblp0\nA\n",
                         0, 0, "", "", ""},
        StatusRecordCase{"RecordFitsIntoTheLargestFile",
                         std::string(40947, '\n') + "usblp0\nA\nM\nX\n", 0, 1, "A", "M", "X"}),
    CaseName());

TEST_F(GetTxtData, CommandSetIsCutAfterFiveHundredAndElevenCharacters) {
  // A text cannot be made from so long a line; the pdl line shows how far it was read.
  Get("usblp0\nA\nM\n" + std::string(510, ',') + "X\n\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ValueOf("pdl"), "application/X");
  txt = TxtBuffer();
  Get("usblp0\nA\nM\n" + std::string(511, ',') + "X\n\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ValueOf("pdl"), "");
}

TEST_F(GetTxtData, CommandSetOfOneHundredAndNineteenNeverGivesAText) {
  const Log fits = Get("usblp0\nA\nM\n" + std::string(118, 'c') + "\n\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(fits.out, "");
  txt = TxtBuffer();
  const Log fails = Get("usblp0\nA\nM\n" + std::string(119, 'c') + "\n\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(fails.out, "");
  EXPECT_EQ(fails.err, "");
}

class ModelFromDeviceId : public GetTxtData {
 protected:
  Log GetWithId(const std::string& id) {
    fakePrinterDevice.answers = true;
    fakePrinterDevice.id = "\x01\x02" + id;
    return Get("usblp0\nA\nM\nX\n\nusblp6\nX\n\nZ\n\n", 6);
  }
};

TEST_F(ModelFromDeviceId, ModelComesFromThePortsDeviceId) {
  const Log log = GetWithId("MFG:X;MODEL:Y;CMD:Z;");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(fakePrinterDevice.askedForPort, std::vector<int32_t>{6});
  EXPECT_EQ(ValueOf("ty"), "Y");
  EXPECT_EQ(ValueOf("product"), "(X Y)");
  EXPECT_EQ(ValueOf("usb_MDL"), "Y");
  EXPECT_EQ(ValueOf("usb_CMD"), "Z");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

TEST_F(ModelFromDeviceId, ModelAtTheVeryStartOfTheIdCounts) {
  GetWithId("MODEL:Y");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(ValueOf("ty"), "Y");
}

TEST_F(ModelFromDeviceId, IdWithTheShortKeyOnlyGivesNoData) {
  const Log log = GetWithId("MFG:X;MDL:Y;CMD:Z;");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(txt.Text(), "");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

TEST_F(ModelFromDeviceId, KeyThatOnlyEndsInModelGivesNoData) {
  GetWithId("MFG:X;XMODEL:Y;CMD:Z;");
  EXPECT_EQ(result, 0);
}

TEST_F(ModelFromDeviceId, ModelOfSixtyThreeCharactersIsTakenWhole) {
  GetWithId("MODEL:" + std::string(63, 'y') + ";");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(ValueOf("ty"), std::string(63, 'y'));
}

TEST_F(ModelFromDeviceId, ModelOfSixtyFourCharactersIsNotCutButGivesNoData) {
  GetWithId("MODEL:" + std::string(64, 'y') + ";");
  EXPECT_EQ(result, 0);
}

TEST_F(ModelFromDeviceId, EmptyModelInTheIdIsTaken) {
  GetWithId("MFG:X;MODEL:;");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(ValueOf("ty"), "");
}

TEST_F(ModelFromDeviceId, HpInTheModelOfTheIdSelectsTheHpPriority) {
  GetWithId("MODEL:HP 5;");
  EXPECT_EQ(ValueOf("priority"), "10");
}

TEST_F(ModelFromDeviceId, DeviceThatDoesNotAnswerGivesNoData) {
  Get("usblp6\nX\n\nZ\n\n", 6);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(txt.Text(), "");
}

TEST_F(ModelFromDeviceId, DeviceIsAskedAlthoughTheCommandSetIsMissing) {
  fakePrinterDevice.answers = true;
  fakePrinterDevice.id = "  MODEL:Y;";
  Get("usblp6\nX\n\nZ", 6);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(fakePrinterDevice.askedForPort.size(), 1u);
}

TEST_F(ModelFromDeviceId, DeviceIsNotAskedWhenTheLineIsNotComplete) {
  Get("usblp6\nX\n", 6);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(fakePrinterDevice.askedForPort.empty());
}

}  // namespace
