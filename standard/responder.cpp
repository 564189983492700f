// The responder thread: drives the protocol with what comes in on the link, from the kernel and
// from other threads, and sends what it gives back.
#include "base/responder.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/annotations.h"
#include "base/log.h"
#include "base/mutex.h"
#include "base/text.h"
#include "standard/core.h"
#include "standard/netlink.h"
#include "standard/process.h"
#include "standard/services.h"
#include "standard/sockets.h"

namespace {

// Pause before something that could not be opened or read is tried again.
constexpr int64_t kRetryMilliseconds = 500;
// The time in which a stop is over, whatever happens: two goodbyes 250 ms apart take less.
constexpr int64_t kStopMillisecondsMax = 600;
// Pause where the next wait would be over at once, for what ended the last one is still there.
constexpr useconds_t kPauseMicroseconds = 100000;
// Datagrams after which others get their turn.
constexpr int kDatagramsAtOnce = 32;

// Bytes from which a block of the heap is mapped.
constexpr int kMappedSize = 16384;

constexpr uint32_t kNotUp = 0;
constexpr uint32_t kUp = 1;
constexpr uint32_t kStopped = 2;

constexpr size_t kServiceTypeMax = 32;
constexpr uint32_t kPortLimit = 65536;

constexpr nfds_t kPolledMax = 2 + kFamilies;

// The protocol, and the way to wake the responder thread, which other threads use too. Held for the
// time of one call into the core; nobody waits for anything with it.
Mutex coreMutex;
Core core GUARDED_BY(coreMutex);
bool isTakingServices GUARDED_BY(coreMutex) = false;
int wakeDescriptor GUARDED_BY(coreMutex) = -1;
bool isEndAsked GUARDED_BY(coreMutex) = false;

SharedFlag initStatus{kNotUp};
SharedText deviceName;

class SCOPED_CAPABILITY CoreLock {
 public:
  CoreLock() ACQUIRE(coreMutex) { coreMutex.Lock(); }
  ~CoreLock() RELEASE() { coreMutex.Unlock(); }
  CoreLock(const CoreLock&) = delete;
  CoreLock& operator=(const CoreLock&) = delete;
};

// What the responder thread alone knows.
struct Responder {
  int netlink = -1;
  int wake = -1;
  LinkWatch watch = {};
  LinkState link = {};  // as the core knows it
  Sockets sockets;
  int64_t retry = kNever;         // when a failure is to be tried again
  const char* failure = nullptr;  // the failure that was logged, until it is over
  char reportedName[kDeviceNameSize] = {};
  // What comes in is read into the bytes of what goes out next: nobody looks at it any more then.
  OutgoingDatagram datagram;
};
static_assert(kDatagramMax >= kNetlinkDatagramMax, "the kernel's messages are read into it too");

Responder responder;

int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Routers of one kind that get power at one moment differ in their hardware address at least.
uint64_t MakeSeed() {
  uint64_t seed = 0;
  if (getrandom(&seed, sizeof(seed), GRND_NONBLOCK) == sizeof(seed)) return seed;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  memcpy(&seed, hw_addr, sizeof(hw_addr));
  constexpr uint64_t kOddMultiplier = 0x9E3779B97F4A7C15;
  return (seed ^ static_cast<uint64_t>(now.tv_nsec)) * kOddMultiplier +
         static_cast<uint64_t>(now.tv_sec);
}

void Wake() REQUIRES(coreMutex) {
  if (wakeDescriptor < 0) return;
  const uint64_t one = 1;
  const ssize_t written = write(wakeDescriptor, &one, sizeof(one));
  static_cast<void>(written);
}

// A failure is told once, not with every attempt.
void ReportFailure(const char* text, int error) {
  responder.retry = Now() + kRetryMilliseconds;
  if (responder.failure == text) return;
  responder.failure = text;
  LogError(text, error);
}

bool OpenDescriptors() {
  if (responder.netlink < 0) responder.netlink = OpenNetlink();
  if (responder.netlink < 0) {
    ReportFailure("[Bonjour] socket AF_NETLINK", errno);
    return false;
  }
  responder.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (responder.wake < 0) {
    ReportFailure("[Bonjour] eventfd", errno);
    return false;
  }
  responder.failure = nullptr;
  responder.retry = kNever;
  return true;
}

void Begin(const ResponderStartRecord& start) {
  deviceName.Set(FieldText(start.deviceName));
  const CoreLock lock;
  // A name is probed in any case (RFC 6762, section 8).
  InitCore(core, FieldText(start.deviceName), MakeSeed());
  wakeDescriptor = responder.wake;
  isTakingServices = true;
}

bool AreLinksEqual(const LinkState& a, const LinkState& b) {
  bool areEqual = a.isUp == b.isUp && a.mtu == b.mtu && memcmp(a.mac, b.mac, sizeof(a.mac)) == 0 &&
                  a.addressCount == b.addressCount;
  for (uint8_t i = 0; areEqual && i < a.addressCount; ++i) {
    areEqual = a.addresses[i].prefixLength == b.addresses[i].prefixLength &&
               AreAddressesEqual(a.addresses[i].address, b.addresses[i].address);
  }
  return areEqual;
}

void GiveLink(const LinkState& link) {
  responder.link = link;
  const CoreLock lock;
  HandleLink(core, link, Now());
}

// Opens what the interface that is there now needs. Returns false when that has to be tried again.
bool PrepareSockets() {
  const LinkWatch& watch = responder.watch;
  Sockets& sockets = responder.sockets;
  const bool isNew = sockets.index != watch.index;
  if (isNew) {
    CloseSockets(sockets);
    // Also when it looks like the one before: nothing that was claimed there counts.
    GiveLink({});
  }
  if (watch.index == 0) return true;

  SocketFailure failure = OpenSockets(sockets, kBridgeName, watch.index);
  // A membership may be lost while the interface is down.
  if (!responder.link.isUp && watch.link.isUp) LeaveGroups(sockets);
  if (failure.text == nullptr) failure = JoinGroups(sockets, watch.link);
  if (failure.text != nullptr) {
    ReportFailure(failure.text, failure.error);
    return false;
  }
  if (isNew || responder.failure != nullptr) {
    LogLine({"[Bonjour] Interface: ", kBridgeName, " is connected"});
  }
  return true;
}

void FollowLink() {
  responder.retry = kNever;
  if (responder.watch.mustReread &&
      !ReadLink(responder.netlink, responder.watch, kBridgeName, responder.datagram.bytes)) {
    responder.retry = Now() + kRetryMilliseconds;
    return;
  }
  if (responder.watch.wasDown && responder.link.isUp) GiveLink({});
  responder.watch.wasDown = false;
  const bool isPrepared = PrepareSockets();
  if (isPrepared) responder.failure = nullptr;
  // What can't be listened on is not there.
  const LinkState link = isPrepared ? responder.watch.link : LinkState{};
  if (!AreLinksEqual(link, responder.link)) GiveLink(link);
}

// Only so many that a core that always has one more would not keep the thread from the rest.
void SendDue(int64_t now) {
  int sent = 0;
  for (; sent < kDatagramsAtOnce; ++sent) {
    coreMutex.Lock();
    const bool isDue = TakeDatagram(core, now, responder.datagram);
    coreMutex.Unlock();
    if (!isDue) break;
    SendDatagram(responder.sockets, responder.datagram);
  }
  if (sent == 0) return;
  // Composing takes time on a small CPU, and a busy one may have gone elsewhere meanwhile.
  const int64_t left = Now();
  if (left == now) return;
  const CoreLock lock;
  NoteLate(core, now, left);
}

// The link's first IPv4 address in dotted form; empty when it has none.
void FormatFirstAddress(char (&text)[INET_ADDRSTRLEN]) {
  text[0] = '\0';
  for (uint8_t i = 0; i < responder.link.addressCount; ++i) {
    const Address& address = responder.link.addresses[i].address;
    if (address.family != Family::kIpv4) continue;
    inet_ntop(AF_INET, address.bytes, text, sizeof(text));
    return;
  }
}

void ReportHostName() {
  {
    const CoreLock lock;
    if (!HasHostName(core) || strcmp(HostName(core), responder.reportedName) == 0) return;
    CopyText(responder.reportedName, HostName(core));
  }
  deviceName.Set(responder.reportedName);
  LogLine({"[Bonjour] default device name = ", responder.reportedName});
  if (initStatus.Get() == kUp) return;
  char address[INET_ADDRSTRLEN];
  FormatFirstAddress(address);
  LogLine({"[Bonjour] Answer Name Start (", address, ")"});
  initStatus.Set(kUp);
}

void ReceiveAll(Family family) {
  for (int i = 0; i < kDatagramsAtOnce; ++i) {
    ReceivedDatagram datagram;
    if (!ReceiveDatagram(responder.sockets, family, responder.link, responder.datagram.bytes,
                         datagram)) {
      return;
    }
    if (datagram.length == 0) continue;
    const int64_t now = Now();
    coreMutex.Lock();
    HandleDatagram(core, datagram, now);
    coreMutex.Unlock();
    SendDue(now);
  }
}

void TakeWake() {
  uint64_t count = 0;
  if (read(responder.wake, &count, sizeof(count)) < 0) usleep(kPauseMicroseconds);
}

int64_t Earlier(int64_t a, int64_t b) { return a < b ? a : b; }

// Sleeps until something comes in, at the longest until `turn`, and takes it.
void WaitAndTake(int64_t turn) {
  pollfd polled[kPolledMax] = {{responder.netlink, POLLIN, 0}, {responder.wake, POLLIN, 0}};
  for (size_t i = 0; i < kFamilies; ++i) {
    // poll(2) passes over -1.
    polled[2 + i] = {responder.sockets.descriptors[i], POLLIN, 0};
  }
  const int64_t now = Now();
  const int64_t left = turn > now ? turn - now : 0;
  const timespec timeout = {static_cast<time_t>(left / 1000),
                            static_cast<long>(left % 1000 * 1000000)};
  const int ready = ppoll(polled, kPolledMax, turn == kNever ? nullptr : &timeout, nullptr);
  if (ready < 0 && errno != EINTR) usleep(kPauseMicroseconds);
  if (ready <= 0) return;
  if (polled[1].revents != 0) TakeWake();
  // First what has come in on the link as it was.
  for (size_t i = 0; i < kFamilies; ++i) {
    if (polled[2 + i].revents != 0) ReceiveAll(static_cast<Family>(i));
  }
  if (polled[0].revents != 0) {
    TakeNetlink(responder.netlink, responder.watch, kBridgeName, responder.datagram.bytes);
    FollowLink();
  }
}

// Begins to withdraw everything once the end is asked for. Returns whether it has begun.
bool FollowEnd() {
  const CoreLock lock;
  if (!isEndAsked) return false;
  isTakingServices = false;
  BeginStop(core, Now());
  return true;
}

// Returns when everything has been withdrawn.
void Serve() {
  int64_t stopLimit = kNever;
  for (;;) {
    if (stopLimit == kNever && FollowEnd()) stopLimit = Now() + kStopMillisecondsMax;
    if (responder.retry <= Now()) FollowLink();
    SendDue(Now());
    ReportHostName();
    coreMutex.Lock();
    const bool isStopped = stopLimit != kNever && IsStopped(core);
    const int64_t turn = NextTurn(core);
    coreMutex.Unlock();
    if (isStopped || stopLimit <= Now()) return;
    WaitAndTake(Earlier(Earlier(turn, responder.retry), stopLimit));
  }
}

// Buffers as large as the status file's are mapped, unless the heap has space for them: freed, they
// are the system's again, and one that stays takes no more pages than the file fills.
void LimitHeap() {
#ifdef M_MMAP_THRESHOLD
  mallopt(M_MMAP_THRESHOLD, kMappedSize);
  mallopt(M_TOP_PAD, 0);
  malloc_trim(0);
#endif
}

void End() {
  CloseSockets(responder.sockets);
  close(responder.netlink);
  const CoreLock lock;
  close(responder.wake);
  wakeDescriptor = -1;
}

bool IsLengthWithin(const char* text, size_t limit) {
  return text != nullptr && text[0] != '\0' && strnlen(text, limit + 1) <= limit;
}

bool AreParamsValid(const char* name, const char* type, const char* domain, const char* txt,
                    int32_t txtLength, uint32_t port) {
  const bool hasText = txt != nullptr && txtLength > 0;
  const bool hasNoText = txt == nullptr && txtLength == 0;
  if (IsLengthWithin(name, kServiceNameMax) && IsLengthWithin(type, kServiceTypeMax) &&
      domain != nullptr && strcmp(domain, kLocalDomain) == 0 && (hasText || hasNoText) &&
      port < kPortLimit) {
    return true;
  }
  LogLine("[Bonjour] Input parameter error");
  return false;
}

void ReportService(const char* name, const char* type, const char* domain, const char* state) {
  LogLine({"[Bonjour] this service: ", name, " ", type, " ", domain, state});
}

}  // namespace

void* BonjourServiceInit(void* argument) {
  LimitHeap();
  while (!OpenDescriptors()) {
    if (IsTerminating()) return nullptr;
    usleep(kRetryMilliseconds * 1000);
  }
  Begin(*static_cast<const ResponderStartRecord*>(argument));
  responder.watch.mustReread = true;
  FollowLink();
  Serve();
  End();
  // At once, with all that is left to do done: the monitor may be in its pause, or waiting for a
  // printer that does not answer.
  EndProcess();
  return nullptr;
}

void EndReceive() {
  const CoreLock lock;
  isEndAsked = true;
  Wake();
}

uint32_t GetBonjourInitStatus() {
  const uint32_t status = initStatus.Get();
  // Where there is no link the name is never claimed; whoever waits for it waits no longer.
  return status == kNotUp && IsTerminating() ? kStopped : status;
}

char* GetDeviceName(char* buffer, size_t size) {
  deviceName.Copy(buffer, size);
  return buffer;
}

uint32_t RegisterOneService(const char* serviceName, const char* serviceType,
                            const char* serviceDomain, const char* txt, int32_t txtLength,
                            uint32_t port) {
  if (!AreParamsValid(serviceName, serviceType, serviceDomain, txt, txtLength, port)) return 0;
  coreMutex.Lock();
  const bool isThere = IsServiceOffered(core, serviceName, serviceType);
  const bool isAdded = isTakingServices && AddService(core, serviceName, serviceType,
                                                      {txt, static_cast<size_t>(txtLength)},
                                                      static_cast<uint16_t>(port), Now());
  if (isAdded) Wake();
  coreMutex.Unlock();
  if (isThere) ReportService(serviceName, serviceType, serviceDomain, " is already registered");
  if (!isAdded) LogLine("[Bonjour] SERVICE_ADD error");
  return isAdded ? 1 : 0;
}

uint32_t UnRegisterOneService(const char* serviceName, const char* serviceType,
                              const char* serviceDomain, const char* txt, int32_t txtLength,
                              uint32_t port) {
  if (!AreParamsValid(serviceName, serviceType, serviceDomain, txt, txtLength, port)) return 0;
  coreMutex.Lock();
  const bool isThere = IsServiceOffered(core, serviceName, serviceType);
  const bool isRemoved = isTakingServices && RemoveService(core, serviceName, serviceType, Now());
  if (isRemoved) Wake();
  coreMutex.Unlock();
  if (!isThere) ReportService(serviceName, serviceType, serviceDomain, " is not registered");
  if (!isRemoved) LogLine("[Bonjour] SERVICE_REMOVE error");
  return isRemoved ? 1 : 0;
}

bool IsTextRegistered(const char* /*txt*/) { return false; }

bool AreTextsCopied() { return true; }
