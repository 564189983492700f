// Sequences of datagrams into the host-name probe, its thread body run with a link that is played.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>

#include "fuzz/check.h"
#include "fuzz/fake_sender.h"
#include "fuzz/input.h"
#include "mdns/probe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int32_t kSocket = 5;
constexpr uint32_t kOwnAddress = 0xC0A80101;
constexpr uint32_t kHostNetwork = 0xC0A80100;
constexpr unsigned kMaxDeliveries = 1200;
constexpr unsigned kMaxRepeats = 1100;
constexpr size_t kReceiveMax = 1518;

// What the link brings next. An echo holds the name that is being probed as its first label.
struct Delivery {
  uint32_t sender;    // host byte order
  std::string bytes;  // a datagram, or what stands after an echo's label; empty: nothing comes
  bool isEcho;
  unsigned repeats;
};

// As many bytes are compared as the larger of the name's length and the label's says, and all of
// them must have been received. `field` is the name's whole field.
bool ModelConflict(std::string_view message, const std::string& field) {
  if (message.size() < 13) return false;
  const size_t nameLength = std::min(field.find('\0'), field.size());
  const size_t compared = std::max(nameLength, size_t{static_cast<uint8_t>(message[12])});
  return compared <= field.size() && message.substr(13).starts_with(field.substr(0, compared));
}

// The probe as a machine that says what is due next; the link asks it at each call.
struct ModelProbe {
  enum Due { kSend, kReceive, kPause, kEnd };

  Due due;
  std::string deviceName;
  std::string name;  // the record's field, 65 bytes
  uint32_t retry;
  int conflicts;
  int ignored;

  void StartCycle() {
    due = bTerminate.Get() != 0 ? kEnd : kSend;
    ignored = 0;
  }
  void Sent() { due = bTerminate.Get() != 0 ? kEnd : kReceive; }
  void Received(uint32_t sender, const std::string& message) {
    if (message.empty()) {
      due = kEnd;
    } else if (sender != kOwnAddress && ModelConflict(message, name)) {
      TakeNextName();
      due = kPause;
    } else if (ignored == 11 || bTerminate.Get() != 0) {
      due = kEnd;
    } else {
      ++ignored;
    }
  }
  void TakeNextName() {
    const std::string number = std::to_string(++conflicts);
    if (deviceName.size() + number.size() + 1 < 65) {
      name = deviceName + "-" + number;
      name.resize(65);
    }
    retry = 1;
    if (conflicts == 999) conflicts = 0;
  }
};

// The link of the run under way.
struct Link {
  std::deque<Delivery> deliveries;
  ModelProbe probe;
  ProbeRecord record;
  unsigned stopAfter;  // calls after which a stop is asked for, 0: never
  unsigned calls;

  void CountCall() {
    if (++calls == stopAfter) bTerminate.Set(1);
  }
  void RequireName() const {
    REQUIRE(std::string(record.name, sizeof(record.name)) == probe.name,
            "the probed name is the one that is due");
    REQUIRE(record.retry == probe.retry, "a changed name is marked");
  }
  // The next datagram, empty when nothing comes any more.
  std::string Next(uint32_t& sender) {
    if (deliveries.empty()) return {};
    Delivery& delivery = deliveries.front();
    sender = delivery.sender;
    std::string bytes = delivery.bytes;
    if (delivery.isEcho) {
      const std::string name = probe.name.c_str();
      bytes = std::string(12, '\0') + static_cast<char>(name.size()) + name + bytes;
    }
    if (delivery.repeats > 1) {
      --delivery.repeats;
    } else {
      deliveries.pop_front();
    }
    return bytes.substr(0, kReceiveMax);
  }
};

Link* played = nullptr;

void OnSend(const SentPacket& sent) {
  REQUIRE(played->probe.due == ModelProbe::kSend, "a probe is sent only at the start of a cycle");
  played->RequireName();
  RequirePacket(sent, HostProbe(played->probe.name.c_str()), 1518, kSocket);
  played->CountCall();
  played->probe.Sent();
}

Delivery ReadDelivery(Input& script) {
  const uint8_t kind = script.Byte();
  Delivery delivery = {kHostNetwork + script.Byte(), {}, false, 1};
  switch (kind % 4) {
    case 0:
      delivery.bytes = script.Block();
      break;
    case 1:
      delivery.isEcho = true;
      delivery.bytes = script.Text();
      break;
    case 2:
      delivery.isEcho = true;
      delivery.repeats = script.Word() % kMaxRepeats + 1;
      break;
    default:
      delivery.bytes = script.Text();
      delivery.repeats = script.Byte() % 16 + 1u;
  }
  return delivery;
}

// The rule alone, with a name field of any bytes.
void CheckRule(Input& script) {
  ProbeRecord record = {};
  const std::string field = script.Bytes(script.Byte() % (sizeof(record.name) + 1));
  field.copy(record.name, sizeof(record.name));
  const ExactBytes message(script.Block());
  const bool expected =
      ModelConflict(message.Text(), std::string(record.name, sizeof(record.name)));
  REQUIRE(IsNameConflict(MessageReader(message.Data(), message.Size()), record.name) == expected,
          "a conflict is what the first label says");
}

void RunProbe(Input& script) {
  SetDestination();
  onSend = OnSend;
  bTerminate.Set(0);
  responderState.interfaceAddress[0].Set(htonl(kOwnAddress));

  Link run = {};
  const std::string deviceName = script.Text().substr(0, 64);
  SetDeviceName(deviceName);
  // A later pass begins with a name that an earlier one has changed.
  const std::string name = script.Byte() % 2 == 0 ? deviceName : script.Text().substr(0, 64);
  name.copy(run.record.name, 64);
  run.record.socket = kSocket;
  run.stopAfter = script.Word();
  unsigned deliveries = 0;
  while (!script.IsEmpty()) {
    const Delivery delivery = ReadDelivery(script);
    deliveries += delivery.repeats;
    if (deliveries > kMaxDeliveries) break;
    run.deliveries.push_back(delivery);
  }
  run.probe = {ModelProbe::kSend, deviceName, name, 0, 0, 0};
  run.probe.name.resize(65);
  played = &run;

  MDNS_CheckName(&run.record);

  REQUIRE(run.probe.due == ModelProbe::kEnd, "a pass ends only when its end is due");
  run.RequireName();
  REQUIRE(run.record.socket == kSocket && run.record.slot == 0,
          "a pass changes name and mark only");
  played = nullptr;
  onSend = nullptr;
}

}  // namespace

// Stands before the C library's: what the link brings.
extern "C" ssize_t recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* sender,
                            socklen_t* senderSize) {
  REQUIRE(played != nullptr && played->probe.due == ModelProbe::kReceive,
          "the probe listens only after it has sent");
  REQUIRE(socket == kSocket && size == kReceiveMax && flags == 0,
          "one receive asks for 1518 bytes");
  REQUIRE(*senderSize == sizeof(sockaddr_in), "the sender's address fits");
  played->RequireName();
  played->CountCall();
  uint32_t address = 0;
  const ExactBytes bytes(played->Next(address));
  played->probe.Received(address, std::string(bytes.Text()));
  if (bytes.Size() == 0) {
    errno = EAGAIN;
    return -1;
  }
  memcpy(buffer, bytes.Data(), bytes.Size());
  sockaddr_in from = {};
  from.sin_family = AF_INET;
  from.sin_addr.s_addr = htonl(address);
  memcpy(sender, &from, sizeof(from));
  return static_cast<ssize_t>(bytes.Size());
}

// Stands before the C library's: the pause after a conflict.
extern "C" int usleep(useconds_t microseconds) {
  REQUIRE(played != nullptr && played->probe.due == ModelProbe::kPause,
          "the probe pauses only after a conflict");
  REQUIRE(microseconds == 250000, "the pause is a quarter of a second");
  played->RequireName();
  played->CountCall();
  played->probe.StartCycle();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  CheckRule(script);
  RunProbe(script);
  return 0;
}
