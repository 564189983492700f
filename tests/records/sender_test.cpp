// SendPacket: what goes out, when, and from which memory.
#include "records/sender.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <mutex>

#include "tests/support/bytes.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;
using testing::Optional;

Bytes NumberedBytes(size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i % 251 + 1);
  return bytes;
}

TEST(FillSendJob, CopiesAtMost1518BytesOfThePacketAndSendsAtMost1520) {
  struct Row {
    int32_t length;
    size_t copied;  // bytes of the packet in the job; no more are read
    size_t sent;
  };
  for (const Row& row :
       {Row{1, 1, 1}, Row{1517, 1517, 1517}, Row{1518, 1518, 1518}, Row{1519, 1518, 1519},
        Row{1520, 1518, 1520}, Row{1521, 1518, 1520}, Row{INT32_MAX, 1518, 1520}}) {
    ExactBytes packet(NumberedBytes(row.copied));
    SendJob job;
    memset(&job, 0xEE, sizeof(job));
    FillSendJob(job, packet.Data(), row.length, 7, SocketAddress("224.0.0.251", 5353));
    // Zeros after the copied bytes as far as they are sent, and nothing written beyond.
    Bytes expected = NumberedBytes(row.copied);
    expected.resize(row.sent);
    expected.resize(1520, 0xEE);
    EXPECT_EQ(Hex(job.data), Hex(expected));
    EXPECT_EQ(BytesToSend(job), row.sent);
    EXPECT_EQ(job.length, row.length);
    EXPECT_EQ(job.socket, 7);
    EXPECT_EQ(ntohs(job.destination.sin_port), 5353);
    EXPECT_STREQ(inet_ntoa(job.destination.sin_addr), "224.0.0.251");
    EXPECT_EQ(job.destination.sin_family, AF_INET);
  }
}

std::mutex pauseMutex;
std::vector<unsigned> pauses;

void RecordPause(unsigned microseconds) {
  const std::lock_guard lock(pauseMutex);
  pauses.push_back(microseconds);
}

class SendPacketTest : public testing::Test {
 protected:
  SendPacketTest() {
    ForgetThreads();
    pauses.clear();
    onUsleep = RecordPause;
  }
  // The sockets stay open until the last sender has gone.
  ~SendPacketTest() override {
    WaitForEndedThreads(StartedThreads().size());
    onUsleep = nullptr;
  }

  void Send(const Bytes& packet) const {
    SendPacket(packet.data(), static_cast<int32_t>(packet.size()), source.Get(), destination);
  }
  // One packet is armed to fail for want of memory, which must not be asked for.
  void SendWithoutMemory(const Bytes& packet) const {
    mmapFault.FailCall(1);
    Send(packet);
    EXPECT_FALSE(mmapFault.HasStruck());
    mmapFault.FailCall(0);
  }
  void ExpectThrice(const Bytes& packet) const {
    for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(packet));
  }

  const OwnNetwork network;
  const UdpSocket source{"127.0.0.1"};
  const UdpSocket sink{"127.0.0.2"};
  const sockaddr_in destination = sink.Name();
};

TEST_F(SendPacketTest, SendsThreeTimesWithAPauseAfterEach) {
  static int sinkDescriptor;
  static std::vector<int> waiting;
  sinkDescriptor = sink.Get();
  onUsleep = [](unsigned microseconds) {
    RecordPause(microseconds);
    char byte;
    int count = 0;
    while (recv(sinkDescriptor, &byte, 1, MSG_DONTWAIT) == 1) ++count;
    waiting.push_back(count);
  };
  Send(Wire("01"));
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_THAT(waiting, ElementsAre(1, 1, 1));
  EXPECT_THAT(pauses, ElementsAre(250000, 250000, 250000));
}

TEST_F(SendPacketTest, PacketOfNothingStartsNoThreadAndLogsNothing) {
  CapturedOutput output;
  for (const int32_t length : {0, -1, INT32_MIN}) {
    SendPacket(nullptr, length, source.Get(), destination);
  }
  EXPECT_EQ(StartedThreads().size(), 0u);
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
}

TEST_F(SendPacketTest, SenderIsDetachedAndHasASmallStack) {
  Send(Wire("01"));
  ASSERT_EQ(StartedThreads().size(), 1u);
  EXPECT_EQ(StartedThreads()[0].detachState, PTHREAD_CREATE_DETACHED);
#if defined(__mips__) || defined(__aarch64__)
  EXPECT_EQ(StartedThreads()[0].stackSize, 131072u);  // glibc allows no less
#else
  EXPECT_EQ(StartedThreads()[0].stackSize, 65536u);
#endif
}

TEST_F(SendPacketTest, SocketIsInUseFromTheStartOfTheSenderToItsEnd) {
  static std::vector<bool> inUse;
  onCreateThread = [] { inUse.push_back(IsAnyoneSending()); };
  onUsleep = [](unsigned) { inUse.push_back(IsAnyoneSending()); };
  EXPECT_FALSE(IsAnyoneSending());
  Send(Wire("01"));
  ASSERT_TRUE(WaitForEndedThreads(1));
  onCreateThread = nullptr;
  EXPECT_THAT(inUse, ElementsAre(true, true, true, true));
  EXPECT_FALSE(IsAnyoneSending());
}

TEST_F(SendPacketTest, NothingIsSentOrLoggedOnceTheSocketIsToBeClosed) {
  CapturedOutput output;
  CloseSending();
  Send(Wire("01"));
  EXPECT_EQ(StartedThreads().size(), 0u);
  EXPECT_FALSE(IsAnyoneSending());
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
}

TEST_F(SendPacketTest, FailedTransmissionIsLoggedOnceAndNotRepeated) {
  static int descriptor;
  descriptor = dup(source.Get());
  onUsleep = [](unsigned microseconds) {
    RecordPause(microseconds);
    close(descriptor);
  };
  CapturedOutput output;
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, descriptor, destination);
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_EQ(output.Stderr(), "[Bonjour] send packet error: Bad file descriptor\n");
  EXPECT_EQ(output.Stdout(), "");
  EXPECT_THAT(sink.Receive(), Optional(packet));
  EXPECT_TRUE(sink.HasNoPacket());
  EXPECT_THAT(pauses, ElementsAre(250000));
  EXPECT_FALSE(IsAnyoneSending());
}

TEST_F(SendPacketTest, WithoutMemoryNothingIsSentOrLogged) {
  CapturedOutput output;
  mmapFault.FailCall(1);
  Send(Wire("01"));
  EXPECT_TRUE(mmapFault.HasStruck());
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
  EXPECT_EQ(StartedThreads().size(), 0u);
  EXPECT_FALSE(IsAnyoneSending());
}

// Whether the pauses found the job of the sender still in use: whoever sends then needs another
// one. Once it is free they look no further.
std::vector<int> held;

void LookForTheJob(unsigned /*microseconds*/) {
  mmapFault.FailCall(1);
  const uint8_t other = 2;
  SendPacket(&other, 1, 0, {});
  held.push_back(mmapFault.HasStruck());
  if (!mmapFault.HasStruck()) onUsleep = RecordPause;
  mmapFault.FailCall(0);
}

TEST_F(SendPacketTest, JobOfAPacketOf768BytesIsFreeInItsFirstPause) {
  onUsleep = LookForTheJob;
  Send(NumberedBytes(768));
  ASSERT_TRUE(WaitForEndedThreads(2));
  EXPECT_THAT(held, ElementsAre(0));
  ExpectThrice(NumberedBytes(768));
}

TEST_F(SendPacketTest, JobOfALongerPacketIsInUseUntilTheLastPause) {
  onUsleep = LookForTheJob;
  Send(NumberedBytes(769));
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_THAT(held, ElementsAre(1, 1, 1));
  ExpectThrice(NumberedBytes(769));
}

TEST_F(SendPacketTest, WithoutAThreadThePacketIsDroppedAndLoggedAndItsJobCarriesTheNext) {
  for (int i = 0; i < 10; ++i) {
    CapturedOutput output;
    threadFault.FailCall(1);
    Send(Wire("01 02"));
    EXPECT_TRUE(threadFault.HasStruck());
    EXPECT_EQ(output.Stderr(), "[Bonjour] pthread_create: Resource temporarily unavailable\n");
    EXPECT_EQ(output.Stdout(), "");
    EXPECT_FALSE(IsAnyoneSending());
    EXPECT_EQ(mappedBlocks, 1);
  }
  SendWithoutMemory(Wire("03"));
  // Nothing of the lost packets is in it.
  ExpectThrice(Wire("03"));
}

// The page in which the sender is held when it is about to copy its packet.
uint8_t* page;
std::atomic<bool> isHeld;
std::atomic<bool> mayGoOn;

void ProtectPage(int protection) {
  mprotect(page, static_cast<size_t>(sysconf(_SC_PAGESIZE)), protection);
}

TEST_F(SendPacketTest, JobIsNotFreeBeforeItsPacketIsCopied) {
  // The job's bytes end where the page ends, which nobody may read once the sender is started; the
  // rest of the job, after it, may be read.
  const auto pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  page = static_cast<uint8_t*>(std::aligned_alloc(pageSize, 3 * pageSize)) + pageSize;
  nextMapping = page + pageSize - sizeof(SendJob::data);
  onCreateThread = [] {
    onCreateThread = nullptr;
    ProtectPage(PROT_NONE);
  };
  signal(SIGSEGV, [](int) {
    ProtectPage(PROT_READ | PROT_WRITE);
    isHeld = true;
    while (!mayGoOn) sched_yield();
  });
  Send(Wire("01 02 03"));
  while (!isHeld) sched_yield();
  Send(Wire("04 05 06"));
  ExpectThrice(Wire("04 05 06"));
  mayGoOn = true;
  ExpectThrice(Wire("01 02 03"));
  signal(SIGSEGV, SIG_DFL);
}

std::atomic<bool> mayGo;

// Senders of long packets wait in their first pause until they are let go.
TEST_F(SendPacketTest, EachSenderOfALongPacketHasAJobOfItsOwnAndFourAreKept) {
  onUsleep = [](unsigned) { mayGo.wait(false); };
  const Bytes packet = NumberedBytes(769);
  for (int i = 0; i < 15; ++i) Send(packet);
  EXPECT_EQ(mappedBlocks, 15);
  mayGo = true;
  mayGo.notify_all();
  ASSERT_TRUE(WaitForEndedThreads(15));
  EXPECT_EQ(mappedBlocks, 4);

  mayGo = false;
  for (int i = 0; i < 4; ++i) SendWithoutMemory(packet);
  mmapFault.FailCall(1);
  Send(packet);
  EXPECT_TRUE(mmapFault.HasStruck());
  EXPECT_EQ(StartedThreads().size(), 19u);
  mayGo = true;
  mayGo.notify_all();
}

}  // namespace
