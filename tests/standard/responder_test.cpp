// The operations that app/ and printer/ call, and the thread behind them, on a bridge of the test's
// own.
#include "base/responder.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "printer/monitor.h"
#include "standard/process.h"
#include "tests/standard/other_host.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

// In place of standard/process.cpp: the test goes on.
void EndProcess() {}

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTxt[] = "txtvers=1\nty=x";
constexpr int32_t kTxtLength = sizeof(kTxt) - 1;

uint32_t Register(const char* name, const char* type = "_ipp._tcp", uint32_t port = 631) {
  return RegisterOneService(name, type, ".local", kTxt, kTxtLength, port);
}

uint32_t Unregister(const char* name) {
  return UnRegisterOneService(name, "_ipp._tcp", ".local", nullptr, 0, 631);
}

std::string DeviceName() {
  char name[kDeviceNameSize] = {};
  return GetDeviceName(name, kDeviceNameMax);
}

// Once in a process, as the tests are.
class ResponderTest : public testing::Test {
 protected:
  ~ResponderTest() override { Stop(); }

  void Start() {
    thread = std::thread([this] { BonjourServiceInit(&start); });
  }

  void StartOnBridge() {
    AddBridge("br0");
    SetAddress("br0", "192.168.77.1");
    SetInterfaceUp("br0", true);
    host.emplace("br0");
    Start();
    WaitForName();
  }

  static void WaitForName() {
    const Clock::time_point end = Clock::now() + std::chrono::seconds(30);
    while (GetBonjourInitStatus() == 0 && Clock::now() < end) std::this_thread::yield();
    ASSERT_EQ(GetBonjourInitStatus(), 1u);
  }

  void Stop() {
    if (!thread.joinable()) return;
    bTerminate.Set(1);
    EndReceive();
    thread.join();
  }

  const OwnNetwork network;
  CapturedOutput output;
  ResponderStartRecord start = {"T5140_00-11-22-AA-BB-CC", 1};
  std::optional<OtherHost> host;
  std::thread thread;
};

TEST_F(ResponderTest, NameIsReportedOnceItIsClaimed) {
  StartOnBridge();
  EXPECT_EQ(DeviceName(), "T5140_00-11-22-AA-BB-CC");
  Stop();
  EXPECT_EQ(output.Stdout(),
            "[Bonjour] Interface: br0 is connected\n"
            "[Bonjour] default device name = T5140_00-11-22-AA-BB-CC\n"
            "[Bonjour] Answer Name Start (192.168.77.1)\n");
  EXPECT_EQ(output.Stderr(), "");
}

TEST_F(ResponderTest, ServiceIsRegisteredOnceAndWithdrawnOnce) {
  StartOnBridge();
  EXPECT_EQ(Register("A"), 1u);
  EXPECT_EQ(Register("A"), 0u);
  EXPECT_EQ(Unregister("A"), 1u);
  EXPECT_EQ(Unregister("A"), 0u);
  Stop();
  EXPECT_EQ(Register("A"), 0u);
  const std::string lines = output.Stdout();
  const std::string end =
      "[Bonjour] this service: A _ipp._tcp .local is already registered\n"
      "[Bonjour] SERVICE_ADD error\n"
      "[Bonjour] this service: A _ipp._tcp .local is not registered\n"
      "[Bonjour] SERVICE_REMOVE error\n"
      "[Bonjour] SERVICE_ADD error\n";
  EXPECT_EQ(lines.substr(lines.size() - end.size()), end);
}

TEST_F(ResponderTest, TextsBelongToTheirOwner) {
  StartOnBridge();
  std::string txt = kTxt;
  EXPECT_EQ(RegisterOneService("A", "_ipp._tcp", ".local", txt.data(), kTxtLength, 631), 1u);
  EXPECT_FALSE(IsTextRegistered(txt.data()));
}

TEST_F(ResponderTest, TheMonitorKeepsNoTextsThatAreCopied) {
  StartOnBridge();
  PrinterPresence previous = {};
  PrinterPresence both = {};
  both.present[0] = both.present[1] = 1;
  ApplyPresence(previous, both);
  EXPECT_NE(printerTxtIpp[0], nullptr);
  EXPECT_EQ(printerTxtIpp[0], printerTxtPdl[1]);
  ApplyPresence(previous, {});
  EXPECT_EQ(printerTxtIpp[0], nullptr);
}

TEST_F(ResponderTest, ParametersThatAreNoneAreRefused) {
  const std::string longName(129, 'x');
  const std::string longType = "_" + std::string(32, 'x');
  EXPECT_EQ(Register(nullptr), 0u);
  EXPECT_EQ(Register(""), 0u);
  EXPECT_EQ(Register(longName.c_str()), 0u);
  EXPECT_EQ(Register("A", nullptr), 0u);
  EXPECT_EQ(Register("A", longType.c_str()), 0u);
  EXPECT_EQ(Register("A", "_ipp._tcp", 65536), 0u);
  EXPECT_EQ(RegisterOneService("A", "_ipp._tcp", "local.", kTxt, kTxtLength, 631), 0u);
  EXPECT_EQ(RegisterOneService("A", "_ipp._tcp", ".local", kTxt, 0, 631), 0u);
  EXPECT_EQ(RegisterOneService("A", "_ipp._tcp", ".local", kTxt, -1, 631), 0u);
  EXPECT_EQ(RegisterOneService("A", "_ipp._tcp", ".local", nullptr, 1, 631), 0u);
  EXPECT_EQ(UnRegisterOneService("A", "_ipp._tcp", ".local", nullptr, 0, 65536), 0u);
  std::string lines;
  for (int i = 0; i < 11; ++i) lines += "[Bonjour] Input parameter error\n";
  EXPECT_EQ(output.Stdout(), lines);
}

TEST_F(ResponderTest, WithoutALinkAStopEndsTheWaitForTheName) {
  Start();
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
  bTerminate.Set(1);
  EXPECT_EQ(GetBonjourInitStatus(), 2u);
  EndReceive();
  thread.join();
}

// When each IPv4 response with the address begins to leave; the first is kept back. The responder's
// thread writes it.
std::array<Clock::time_point, 2> leaving;
std::atomic<size_t> responses;

void KeepFirstResponseBack(const void* bytes, size_t length, const sockaddr* to) {
  constexpr char kAddressRecord[] = "\0\1\x80\1\0\0\0\x78\0\4\xC0\xA8\x4D\1";
  const std::string_view packet(static_cast<const char*>(bytes), length);
  const bool isResponse = packet[2] != 0;
  if (!isResponse || to->sa_family != AF_INET ||
      packet.find({kAddressRecord, sizeof(kAddressRecord) - 1}) == std::string_view::npos) {
    return;
  }
  const size_t number = responses++;
  if (number == 0) std::this_thread::sleep_for(std::chrono::milliseconds(300));
  if (number < leaving.size()) leaving[number] = Clock::now();
}

// RFC 6762, section 6. A busy machine may let the responder wait between reading the clock and
// sending.
TEST_F(ResponderTest, ASecondPassesFromTheTimeAtWhichARecordHasLeft) {
  StartOnBridge();
  onSendTo = KeepFirstResponseBack;
  const Bytes question = Wire(
      "00 00 00 00 00 01 00 00 00 00 00 00"
      "17 'T5140_00-11-22-AA-BB-CC' 05 'local' 00 00 01 00 01");
  const Clock::time_point end = Clock::now() + std::chrono::seconds(30);
  while (responses < 2 && Clock::now() < end) {
    host->SendMulticast("192.168.77.9", question);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Stop();
  onSendTo = nullptr;
  ASSERT_GE(responses, 2u);
  EXPECT_GE(leaving[1] - leaving[0], std::chrono::seconds(1));
}

// Whoever registers never waits for the link, and ThreadSanitizer looks on.
TEST_F(ResponderTest, ServicesComeAndGoWhileQuestionsAreAnswered) {
  StartOnBridge();
  std::atomic<bool> isOver{false};
  std::thread asking([&] {
    const Bytes question =
        Wire("00 00 00 00 00 01 00 00 00 00 00 00 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01");
    while (!isOver.load()) host->SendMulticast("192.168.77.9", question);
  });
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Register("A"), 1u);
    EXPECT_EQ(Unregister("A"), 1u);
    EXPECT_EQ(DeviceName(), "T5140_00-11-22-AA-BB-CC");
  }
  isOver.store(true);
  asking.join();
}

}  // namespace
