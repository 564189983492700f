// SendPacket: what goes out, when, and from which memory.
#include "records/sender.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <thread>

#include "tests/support/bytes.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;
using testing::Optional;

const sockaddr_in kDestination = SocketAddress("224.0.0.251", 5353);

Bytes NumberedBytes(size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i % 251 + 1);
  return bytes;
}

// The job of one packet

TEST(FillSendJob, CopiesThePacket) {
  SendJob job;
  memset(&job, 0xEE, sizeof(job));
  const Bytes packet = Wire("01 02 03");
  FillSendJob(job, packet.data(), 3, 7, kDestination);
  EXPECT_EQ(Hex(job.data), WireHex("01 02 03 1517*EE"));
  EXPECT_EQ(job.length, 3);
  EXPECT_EQ(job.socket, 7);
  EXPECT_EQ(ntohs(job.destination.sin_port), 5353);
  EXPECT_STREQ(inet_ntoa(job.destination.sin_addr), "224.0.0.251");
  EXPECT_EQ(job.destination.sin_family, AF_INET);
}

struct LengthRow {
  int32_t length;
  size_t read;    // bytes that the packet must hold
  size_t copied;  // bytes of the packet in the job
  size_t sent;
};

class SendJobLengthTest : public testing::TestWithParam<LengthRow> {};

INSTANTIATE_TEST_SUITE_P(Lengths, SendJobLengthTest,
                         testing::ValuesIn(std::initializer_list<LengthRow>{
                             {1, 1, 1, 1},
                             {1517, 1517, 1517, 1517},
                             {1518, 1518, 1518, 1518},
                             {1519, 1518, 1518, 1519},
                             {1520, 1518, 1518, 1520},
                             {1521, 1518, 1518, 1520},
                             {4554, 1518, 1518, 1520},
                             {9000, 1518, 1518, 1520},
                         }),
                         [](const auto& row) { return std::to_string(row.param.length); });

TEST_P(SendJobLengthTest, CopiesAtMost1518BytesAndSendsAtMost1520) {
  const LengthRow& row = GetParam();
  ExactBytes packet(NumberedBytes(row.read));
  SendJob job;
  memset(&job, 0xEE, sizeof(job));
  FillSendJob(job, packet.Data(), row.length, 7, kDestination);
  // Zeros after the copied bytes as far as they are sent, and nothing written beyond.
  Bytes expected = NumberedBytes(row.copied);
  expected.resize(row.sent);
  expected.resize(1520, 0xEE);
  EXPECT_EQ(Hex(job.data), Hex(expected));
  EXPECT_EQ(job.length, row.length);
  EXPECT_EQ(BytesToSend(job), row.sent);
}

std::mutex pauseMutex;
std::vector<unsigned> pauses;

void RecordPause(unsigned microseconds) {
  const std::lock_guard lock(pauseMutex);
  pauses.push_back(microseconds);
}

std::vector<unsigned> Pauses() {
  const std::lock_guard lock(pauseMutex);
  return pauses;
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

  const OwnNetwork network;
  const UdpSocket source{"127.0.0.1"};
  const UdpSocket sink{"127.0.0.2"};
};

// What is transmitted, and when

TEST_F(SendPacketTest, SendsThreeTimesWithAPauseAfterEach) {
  const Bytes packet = Wire("01 02 03");
  SendPacket(packet.data(), 3, source.Get(), sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(1));
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(packet));
  EXPECT_TRUE(sink.HasNoPacket());
  EXPECT_THAT(Pauses(), ElementsAre(250000, 250000, 250000));
}

TEST_F(SendPacketTest, EachTransmissionComesBeforeItsPause) {
  static int sinkDescriptor;
  static std::vector<int> waiting;
  waiting.clear();
  sinkDescriptor = sink.Get();
  onUsleep = [](unsigned) {
    char byte;
    int count = 0;
    while (recv(sinkDescriptor, &byte, 1, MSG_DONTWAIT) == 1) ++count;
    waiting.push_back(count);
  };
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, source.Get(), sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_THAT(waiting, ElementsAre(1, 1, 1));
}

TEST_F(SendPacketTest, PacketOf1518BytesGoesOutWhole) {
  const Bytes packet = NumberedBytes(1518);
  SendPacket(packet.data(), 1518, source.Get(), sink.Name());
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(packet));
}

TEST_F(SendPacketTest, Byte1519GoesOutAsZero) {
  SendPacket(ExactBytes(NumberedBytes(1518)).Data(), 1519, source.Get(), sink.Name());
  Bytes expected = NumberedBytes(1518);
  expected.push_back(0);
  EXPECT_THAT(sink.Receive(), Optional(expected));
}

TEST_F(SendPacketTest, Bytes1519And1520GoOutAsZeros) {
  SendPacket(ExactBytes(NumberedBytes(1518)).Data(), 1520, source.Get(), sink.Name());
  Bytes expected = NumberedBytes(1518);
  expected.resize(1520);
  EXPECT_THAT(sink.Receive(), Optional(expected));
}

TEST_F(SendPacketTest, NoMoreIsSentThan1520Bytes) {
  SendPacket(ExactBytes(NumberedBytes(1518)).Data(), 4554, source.Get(), sink.Name());
  Bytes expected = NumberedBytes(1518);
  expected.resize(1520);
  EXPECT_THAT(sink.Receive(), Optional(expected));
}

class NothingToSendTest : public SendPacketTest, public testing::WithParamInterface<int32_t> {};

INSTANTIATE_TEST_SUITE_P(Lengths, NothingToSendTest, testing::Values(0, -1, INT32_MIN));

TEST_P(NothingToSendTest, StartsNoThreadAndLogsNothing) {
  CapturedOutput output;
  SendPacket(nullptr, GetParam(), source.Get(), sink.Name());
  EXPECT_EQ(StartedThreads().size(), 0u);
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
}

TEST_F(SendPacketTest, CallerMayOverwriteThePacketAtOnce) {
  const Bytes original = Wire("01 02 03");
  Bytes packet = original;
  SendPacket(packet.data(), 3, source.Get(), sink.Name());
  packet.assign(3, 0xEE);
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(original));
}

TEST_F(SendPacketTest, SenderIsDetachedAndHasASmallStack) {
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, source.Get(), sink.Name());
  ASSERT_EQ(StartedThreads().size(), 1u);
  EXPECT_EQ(StartedThreads()[0].detachState, PTHREAD_CREATE_DETACHED);
#if defined(__mips__) || defined(__aarch64__)
  EXPECT_EQ(StartedThreads()[0].stackSize, 131072u);  // glibc allows no less
#else
  EXPECT_EQ(StartedThreads()[0].stackSize, 65536u);
#endif
}

TEST_F(SendPacketTest, ManySendersShareOneSocket) {
  constexpr int kCallers = 4;
  constexpr int kPacketsEach = 8;
  std::vector<std::thread> callers;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      for (int i = 0; i < kPacketsEach; ++i) {
        const Bytes packet(40, static_cast<uint8_t>(caller * kPacketsEach + i));
        SendPacket(packet.data(), 40, source.Get(), sink.Name());
      }
    });
  }
  for (std::thread& caller : callers) caller.join();

  std::map<Bytes, int> seen;
  for (int i = 0; i < 3 * kCallers * kPacketsEach; ++i) {
    const std::optional<Bytes> packet = sink.Receive();
    ASSERT_TRUE(packet.has_value());
    ++seen[*packet];
  }
  EXPECT_EQ(seen.size(), size_t{kCallers * kPacketsEach});
  for (const auto& [packet, count] : seen) EXPECT_EQ(count, 3) << Hex(packet);
  ASSERT_TRUE(WaitForEndedThreads(size_t{kCallers * kPacketsEach}));
  EXPECT_TRUE(sink.HasNoPacket());
  EXPECT_LE(mappedBlocks, 12);
}

// The use of the socket

TEST_F(SendPacketTest, SocketIsInUseBeforeTheSenderIsStarted) {
  static std::vector<bool> inUse;
  inUse.clear();
  onCreateThread = [] { inUse.push_back(IsAnyoneSending()); };
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, source.Get(), sink.Name());
  onCreateThread = nullptr;
  EXPECT_THAT(inUse, ElementsAre(true));
}

TEST_F(SendPacketTest, SocketIsInUseUntilTheSenderHasEnded) {
  static std::vector<bool> inUse;
  inUse.clear();
  onUsleep = [](unsigned) { inUse.push_back(IsAnyoneSending()); };
  EXPECT_FALSE(IsAnyoneSending());
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, source.Get(), sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_THAT(inUse, ElementsAre(true, true, true));
  EXPECT_FALSE(IsAnyoneSending());
}

TEST_F(SendPacketTest, SocketIsNotInUseAfterAFailure) {
  StdoutOf([this] {
    const Bytes packet = Wire("01");
    SendPacket(packet.data(), 1, -1, sink.Name());
    ASSERT_TRUE(WaitForEndedThreads(1));
    EXPECT_FALSE(IsAnyoneSending());
    threadFault.FailCall(1);
    SendPacket(packet.data(), 1, source.Get(), sink.Name());
  });
  EXPECT_TRUE(threadFault.HasStruck());
  EXPECT_FALSE(IsAnyoneSending());
}

TEST_F(SendPacketTest, NothingIsSentOrLoggedOnceTheSocketIsToBeClosed) {
  CapturedOutput output;
  CloseSending();
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, source.Get(), sink.Name());
  EXPECT_EQ(StartedThreads().size(), 0u);
  EXPECT_FALSE(IsAnyoneSending());
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
  EXPECT_TRUE(sink.HasNoPacket());
}

// Failures

TEST_F(SendPacketTest, FailedTransmissionIsLoggedOnceAndNotRepeated) {
  CapturedOutput output;
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, -1, sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_EQ(output.Stderr(), "[Bonjour] send packet error: Bad file descriptor\n");
  EXPECT_EQ(output.Stdout(), "");
  EXPECT_THAT(Pauses(), ElementsAre());
  EXPECT_FALSE(IsAnyoneSending());
}

TEST_F(SendPacketTest, FailureAfterTheFirstTransmissionDropsTheRest) {
  static int descriptor;
  descriptor = dup(source.Get());
  onUsleep = [](unsigned microseconds) {
    RecordPause(microseconds);
    close(descriptor);
  };
  CapturedOutput output;
  const Bytes packet = Wire("01");
  SendPacket(packet.data(), 1, descriptor, sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_EQ(output.Stderr(), "[Bonjour] send packet error: Bad file descriptor\n");
  EXPECT_THAT(sink.Receive(), Optional(packet));
  EXPECT_TRUE(sink.HasNoPacket());
  EXPECT_THAT(Pauses(), ElementsAre(250000));
}

TEST_F(SendPacketTest, WithoutMemoryNothingIsSentOrLogged) {
  CapturedOutput output;
  const Bytes packet = Wire("01");
  const sockaddr_in destination = sink.Name();
  mmapFault.FailCall(1);
  SendPacket(packet.data(), 1, source.Get(), destination);
  EXPECT_TRUE(mmapFault.HasStruck());
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
  EXPECT_EQ(StartedThreads().size(), 0u);
  EXPECT_TRUE(sink.HasNoPacket());
}

TEST_F(SendPacketTest, WithoutAThreadThePacketIsDroppedAndLogged) {
  CapturedOutput output;
  const Bytes packet = Wire("01");
  threadFault.FailCall(1);
  SendPacket(packet.data(), 1, source.Get(), sink.Name());
  EXPECT_TRUE(threadFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] pthread_create: Resource temporarily unavailable\n");
  EXPECT_EQ(output.Stdout(), "");
  EXPECT_FALSE(IsAnyoneSending());
  EXPECT_TRUE(sink.HasNoPacket());
}

// Jobs that are kept for the next packets

TEST_F(SendPacketTest, JobOfASenderThatEndedCarriesTheNextPacket) {
  const Bytes packet = Wire("01 02");
  SendPacket(packet.data(), 2, source.Get(), sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_EQ(mappedBlocks, 1);
  const sockaddr_in destination = sink.Name();
  mmapFault.FailCall(1);
  SendPacket(packet.data(), 1, source.Get(), destination);
  ASSERT_TRUE(WaitForEndedThreads(2));
  EXPECT_FALSE(mmapFault.HasStruck());
  mmapFault.FailCall(0);
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(packet));
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(Wire("01")));
  EXPECT_EQ(mappedBlocks, 1);
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
  held.clear();
  onUsleep = LookForTheJob;
  const Bytes packet = NumberedBytes(768);
  SendPacket(packet.data(), 768, source.Get(), sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(2));
  EXPECT_THAT(held, ElementsAre(0));
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(packet));
}

TEST_F(SendPacketTest, JobOfALongerPacketIsInUseUntilTheLastPause) {
  held.clear();
  onUsleep = LookForTheJob;
  const Bytes packet = NumberedBytes(769);
  SendPacket(packet.data(), 769, source.Get(), sink.Name());
  ASSERT_TRUE(WaitForEndedThreads(1));
  EXPECT_THAT(held, ElementsAre(1, 1, 1));
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(packet));
}

TEST_F(SendPacketTest, JobOfASenderThatCouldNotBeStartedCarriesTheNextPacket) {
  const CapturedOutput output;
  const Bytes packet = Wire("01 02");
  threadFault.FailCall(1);
  SendPacket(packet.data(), 2, source.Get(), sink.Name());
  ASSERT_TRUE(threadFault.HasStruck());
  const sockaddr_in destination = sink.Name();
  mmapFault.FailCall(1);
  SendPacket(packet.data(), 1, source.Get(), destination);
  EXPECT_FALSE(mmapFault.HasStruck());
  mmapFault.FailCall(0);
  ASSERT_TRUE(WaitForEndedThreads(1));
  // Nothing of the lost packet is in it.
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(Wire("01")));
  EXPECT_TRUE(sink.HasNoPacket());
}

TEST_F(SendPacketTest, AnyNumberOfSendersThatCouldNotBeStartedTakeNoMemory) {
  const CapturedOutput output;
  const Bytes packet = Wire("01");
  const sockaddr_in destination = sink.Name();
  const auto fail = [&] {
    threadFault.FailCall(1);
    SendPacket(packet.data(), 1, source.Get(), destination);
  };
  fail();
  EXPECT_EQ(mappedBlocks, 1);
  for (int i = 0; i < 1000; ++i) fail();
  EXPECT_EQ(mappedBlocks, 1);
}

// A sender that is held when it is about to copy its packet: the job's bytes end where a page ends,
// which nobody may read until then; the rest of the job, after it, may be read.
class HeldSenderTest : public SendPacketTest {
 protected:
  HeldSenderTest() : pageSize(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    sem_init(&isHeld, 0, 0);
    sem_init(&mayGoOn, 0, 0);
    memory = static_cast<uint8_t*>(std::aligned_alloc(pageSize, 3 * pageSize));
    page = memory + pageSize;
    nextMapping = page + pageSize - sizeof(SendJob::data);
    struct sigaction hold = {};
    hold.sa_handler = [](int) {
      mprotect(page, static_cast<size_t>(sysconf(_SC_PAGESIZE)), PROT_READ | PROT_WRITE);
      sem_post(&isHeld);
      sem_wait(&mayGoOn);
    };
    sigaction(SIGSEGV, &hold, &before);
    onCreateThread = [] {
      onCreateThread = nullptr;
      mprotect(page, static_cast<size_t>(sysconf(_SC_PAGESIZE)), PROT_NONE);
    };
  }
  ~HeldSenderTest() override { sigaction(SIGSEGV, &before, nullptr); }

  // False after ten seconds.
  static bool WaitUntilHeld() {
    timespec limit{};
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 10;
    return sem_timedwait(&isHeld, &limit) == 0;
  }

  const size_t pageSize;
  struct sigaction before = {};
  static inline uint8_t* memory;  // stays: the job in it is kept for the next packet
  static inline uint8_t* page;
  static inline sem_t isHeld;
  static inline sem_t mayGoOn;
};

TEST_F(HeldSenderTest, JobIsNotFreeBeforeItsPacketIsCopied) {
  const Bytes first = Wire("01 02 03");
  const Bytes second = Wire("04 05 06");
  const sockaddr_in destination = sink.Name();
  SendPacket(first.data(), 3, source.Get(), destination);
  ASSERT_TRUE(WaitUntilHeld());
  SendPacket(second.data(), 3, source.Get(), destination);
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(second));
  sem_post(&mayGoOn);
  for (int i = 0; i < 3; ++i) EXPECT_THAT(sink.Receive(), Optional(first));
}

// Senders of long packets that wait in their first pause until they are let go.
class WaitingSendersTest : public SendPacketTest {
 protected:
  WaitingSendersTest() {
    mayGo = false;
    onUsleep = [](unsigned) { mayGo.wait(false); };
  }
  ~WaitingSendersTest() override { LetGo(); }

  void Send(size_t count) {
    const Bytes packet = NumberedBytes(769);
    const sockaddr_in destination = sink.Name();
    for (size_t i = 0; i < count; ++i) SendPacket(packet.data(), 769, source.Get(), destination);
  }
  void LetGo() {
    mayGo = true;
    mayGo.notify_all();
  }

  static std::atomic<bool> mayGo;
};

std::atomic<bool> WaitingSendersTest::mayGo;

TEST_F(WaitingSendersTest, EachSenderOfALongPacketHasAJobOfItsOwnAndFourAreKept) {
  Send(15);
  EXPECT_EQ(mappedBlocks, 15);
  LetGo();
  ASSERT_TRUE(WaitForEndedThreads(15));
  EXPECT_EQ(mappedBlocks, 4);
}

TEST_F(WaitingSendersTest, FourLongPacketsAtATimeNeedNoNewJob) {
  Send(15);
  LetGo();
  ASSERT_TRUE(WaitForEndedThreads(15));
  mayGo = false;
  mmapFault.FailCall(1);
  Send(4);
  EXPECT_FALSE(mmapFault.HasStruck());
  Send(1);
  EXPECT_TRUE(mmapFault.HasStruck());
  EXPECT_EQ(StartedThreads().size(), 19u);
}

}  // namespace
