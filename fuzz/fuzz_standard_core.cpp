// Sequences of packets, times, and changes of links and services into the standard responder's
// protocol. Each packet that comes out is held against the rules of RFC 6762.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "standard/core.h"
#include "tests/standard/packet.h"
#include "tests/standard/sender_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMaxSteps = 64;
// More than there can be to send at one time: each record in a packet of its own, on two families.
constexpr size_t kBurstMax = 2000;
constexpr int64_t kStopMax = 1000;
// Until the last announcement: ten a minute, for each of the claims.
constexpr int64_t kSilenceMax = 1800000;
constexpr size_t kSentKept = 8;

const char* const kTypes[] = {"_ipp._tcp", "_pdl-datastream._tcp", "_printer._tcp", "_http._tcp"};

class Run {
 public:
  explicit Run(Input& input);
  void Play();

 private:
  void Step();
  void Drain();
  void Wait(int64_t time);
  void Hear(const std::string& bytes);
  std::string BuildMessage();
  std::string BuildName();
  std::string BuildData(uint16_t type);
  void ChangeLink();
  void EndInSilence();
  void Stop();

  Input& script;
  std::unique_ptr<Core> core = std::make_unique<Core>();
  std::unique_ptr<OutgoingDatagram> out = std::make_unique<OutgoingDatagram>();
  SenderCheck check{0};
  LinkState link = {};
  std::vector<std::string> instances;
  std::vector<std::string> sent;  // the last packets, to be heard again
  int64_t now = 1000;
};

LinkAddress Ipv4(uint8_t last) { return {{Family::kIpv4, {192, 168, 1, last}}, 24}; }

LinkAddress Ipv6(uint8_t last) {
  return {{Family::kIpv6, {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last}}, 64};
}

Run::Run(Input& input) : script(input) {
  std::string name = script.Text();
  if (name.empty()) name = "host";
  InitCore(*core, name, script.Byte());
  link.isUp = true;
  link.mtu = 1500;
  link.addressCount = 2;
  link.addresses[0] = Ipv4(1);
  link.addresses[1] = Ipv6(1);
  check.SetLink(link);
  HandleLink(*core, link, now);
  Drain();
}

void Run::Play() {
  for (int i = 0; i < kMaxSteps && !script.IsEmpty(); ++i) Step();
  EndInSilence();
  Stop();
}

void Run::Drain() {
  for (size_t burst = 0; TakeDatagram(*core, now, *out); ++burst) {
    REQUIRE(burst < kBurstMax, "sending comes to an end");
    REQUIRE(out->length <= sizeof(out->bytes), "a datagram fits into its block");
    Packet packet;
    const std::string wrong = check.Send(*out, now, packet);
    REQUIRE(wrong.empty(), wrong.c_str());
    sent.emplace_back(reinterpret_cast<const char*>(out->bytes), out->length);
    if (sent.size() > kSentKept) sent.erase(sent.begin());
  }
  REQUIRE(NextTurn(*core) > now, "a turn does what is due");
}

void Run::Wait(int64_t time) {
  const int64_t end = now + time;
  while (NextTurn(*core) <= end) {
    now = NextTurn(*core);
    Drain();
  }
  now = end;
  Drain();
}

void Run::Hear(const std::string& bytes) {
  const uint8_t how = script.Byte();
  ReceivedDatagram datagram = {};
  Endpoint& source = datagram.source;
  source.address = (how & 1) == 0 ? Ipv4(77).address : Ipv6(77).address;
  // From this host itself; from far away.
  if ((how & 6) == 2) source.address = (how & 1) == 0 ? Ipv4(1).address : Ipv6(1).address;
  if ((how & 6) == 4) source.address.bytes[1] = 9;
  source.port = (how & 8) == 0 ? kMdnsPort : uint16_t{40000};
  datagram.isMulticast = (how & 16) == 0;
  const ExactBytes exact(bytes);
  datagram.bytes = exact.Data();
  datagram.length = exact.Size();
  Packet packet;
  // The protocol reads some messages that the other reader is too strict for, and has no use for
  // some from itself or from far away.
  const bool isRead = ReadPacket(exact.Text(), packet).empty();
  if (!isRead || (how & 22) != 0) {
    packet.records.clear();
    check.HearUnreadable(source.address.family, now);
  }
  check.Hear(packet, source, now);
  HandleDatagram(*core, datagram, now);
  Drain();
}

std::string Run::BuildName() {
  const uint8_t which = script.Byte();
  const std::string type = kTypes[which / 16 % 4];
  const std::string label = type.substr(0, type.find('.'));
  std::string instance = "Printer";
  if (!instances.empty()) instance = instances[script.Byte() % instances.size()].substr(0, 63);
  switch (which % 8) {
    case 0:
    case 1:
      return PacketName({HostName(*core), "local"});
    case 2:
      return PacketName({label, "_tcp", "local"});
    case 3:
    case 4:
      return PacketName({instance, label, "_tcp", "local"});
    case 5:
      return PacketName({"_services", "_dns-sd", "_udp", "local"});
    case 6:
      return PacketName({"1", "1", "168", "192", "in-addr", "arpa"});
    default:
      return PacketName({instance + " (2)", label, "_tcp", "local"});
  }
}

std::string Run::BuildData(uint16_t type) {
  std::string data;
  switch (type) {
    case 1:
      data = std::string("\xC0\xA8\1\0", 4);
      data[3] = static_cast<char>(script.Byte() % 4);
      return data;
    case 28:
      data = std::string("\xFE\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
      data[15] = static_cast<char>(script.Byte() % 4);
      return data;
    case 33:
      data.assign(4, '\0');
      Append16(data, script.Byte() % 2 == 0 ? 631 : script.Word());
      return data + BuildName();
    case 12:
      return BuildName();
    case 47:
      return BuildName() + std::string("\0\1\x40", 3);
    default: {
      const std::string text = script.Text();
      return static_cast<char>(text.size()) + text;
    }
  }
}

// A message that means something, so that names need not be guessed.
std::string Run::BuildMessage() {
  const uint16_t types[] = {1, 28, 12, 33, 16, 47, 255, 257};
  const uint32_t ttls[] = {0, 1, 59, 60, 120, 2250, 4500, 100000};
  Packet packet = {};
  const uint8_t what = script.Byte();
  if ((what & 1) != 0) packet.flags |= 0x8400;
  if ((what & 2) != 0) packet.flags |= 0x0200;
  packet.id = what;
  for (unsigned count = script.Byte() % 6; count > 0; --count) {
    const uint8_t bits = script.Byte();
    const auto classBits = static_cast<uint16_t>((bits & 8) != 0 ? 0x8001 : 1);
    packet.questions.push_back({BuildName(), types[bits & 7], classBits});
  }
  for (unsigned count = script.Byte() % 8; count > 0; --count) {
    const uint8_t bits = script.Byte();
    PacketRecord record = {};
    record.section = static_cast<PacketSection>(bits / 64 % 3);
    record.name = BuildName();
    record.type = types[bits % 6];
    record.classBits = static_cast<uint16_t>((bits & 32) != 0 ? 0x8001 : 1);
    record.ttl = ttls[script.Byte() % 8];
    record.data = BuildData(record.type);
    packet.records.push_back(record);
  }
  return WritePacket(packet);
}

void Run::ChangeLink() {
  const uint8_t what = script.Byte();
  if ((what & 1) != 0) link.isUp = !link.isUp;
  if ((what & 2) != 0) link.mac[5] = script.Byte();
  if ((what & 4) != 0) link.mtu = script.Word();
  if ((what & 8) != 0) {
    link.addressCount = static_cast<uint8_t>(script.Byte() % (kLinkAddressesMax + 1));
    const uint8_t first = script.Byte();
    const uint8_t families = script.Byte();
    for (size_t i = 0; i < link.addressCount; ++i) {
      const auto last = static_cast<uint8_t>(1 + (first + i) % 64);
      link.addresses[i] = (families >> i % 8 & 1) == 0 ? Ipv4(last) : Ipv6(last);
    }
  }
  const LinkState state = link.isUp ? link : LinkState{};
  check.SetLink(state);
  HandleLink(*core, state, now);
  Drain();
}

void Run::Step() {
  const uint8_t operation = script.Byte();
  switch (operation % 16) {
    case 0:
      Hear(script.Block());
      break;
    case 1:
      ChangeLink();
      break;
    case 2:
    case 3: {
      const std::string instance = operation < 128 ? "Printer" : script.Text();
      const std::string type = (operation & 64) != 0 ? script.Text() : kTypes[operation / 16 % 4];
      const std::string txt = script.LongText();
      if (AddService(*core, instance, type, txt, script.Word(), now)) instances.push_back(instance);
      Drain();
      break;
    }
    case 4:
    case 5: {
      const std::string instance =
          instances.empty() ? script.Text() : instances[script.Byte() % instances.size()];
      RemoveService(*core, instance, kTypes[operation / 16 % 4], now);
      Drain();
      break;
    }
    case 6: {
      // What was sent comes back, from here or from elsewhere, and perhaps changed.
      if (sent.empty()) break;
      std::string bytes = sent[script.Byte() % sent.size()];
      for (unsigned changes = script.Byte() % 4; changes > 0; --changes) {
        bytes[script.Word() % bytes.size()] = static_cast<char>(script.Byte());
      }
      Hear(bytes);
      break;
    }
    case 7:
    case 8:
    case 9:
      Wait(script.Byte() % 2 == 0 ? script.Byte() : script.Word());
      break;
    default:
      Hear(BuildMessage());
  }
}

// Nobody says anything any more, so in the end nobody answers.
void Run::EndInSilence() {
  const int64_t end = now + kSilenceMax;
  while (NextTurn(*core) != kNever) {
    now = NextTurn(*core);
    REQUIRE(now <= end, "it falls silent");
    Drain();
  }
}

void Run::Stop() {
  const int64_t start = now;
  BeginStop(*core, now);
  Drain();
  while (!IsStopped(*core)) {
    REQUIRE(NextTurn(*core) != kNever, "a stop goes on");
    now = NextTurn(*core);
    Drain();
  }
  REQUIRE(now - start <= kStopMax, "a stop takes a second at most");
  REQUIRE(NextTurn(*core) == kNever, "behind a stop nothing is due");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  Run run(script);
  run.Play();
  return 0;
}
