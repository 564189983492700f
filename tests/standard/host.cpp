#include "tests/standard/host.h"

#include <gtest/gtest.h>

#include <map>

namespace {

std::string TextOf(const Name& name) {
  std::string text;
  size_t offset = 0;
  while (name.bytes[offset] != 0) {
    if (!text.empty()) text += '.';
    text += NextLabel(name, offset);
  }
  const size_t last = text.rfind('.');
  return last == std::string::npos ? text : text.substr(0, last);
}

std::string TypeText(uint16_t type) {
  static const std::map<uint16_t, std::string> kTexts = {
      {kTypeA, "A"},     {kTypePtr, "PTR"},   {kTypeTxt, "TXT"}, {kTypeAaaa, "AAAA"},
      {kTypeSrv, "SRV"}, {kTypeNsec, "NSEC"}, {kTypeAny, "ANY"}};
  const auto text = kTexts.find(type);
  return text != kTexts.end() ? text->second : "TYPE" + std::to_string(type);
}

std::string AddressText(const Address& address) {
  const size_t last = address.family == Family::kIpv4 ? 3 : 15;
  return "." + std::to_string(address.bytes[last]);
}

void Tell(WireWriter& writer, Section section, const std::vector<Told>& records) {
  for (const Told& told : records) {
    Record record;
    record.name = NameOf(told.name);
    record.type = told.type;
    record.classBits = told.classBits;
    record.ttl = told.ttl;
    const Bytes data = Wire(told.data);
    record.dataLength = data.size();
    std::copy(data.begin(), data.end(), record.data);
    EXPECT_TRUE(WriteRecord(writer, section, record));
  }
}

}  // namespace

LinkState LinkWith(const std::vector<Address>& addresses) {
  LinkState link = {};
  link.isUp = true;
  link.mtu = 1500;
  link.mac[5] = 1;
  for (const Address& address : addresses) {
    link.addresses[link.addressCount++] = {address, 24};
  }
  return link;
}

Name NameOf(std::string_view text) {
  Name name = RootName();
  std::string label;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '.') {
      EXPECT_TRUE(AppendLabel(name, label)) << text;
      label.clear();
    } else {
      if (text[i] == '\\') ++i;
      label += text[i];
    }
  }
  return name;
}

Bytes BytesOf(const Message& message) {
  Bytes bytes(kDatagramMax);
  WireWriter writer = WriteMessage(bytes.data(), bytes.size(), true);
  for (const Asked& asked : message.questions) {
    EXPECT_TRUE(WriteQuestion(writer, NameOf(asked.name), asked.type, asked.classBits));
  }
  Tell(writer, Section::kAnswer, message.answers);
  Tell(writer, Section::kAuthority, message.authorities);
  bytes.resize(FinishMessage(writer, message.id, message.flags));
  return bytes;
}

std::string InWords(const OutgoingDatagram& datagram) {
  const Address& to = datagram.destination.address;
  std::string words = to.family == Family::kIpv4 ? "v4" : "v6";
  if (to.bytes[0] != 224 && to.bytes[0] != 0xFF) {
    words += AddressText(to) + ":" + std::to_string(datagram.destination.port);
  }
  if ((MessageFlags(datagram.bytes, datagram.length) & kFlagTruncated) != 0) words += " TC";
  WireReader reader = ReadMessage(datagram.bytes, datagram.length);
  Question question;
  while (ReadQuestion(reader, question)) {
    words += " ?" + TextOf(question.name) + " " + TypeText(question.type);
  }
  ReceivedRecord record;
  while (ReadRecord(reader, record)) {
    words += std::string(" ") + " =!+"[static_cast<size_t>(record.section)] + TextOf(record.name) +
             " " + TypeText(record.type) + (record.ttl == 0 ? " 0" : "");
  }
  EXPECT_FALSE(reader.isMalformed);
  EXPECT_EQ(reader.offset, datagram.length);
  return words;
}

Host::Host(bool hasLink, uint64_t seed) {
  InitCore(*core, "host", seed);
  if (hasLink) SetLink(LinkWith({kOwnIpv4, kOwnIpv6}));
}

template <typename Take>
void Host::Run(int64_t until, const Take& take) {
  for (;;) {
    for (int datagrams = 0; TakeDatagram(*core, now, *out); ++datagrams) {
      ASSERT_LT(datagrams, 200) << "does not end";
      take();
    }
    const int64_t next = NextTurn(*core);
    ASSERT_GT(next, now) << "something is due that was not sent";
    if (next > until) break;
    now = next;
  }
  now = until;
}

std::vector<std::string> Host::RunUntil(int64_t until) {
  std::vector<std::string> lines;
  Run(until, [&] { lines.push_back(std::to_string(now) + " " + InWords(*out)); });
  return lines;
}

std::vector<Bytes> Host::BytesUntil(int64_t until) {
  std::vector<Bytes> datagrams;
  Run(until, [&] { datagrams.emplace_back(out->bytes, out->bytes + out->length); });
  return datagrams;
}

std::vector<std::string> Host::RunFromNow(int64_t time) {
  const int64_t start = now;
  std::vector<std::string> lines = RunFor(time);
  for (std::string& line : lines) {
    line = std::to_string(std::stoll(line) - start) + line.substr(line.find(' '));
  }
  return lines;
}

void Host::Settle() { RunFor(62000); }

void Host::AddPrinter(std::string_view instance) {
  EXPECT_TRUE(AddService(*core, instance, "_ipp._tcp", "txtvers=1", 631, now));
}

void Host::Hear(const Message& message, const Address& from, uint16_t port, bool isMulticast) {
  HearBytes(BytesOf(message), from, port, isMulticast);
}

void Host::HearBytes(const Bytes& bytes, const Address& from, uint16_t port, bool isMulticast) {
  ExactBytes exact(bytes);
  HandleDatagram(*core, {exact.Data(), exact.Size(), {from, port}, isMulticast}, now);
}
