#include "printer/printer_device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <functional>
#include <string>

#include "tests/support/fault.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_namespace.h"

namespace {

// Answers the driver's request in its place; empty: the kernel does.
std::function<int(int descriptor, unsigned long request, char* id)> driver;

class PrinterDevice : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(EnterOwnMounts()) << strerror(errno);
    ASSERT_TRUE(MountOwnDev()) << strerror(errno);
  }
  void TearDown() override { driver = nullptr; }

  Log Read(int32_t port) {
    return LogOf([&] { id = ReadDeviceId(port); });
  }

  HeapText id;
};

TEST_F(PrinterDevice, MissingNodeIsLogged) {
  const Log log = Read(0);
  EXPECT_EQ(id, nullptr);
  EXPECT_EQ(log.err, "[Bonjour] no usb device: No such file or directory\n");
  EXPECT_EQ(log.out, "");
}

TEST_F(PrinterDevice, NodeThatRefusesTheRequestIsLogged) {
  ASSERT_TRUE(WriteFile("/dev/usblp0", "no printer"));
  const Log log = Read(0);
  EXPECT_EQ(id, nullptr);
  EXPECT_EQ(log.err, "[Bonjour] ioctl printer failed: Inappropriate ioctl for device\n");
  EXPECT_EQ(log.out, "");
}

TEST_F(PrinterDevice, PathHoldsThePort) {
  for (int32_t port = 0; port < 10; ++port) {
    const std::string path = "/dev/usblp" + std::to_string(port);
    ASSERT_TRUE(WriteFile(path, ""));
    EXPECT_EQ(Read(port).err, "[Bonjour] ioctl printer failed: Inappropriate ioctl for device\n");
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(Read(port).err, "[Bonjour] no usb device: No such file or directory\n");
  }
}

TEST_F(PrinterDevice, IdIsWhatTheDriverAnswersWithZerosAfterIt) {
  ASSERT_TRUE(WriteFile("/dev/usblp7", ""));
  driver = [](int, unsigned long, char* bytes) {
    memcpy(bytes, "\x00\x0aMODEL:Y;", 10);
    return 0;
  };
  const Log log = Read(7);
  ASSERT_NE(id, nullptr);
  EXPECT_EQ(std::string(id.get(), 512),
            std::string("\x00\x0aMODEL:Y;", 10) + std::string(502, '\0'));
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(log.out, "");
}

TEST_F(PrinterDevice, DriverMayFillTheWholeBlock) {
  ASSERT_TRUE(WriteFile("/dev/usblp0", ""));
  driver = [](int, unsigned long, char* bytes) {
    memset(bytes, 'a', 512);
    return 512;
  };
  Read(0);
  ASSERT_NE(id, nullptr);
  EXPECT_EQ(std::string(id.get(), 512), std::string(512, 'a'));
}

TEST_F(PrinterDevice, RequestIsTheDriversReadOfFiveHundredAndTwelveBytes) {
  ASSERT_TRUE(WriteFile("/dev/usblp0", ""));
  unsigned long asked = 0;
  driver = [&](int, unsigned long request, char*) {
    asked = request;
    return 0;
  };
  Read(0);
#if defined(__mips__) || defined(__powerpc__) || defined(__sparc__)
  EXPECT_EQ(asked & 0xffffffffUL, 0x42005001UL);
#else
  EXPECT_EQ(asked & 0xffffffffUL, 0x82005001UL);
#endif
}

TEST_F(PrinterDevice, NodeIsOpenedForReadingAndWriting) {
  ASSERT_TRUE(WriteFile("/dev/usblp0", ""));
  int mode = -1;
  driver = [&](int descriptor, unsigned long, char*) {
    mode = fcntl(descriptor, F_GETFL) & O_ACCMODE;
    return 0;
  };
  Read(0);
  EXPECT_EQ(mode, O_RDWR);
}

TEST_F(PrinterDevice, NodeIsClosedAfterAnAnswerAndAfterARefusal) {
  ASSERT_TRUE(WriteFile("/dev/usblp0", ""));
  for (const int result : {0, -1}) {
    int used = -1;
    driver = [&](int descriptor, unsigned long, char*) {
      used = descriptor;
      errno = EIO;
      return result;
    };
    Read(0);
    ASSERT_GE(used, 0);
    EXPECT_EQ(fcntl(used, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
  }
}

TEST_F(PrinterDevice, RefusalIsLoggedWithTheDriversOwnError) {
  ASSERT_TRUE(WriteFile("/dev/usblp0", ""));
  driver = [](int, unsigned long, char*) {
    errno = EIO;
    return -1;
  };
  EXPECT_EQ(Read(0).err, "[Bonjour] ioctl printer failed: Input/output error\n");
  EXPECT_EQ(id, nullptr);
}

TEST_F(PrinterDevice, LackOfMemoryIsLoggedAndTheDriverNotAsked) {
  ASSERT_TRUE(WriteFile("/dev/usblp0", ""));
  int asked = 0;
  driver = [&](int, unsigned long, char*) {
    ++asked;
    return 0;
  };
  callocFault.FailCall(1);
  const Log log = Read(0);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(id, nullptr);
  EXPECT_EQ(log.err, "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(asked, 0);
}

}  // namespace

// Every ioctl(2) of the module under test passes here.
extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  char* bytes = va_arg(arguments, char*);
  va_end(arguments);
  if (driver) return driver(descriptor, request, bytes);
  return static_cast<int>(syscall(SYS_ioctl, descriptor, request, bytes));
}
