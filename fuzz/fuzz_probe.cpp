// Sequences of datagrams into the host-name probe, its thread body run with a link that is played.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

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

constexpr uint32_t kOwnAddress = 0xC0A80101;
constexpr uint32_t kHostNetwork = 0xC0A80100;
constexpr unsigned kMaxDeliveries = 1200;
constexpr unsigned kMaxRepeats = 1100;

// What the link brings next. An echo holds the name that is being probed as its first label.
struct Delivery {
  uint32_t sender;    // host byte order
  std::string bytes;  // a datagram, or what stands after an echo's label; empty: nothing comes
  bool isEcho;
  unsigned repeats;
};

// The link of the run under way, and which call of the probe is due on it.
struct Link {
  enum Due { kSend, kReceive };

  std::deque<Delivery> deliveries;
  ProbeRecord record;
  std::string deviceName;
  Due due;
  unsigned heard;      // receives since the last probe
  unsigned stopAfter;  // calls after which a stop is asked for, 0: never
  unsigned calls;

  void CountCall() {
    if (++calls == stopAfter) bTerminate.Set(1);
  }
  // The next datagram, empty when nothing comes any more.
  std::string Next(uint32_t& sender) {
    if (deliveries.empty()) return {};
    Delivery& delivery = deliveries.front();
    sender = delivery.sender;
    std::string bytes = delivery.bytes;
    if (delivery.isEcho) {
      const std::string name = record.name;
      bytes = std::string(12, '\0') + static_cast<char>(name.size()) + name + bytes;
    }
    if (delivery.repeats > 1) {
      --delivery.repeats;
    } else {
      deliveries.pop_front();
    }
    return bytes.substr(0, kReceiveSize);
  }
};

Link* played = nullptr;

void OnSend(const SentPacket& sent) {
  REQUIRE(played->due == Link::kSend, "a probe is sent at the start and after each pause");
  REQUIRE(!IsTerminating(), "no probe is sent after the stop");
  REQUIRE(sent.message && sent.message->questions.size() == 1 &&
              sent.message->authorities.empty() && sent.message->answers.empty(),
          "a probe is one question");
  REQUIRE(sent.message->questions[0].type == 1 && sent.message->questions[0].recordClass == 1,
          "a probe asks for an address");
  played->due = Link::kReceive;
  played->heard = 0;
  played->CountCall();
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
  if (!IsNameConflict(MessageReader(message.Data(), message.Size()), record.name)) return;
  const std::string name(record.name, strnlen(record.name, sizeof(record.name)));
  REQUIRE(message.Size() >= 13 && message.Text().substr(13).starts_with(name),
          "a message with a conflict holds the whole name");
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
  run.record.socket = multicastSocket.Get();
  run.deviceName = deviceName;
  run.stopAfter = script.Word();
  unsigned deliveries = 0;
  while (!script.IsEmpty()) {
    const Delivery delivery = ReadDelivery(script);
    deliveries += delivery.repeats;
    if (deliveries > kMaxDeliveries) break;
    run.deliveries.push_back(delivery);
  }
  played = &run;

  MDNS_CheckName(&run.record);

  REQUIRE(run.due == Link::kReceive || IsTerminating(), "a pass ends while it listens");
  REQUIRE(run.record.socket == multicastSocket.Get() && run.record.slot == 0,
          "a pass changes name and mark only");
  REQUIRE(run.record.retry != 0 || name == run.record.name, "a changed name is marked");
  played = nullptr;
  onSend = nullptr;
}

}  // namespace

// Stands before the C library's: what the link brings.
extern "C" ssize_t recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* sender,
                            socklen_t* senderSize) {
  REQUIRE(played != nullptr && played->due == Link::kReceive,
          "the probe listens only after it has sent");
  REQUIRE(++played->heard <= 12, "a probe hears at most twelve packets");
  REQUIRE(socket == multicastSocket.Get() && size == kReceiveSize && flags == 0,
          "one receive asks for 1518 bytes");
  REQUIRE(*senderSize == sizeof(sockaddr_in), "the sender's address fits");
  played->CountCall();
  uint32_t address = 0;
  const ExactBytes bytes(played->Next(address));
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
  REQUIRE(played != nullptr && played->due == Link::kReceive && played->record.retry == 1,
          "the probe pauses only after a conflict");
  REQUIRE(microseconds == 250000, "the pause is a quarter of a second");
  const std::string name = played->record.name;
  REQUIRE(name.size() <= 64 &&
              (name.starts_with(played->deviceName + "-") || played->deviceName.size() > 60),
          "a new name is the device name and a number, where both fit");
  played->due = Link::kSend;
  played->CountCall();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  CheckRule(script);
  RunProbe(script);
  return 0;
}
