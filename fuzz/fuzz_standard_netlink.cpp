// The kernel's messages about links and addresses, in sequences, into what is known of the bridge.
#include <linux/netlink.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "standard/core.h"
#include "standard/netlink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMaxSteps = 64;
constexpr int64_t kSecond = 1000;

void RequireValid(const LinkWatch& watch) {
  const LinkState& link = watch.link;
  REQUIRE(link.addressCount <= kLinkAddressesMax, "no more addresses than there are places");
  for (size_t i = 0; i < link.addressCount; ++i) {
    const Address& address = link.addresses[i].address;
    REQUIRE(address.family == Family::kIpv4 || address.family == Family::kIpv6,
            "an address has a family");
    REQUIRE(address.family == Family::kIpv6 ||
                std::all_of(address.bytes + 4, address.bytes + 16, [](auto b) { return b == 0; }),
            "behind an IPv4 address there is nothing");
    for (size_t j = 0; j < i; ++j) {
      REQUIRE(!AreAddressesEqual(address, link.addresses[j].address), "no address is there twice");
    }
  }
  REQUIRE(watch.index >= 0, "an index is a number of the kernel's");
  REQUIRE(watch.index != 0 || (!link.isUp && link.mtu == 0 && link.addressCount == 0),
          "without a link nothing is known of it");
}

// Numbers in the order of the machine, as the kernel writes them.
template <typename T>
void Append(std::string& bytes, T value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

void Pad(std::string& bytes) { bytes.resize((bytes.size() + 3) / 4 * 4); }

// A message whose lengths are right, so that they need not be guessed.
std::string BuildMessage(Input& script) {
  const uint16_t types[] = {16, 17, 20, 21, NLMSG_DONE, NLMSG_ERROR};
  const uint16_t type = types[script.Byte() % 6];
  std::string body;
  if (type < 20) {
    body += std::string("\0\0\1\0", 4);
    Append(body, static_cast<int32_t>(script.Byte() % 4));
    Append(body, static_cast<uint32_t>(script.Byte() % 2 == 0 ? 0x41 : script.Word()));
    Append(body, uint32_t{0});
  } else {
    body += static_cast<char>(script.Byte() % 2 == 0 ? 2 : 10);
    body += static_cast<char>(script.Byte() % 130);
    body += static_cast<char>(script.Byte());
    body += '\0';
    Append(body, static_cast<int32_t>(script.Byte() % 4));
  }
  for (unsigned count = script.Byte() % 6; count > 0; --count) {
    const uint8_t kind = script.Byte();
    const std::string value = kind % 16 == 3 && script.Byte() % 2 == 0
                                  ? std::string("br0\0", 4)
                                  : script.Bytes(script.Byte() % 20);
    Append(body, static_cast<uint16_t>(4 + value.size()));
    Append(body, static_cast<uint16_t>(kind % 64));
    body += value;
    Pad(body);
  }
  std::string message;
  Append(message, static_cast<uint32_t>(16 + body.size()));
  Append(message, type);
  Append(message, static_cast<uint16_t>(script.Byte() % 8 == 0 ? NLM_F_DUMP_INTR : 0));
  Append(message, static_cast<uint32_t>(script.Byte() % 4));
  Append(message, uint32_t{0});
  return message + body;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  LinkWatch watch = {};
  watch.sequence = script.Byte() % 4;
  const auto core = std::make_unique<Core>();
  InitCore(*core, "host", 1);
  const auto out = std::make_unique<OutgoingDatagram>();
  int64_t now = 0;
  for (int i = 0; i < kMaxSteps && !script.IsEmpty(); ++i) {
    std::string datagram;
    if (script.Byte() % 4 == 0) {
      datagram = script.Block();
    } else {
      for (unsigned count = 1 + script.Byte() % 4; count > 0; --count) {
        datagram += BuildMessage(script);
      }
    }
    const ExactBytes exact(datagram);
    const bool isOver = HandleNetlink(watch, "br0", exact.Data(), exact.Size());
    REQUIRE(!isOver || exact.Size() >= sizeof(nlmsghdr), "nothing does not end a reply");
    RequireValid(watch);
    // Whatever the kernel says, the protocol can live with it.
    now += kSecond;
    HandleLink(*core, watch.link, now);
    while (TakeDatagram(*core, now, *out)) {
    }
  }
  return 0;
}
