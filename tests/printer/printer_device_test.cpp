#include "printer/printer_device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/support/fault.h"
#include "tests/support/output.h"

namespace {

// The printer is on port 7.
class PrinterDevice : public testing::Test {
 protected:
  PrinterDevice() {
    onOpen = [](const std::string& path, int flags) {
      EXPECT_EQ(flags, O_RDWR);
      if (path == "/dev/usblp7") return dup(STDOUT_FILENO);
      errno = ENOENT;
      return -1;
    };
  }
  ~PrinterDevice() override {
    onOpen = nullptr;
    onIoctl = nullptr;
  }

  void ExpectFailure(int32_t port, const std::string& message) {
    const Log log = LogOf([&] { EXPECT_EQ(ReadDeviceId(port), nullptr); });
    EXPECT_EQ(log.err, message);
    EXPECT_EQ(log.out, "");
  }

  void ExpectId(const std::string& id) {
    HeapText read;
    const Log log = LogOf([&] { read = ReadDeviceId(7); });
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(std::string(read.get(), 512), id);
    EXPECT_EQ(log.err + log.out, "");
  }
};

TEST_F(PrinterDevice, MissingNodeIsLogged) {
  ExpectFailure(0, "[Bonjour] no usb device: No such file or directory\n");
}

TEST_F(PrinterDevice, IdIsWhatTheDriverAnswersToItsReadOfUpTo512Bytes) {
  unsigned long asked = 0;
  onIoctl = [&](int, unsigned long request, char* bytes) {
    asked = request & 0xffffffffUL;
    memset(bytes, 'a', 512);
    return 512;
  };
  ExpectId(std::string(512, 'a'));
#if defined(__mips__) || defined(__powerpc__) || defined(__sparc__)
  EXPECT_EQ(asked, 0x42005001UL);
#else
  EXPECT_EQ(asked, 0x82005001UL);
#endif
}

TEST_F(PrinterDevice, NodeIsClosedAfterAnAnswerAndAfterARefusalWhichIsLoggedWithItsOwnError) {
  int used = -1;
  int result = 0;
  onIoctl = [&](int descriptor, unsigned long, char*) {
    used = descriptor;
    errno = EIO;
    return result;
  };
  onClose = [](int) { errno = EBADF; };
  ExpectId(std::string(512, '\0'));
  EXPECT_EQ(fcntl(used, F_GETFD), -1);
  result = -1;
  ExpectFailure(7, "[Bonjour] ioctl printer failed: Input/output error\n");
  EXPECT_EQ(fcntl(used, F_GETFD), -1);
  onClose = nullptr;
}

TEST_F(PrinterDevice, LackOfMemoryIsLoggedAndTheDriverNotAsked) {
  onIoctl = [](int, unsigned long, char*) {
    ADD_FAILURE() << "asked";
    return 0;
  };
  callocFault.FailCall(1);
  ExpectFailure(7, "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_TRUE(callocFault.HasStruck());
}

}  // namespace
