// Asks several routers in turns, each on a link of its own, so that the daemon and the floor
// program are measured on the same machine in the same second. Writes a line for each measurement
// to standard output, and ends when the last answer has been transmitted for the last time.
//
//   bench_asker latency COUNT QUESTION TARGET...
//       COUNT questions to each, once as many senders start as end; lines: target number, tab,
//       nanoseconds from the question to the first answer on the wire, or "late"; then for each
//       target "processor", tab, its number, tab, nanoseconds of processor time a question
//   bench_asker again COUNT QUESTION TARGET...
//       the same, but each question as soon as the last is answered, one target after the other
//   bench_asker rate SECONDS QUESTION TARGET...
//       as many questions as are answered, for SECONDS each; lines: target number, tab, answers
//       per second, tab, answers, tab, transmissions per answer, tab, questions without an answer
//
// QUESTION is hexadecimal, or several with commas between, of which "latency" asks one after the
// other. TARGET is NETWORK:LOG:ADDRESS:PID: descriptors of the network namespace
// of a host on the link and of the reading end of the router's log, the host's own address, and the
// process that answers.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr char kHostInterface[] = "eth0";
constexpr uint16_t kMdnsPort = 5353;
constexpr size_t kUdpPayload = 28;  // after IPv4 and UDP headers

// From one question to the next. An answer is sent again 250 ms and 500 ms after the first time; at
// this interval that is a third of it away from any question.
constexpr nanoseconds kPause{10'135'135};
constexpr milliseconds kLate{3};

constexpr int kOutstandingMax = 16;
constexpr milliseconds kStall{900};
constexpr milliseconds kTransmissionsEnd{1000};

using Bytes = std::vector<uint8_t>;

void Require(bool holds, const char* what) {
  if (holds) return;
  perror(what);
  exit(1);
}

Bytes FromHex(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::vector<Bytes> ReadQuestions(const std::string& text) {
  std::vector<Bytes> questions;
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find(',', start), text.size());
    questions.push_back(FromHex(text.substr(start, end - start)));
    start = end + 1;
  }
  return questions;
}

struct Target {
  int network;
  int log;
  clockid_t processor;
  int sending;
  int wire;
};

void Enter(const Target& target) { Require(setns(target.network, CLONE_NEWNET) == 0, "setns"); }

Target OpenTarget(const char* text) {
  char address[INET_ADDRSTRLEN] = {};
  Target target = {};
  pid_t process = 0;
  Require(sscanf(text, "%d:%d:%15[^:]:%d", &target.network, &target.log, address, &process) == 4,
          text);
  Require(clock_getcpuclockid(process, &target.processor) == 0, "its processor clock");
  Require(fcntl(target.log, F_SETFL, O_NONBLOCK) == 0, "the log");
  Enter(target);

  target.sending = socket(AF_INET, SOCK_DGRAM, 0);
  const in_addr own = {inet_addr(address)};
  Require(setsockopt(target.sending, IPPROTO_IP, IP_MULTICAST_IF, &own, sizeof(own)) == 0,
          "IP_MULTICAST_IF");
  sockaddr_in group = {};
  group.sin_family = AF_INET;
  group.sin_port = htons(kMdnsPort);
  group.sin_addr.s_addr = inet_addr("224.0.0.251");
  Require(connect(target.sending, reinterpret_cast<sockaddr*>(&group), sizeof(group)) == 0,
          "connect");
  return target;
}

void OpenWire(Target& target) {
  Enter(target);
  target.wire = socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const int on = 1;
  Require(setsockopt(target.wire, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) == 0, "the wire");
  sockaddr_ll link = {};
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(ETH_P_ALL);
  link.sll_ifindex = static_cast<int>(if_nametoindex(kHostInterface));
  Require(bind(target.wire, reinterpret_cast<sockaddr*>(&link), sizeof(link)) == 0, "bind");
}

void Send(const Target& target, const Bytes& question) {
  Require(send(target.sending, question.data(), question.size(), 0) > 0, "send");
}

// The lines that the router logged since the last call.
int TakeLogLines(const Target& target) {
  char text[65536];
  int lines = 0;
  for (;;) {
    const ssize_t count = read(target.log, text, sizeof(text));
    if (count <= 0) return lines;
    lines += static_cast<int>(std::count(text, text + count, '\n'));
  }
}

struct Frame {
  int64_t time;  // nanoseconds
  bool isQuestion;
  bool isAnswer;
};

std::optional<Frame> TakeFrame(const Target& target) {
  uint8_t bytes[2048];
  alignas(cmsghdr) char ancillary[64];
  sockaddr_ll link = {};
  iovec part = {bytes, sizeof(bytes)};
  msghdr message = {};
  message.msg_name = &link;
  message.msg_namelen = sizeof(link);
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = ancillary;
  message.msg_controllen = sizeof(ancillary);
  const ssize_t length = recvmsg(target.wire, &message, 0);
  if (length < 0) return std::nullopt;

  Frame frame = {};
  const cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header != nullptr && header->cmsg_type == SO_TIMESTAMPNS) {
    timespec time;
    memcpy(&time, CMSG_DATA(header), sizeof(time));
    frame.time = int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  }
  // Questions go to the port; answers come from it, to all hosts or to the asker alone.
  const int sourcePort = (bytes[20] << 8) | bytes[21];
  const int port = (bytes[22] << 8) | bytes[23];
  const bool isMdns = length > static_cast<ssize_t>(kUdpPayload) + 2 && bytes[9] == IPPROTO_UDP &&
                      (sourcePort == kMdnsPort || port == kMdnsPort);
  const bool isResponse = isMdns && (bytes[kUdpPayload + 2] & 0x80) != 0;
  frame.isQuestion = isMdns && !isResponse && link.sll_pkttype == PACKET_OUTGOING;
  frame.isAnswer = isResponse && link.sll_pkttype != PACKET_OUTGOING;
  return frame;
}

void WaitUntilReadable(int descriptor, nanoseconds bound) {
  pollfd waiting = {descriptor, POLLIN, 0};
  const timespec limit = {0, static_cast<long>(std::max<int64_t>(bound.count(), 0))};
  ppoll(&waiting, 1, &limit, nullptr);
}

std::optional<int64_t> AskOnce(const Target& target, const Bytes& question) {
  while (TakeFrame(target)) continue;
  TakeLogLines(target);
  Send(target, question);
  const auto end = Clock::now() + kLate;
  int64_t asked = 0;
  for (auto left = nanoseconds(kLate); left.count() > 0; left = end - Clock::now()) {
    const std::optional<Frame> frame = TakeFrame(target);
    if (!frame) {
      WaitUntilReadable(target.wire, left);
    } else if (frame->isQuestion) {
      asked = frame->time;
    } else if (frame->isAnswer && asked != 0) {
      return frame->time - asked;
    }
  }
  return std::nullopt;
}

void Report(size_t number, const std::optional<int64_t>& latency) {
  if (latency) {
    printf("%zu\t%lld\n", number, static_cast<long long>(*latency));
  } else {
    printf("%zu\tlate\n", number);
  }
}

void MeasureAgain(std::vector<Target>& targets, int count, const Bytes& question) {
  for (size_t number = 0; number < targets.size(); ++number) {
    OpenWire(targets[number]);
    for (int i = 0; i < count; ++i) Report(number, AskOnce(targets[number], question));
    std::this_thread::sleep_for(kTransmissionsEnd);
  }
}

int64_t ProcessorTime(const Target& target) {
  timespec now = {};
  Require(clock_gettime(target.processor, &now) == 0, "its processor clock");
  return now.tv_sec * INT64_C(1'000'000'000) + now.tv_nsec;
}

void MeasureLatency(std::vector<Target>& targets, int count, const std::vector<Bytes>& questions) {
  for (Target& target : targets) OpenWire(target);
  std::vector<int64_t> processor(targets.size());
  auto next = Clock::now() + kPause;
  const auto settled = next + kTransmissionsEnd;
  int asked = 0;
  size_t turns = 0;
  while (asked < count) {
    const Bytes& question = questions[turns++ % questions.size()];
    const bool counts = next >= settled;
    for (size_t turn = 0; turn < targets.size(); ++turn) {
      // Each goes first equally often, because the order matters to the asker's caches.
      const size_t number = (turn + static_cast<size_t>(asked)) % targets.size();
      std::this_thread::sleep_until(next);
      next += kPause;
      if (counts && asked == 0) processor[number] = -ProcessorTime(targets[number]);
      const std::optional<int64_t> latency = AskOnce(targets[number], question);
      if (counts) Report(number, latency);
    }
    if (counts) ++asked;
  }
  for (size_t number = 0; number < targets.size(); ++number) {
    processor[number] += ProcessorTime(targets[number]);
    printf("processor\t%zu\t%lld\n", number, static_cast<long long>(processor[number] / count));
  }
  std::this_thread::sleep_for(kTransmissionsEnd);
}

// Packets that the host's interface has received so far.
uint64_t ReceivedPackets(const Target& target) {
  Enter(target);
  FILE* file = fopen("/proc/thread-self/net/dev", "r");
  Require(file != nullptr, "/proc/thread-self/net/dev");
  char line[512];
  unsigned long long packets = 0;
  while (fgets(line, sizeof(line), file) != nullptr) {
    const char* name = strstr(line, "eth0:");
    if (name != nullptr) sscanf(name, "eth0: %*u %llu", &packets);
  }
  fclose(file);
  return packets;
}

// The router logs a line for every question that it answers, so the log tells when to ask the next
// one: the router never waits for a question, and none is lost for lack of buffer space.
void MeasureRate(const Target& target, size_t number, nanoseconds duration, const Bytes& question) {
  TakeLogLines(target);
  const uint64_t before = ReceivedPackets(target);
  const auto start = Clock::now();
  auto lastLine = start;
  int outstanding = 0;
  int64_t answered = 0;
  int64_t lost = 0;
  while (Clock::now() - start < duration) {
    for (; outstanding < kOutstandingMax; ++outstanding) Send(target, question);
    WaitUntilReadable(target.log, kStall);
    const int lines = TakeLogLines(target);
    answered += lines;
    outstanding -= std::min(lines, outstanding);
    if (lines > 0) {
      lastLine = Clock::now();
    } else if (Clock::now() - lastLine > kStall) {
      lost += outstanding;
      outstanding = 0;
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const double rate = static_cast<double>(answered) / seconds;
  std::this_thread::sleep_for(kTransmissionsEnd);
  answered += TakeLogLines(target);
  const auto transmissions = static_cast<double>(ReceivedPackets(target) - before);
  printf("%zu\t%.0f\t%lld\t%.4f\t%lld\n", number, rate, static_cast<long long>(answered),
         transmissions / static_cast<double>(answered), static_cast<long long>(lost));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string mode = argv[1];
  const int amount = atoi(argv[2]);
  const std::vector<Bytes> questions = ReadQuestions(argv[3]);
  const Bytes& question = questions.front();
  std::vector<Target> targets;
  for (int i = 4; i < argc; ++i) targets.push_back(OpenTarget(argv[i]));
  if (mode == "latency") {
    MeasureLatency(targets, amount, questions);
  } else if (mode == "again") {
    MeasureAgain(targets, amount, question);
  } else {
    for (size_t number = 0; number < targets.size(); ++number) {
      MeasureRate(targets[number], number, std::chrono::seconds(amount), question);
    }
  }
  return 0;
}
