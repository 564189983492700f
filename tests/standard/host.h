// A host of the second responder on a link of one's own making, with time as a number, and the
// messages that others send it. What it sends is put into words, a line for each datagram.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "standard/core.h"
#include "tests/support/bytes.h"

constexpr Address kOwnIpv4 = {Family::kIpv4, {192, 168, 1, 1}};
constexpr Address kOtherIpv4 = {Family::kIpv4, {192, 168, 1, 77}};
constexpr Address kForeignIpv4 = {Family::kIpv4, {10, 0, 0, 1}};
constexpr Address kOwnIpv6 = {Family::kIpv6,
                              {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}};
constexpr Address kOtherIpv6 = {Family::kIpv6,
                                {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x77}};

/// A link that is up, with one MAC and these addresses, all of prefix 24.
LinkState LinkWith(const std::vector<Address>& addresses);

/// The name whose labels are between the dots of `text`; "\." is a dot within a label.
Name NameOf(std::string_view text);

/// A record as it stands in a message of another host. Data as in Wire; a name within them is
/// written there.
struct Told {
  std::string_view name;
  uint16_t type;
  std::string_view data;
  uint32_t ttl = 120;
  uint16_t classBits = kClassIn;
};

struct Asked {
  std::string_view name;
  uint16_t type;
  uint16_t classBits = kClassIn;
};

/// A query or response.
struct Message {
  uint16_t flags = 0;
  std::vector<Asked> questions = {};
  std::vector<Told> answers = {};
  std::vector<Told> authorities = {};
  uint16_t id = 0;
};
Bytes BytesOf(const Message& message);
constexpr uint16_t kResponseFlags = kFlagResponse | kFlagAuthoritative;

/// A datagram in words: family, with the destination if it is one host's, then questions behind
/// '?', answers behind '=', records of the authority section behind '!' and additional ones behind
/// '+'. Of a record: its name without the last label, its type, and "0" if its TTL is 0.
std::string InWords(const OutgoingDatagram& datagram);

class Host {
 public:
  /// A host named "host" on a link with both families, or with none, at time 0.
  explicit Host(bool hasLink = true, uint64_t seed = 1);

  Core& State() { return *core; }
  int64_t Now() const { return now; }

  /// Lets time go by until `until`; takes what is sent, each line behind the time.
  std::vector<std::string> RunUntil(int64_t until);
  std::vector<std::string> RunFor(int64_t time) { return RunUntil(now + time); }
  /// The same, each line behind the time since now.
  std::vector<std::string> RunFromNow(int64_t time);
  /// What is sent until `until`, the datagrams themselves.
  std::vector<Bytes> BytesUntil(int64_t until);
  /// Runs until names are claimed and announced, and a minute longer.
  void Settle();

  void SetLink(const LinkState& link) { HandleLink(*core, link, now); }
  /// "Printer" with an IPP service.
  void AddPrinter(std::string_view instance = "Printer");

  void Hear(const Message& message, const Address& from = kOtherIpv4, uint16_t port = kMdnsPort,
            bool isMulticast = true);
  void HearBytes(const Bytes& bytes, const Address& from = kOtherIpv4, uint16_t port = kMdnsPort,
                 bool isMulticast = true);

 private:
  template <typename Take>
  void Run(int64_t until, const Take& take);

  std::unique_ptr<Core> core = std::make_unique<Core>();
  std::unique_ptr<OutgoingDatagram> out = std::make_unique<OutgoingDatagram>();
  int64_t now = 0;
};
