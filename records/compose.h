// Packets under construction: the header and the kinds of record that this responder writes, one
// function a kind, shared by every composer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/responder.h"
#include "records/encode.h"

/// Times to live in seconds (RFC 6762, section 10): records that hold the host's name or address,
/// all other records, and a withdrawn record.
constexpr uint32_t kHostTtl = 120;
constexpr uint32_t kServiceTtl = 4500;
constexpr uint32_t kGoodbyeTtl = 0;

/// Capacity of a probe, announcement or goodbye packet.
constexpr int32_t kPacketSize = 1518;

/// The host's name with its domain, zero-terminated.
struct HostName {
  char text[kDeviceNameSize + sizeof(kLocalDomain) - 1];
};

/// The first `limit` characters of the device name, at most kDeviceNameMax, and the domain.
HostName FormatHostName(std::string_view deviceName, size_t limit);

/// A packet under construction.
struct Packet {
  uint8_t* bytes;     ///< the caller's buffer
  int32_t capacity;   ///< its size in bytes
  int32_t length;     ///< where the next record goes; past `capacity` when the packet was cut
  MdnsRecord record;  ///< the record being written
};

/// The fixed part of a header. The counts are the composer's, they are not counted from the
/// records.
struct PacketHeader {
  uint8_t flags;  ///< first flags byte, the second is always 0
  uint8_t questions;
  uint8_t answers;
  uint8_t authorities;
};

/// Zero-fills the packet and writes its header; the first record goes after it.
void BeginPacket(Packet& packet, const PacketHeader& header);

/// Adds a question. `unicastResponse` sets class bit 15 (RFC 6762, section 5.4). Owner names are
/// cut to 192 characters, here and below.
void AddQuestion(Packet& packet, std::string_view owner, int32_t type, bool unicastResponse);

/// Adds an A record. `address` is a dotted quad.
void AddAddress(Packet& packet, std::string_view owner, bool cacheFlush, std::string_view address);

/// Adds a PTR record; its cache-flush bit is clear, it is shared (RFC 6762, section 10.2).
void AddPointer(Packet& packet, std::string_view owner, uint32_t ttl, std::string_view target);

/// Adds a SRV record.
void AddServer(Packet& packet, std::string_view owner, bool cacheFlush, uint32_t port,
               std::string_view target);

/// Adds a TXT record with the cache-flush bit set. The strings of `text` are separated by line
/// feeds; it is cut to 1023 characters. Empty gives a record without data.
void AddText(Packet& packet, std::string_view owner, std::string_view text);

/// Everything that is published of one service.
struct ServiceRecords {
  std::string_view hostName;      ///< with domain; owner of the A record, target of the SRV record
  std::string_view address;       ///< the host's dotted quad
  std::string_view typeName;      ///< for example "_ipp._tcp.local"
  std::string_view instanceName;  ///< the service name, '.' and the type name
  std::string_view txt;           ///< TXT text, may be empty
  uint32_t port;                  ///< TCP port
  bool hasSubtype;                ///< also reachable under kUniversalSubtype
};

/// Begins a response and adds the service's A, PTR, SRV and TXT records and, with a subtype, that
/// PTR record: what both an answer and an announcement carry.
void ComposeServiceResponse(Packet& packet, const ServiceRecords& service);
