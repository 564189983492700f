// A reader of messages that shares nothing with the code under test. Names are in wire form without
// compression, in lower case, so that equal ones are equal strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The sections of a message that hold records.
enum class PacketSection : uint8_t { kAnswer, kAuthority, kAdditional };

struct PacketQuestion {
  std::string name;
  uint16_t type;
  uint16_t classBits;
};

/// A record; names within the data of PTR, SRV and NSEC are as all names are.
struct PacketRecord {
  PacketSection section;
  std::string name;
  uint16_t type;
  uint16_t classBits;
  uint32_t ttl;
  std::string data;
  bool isDataCompressed;
  /// In the authority section, where case matters: the data with names in their own.
  std::string proposed = {};
};

struct Packet {
  uint16_t id;
  uint16_t flags;
  std::vector<PacketQuestion> questions;
  std::vector<PacketRecord> records;
};

/// Reads a message, every byte of which has to belong to an entry that the header counts. Returns
/// what is wrong with it; empty when nothing is.
std::string ReadPacket(std::string_view bytes, Packet& packet);

/// A name of these labels, as in packets.
std::string PacketName(const std::vector<std::string_view>& labels);

/// ASCII letters in lower case, all other bytes as they are.
std::string LowerCase(std::string_view text);

/// Appends numbers in network byte order.
void Append16(std::string& bytes, uint32_t value);
void Append32(std::string& bytes, uint32_t value);

/// Puts a message together, without compression.
std::string WritePacket(const Packet& packet);

/// For a person to read: an entry behind another, names with dots.
std::string PacketInWords(const Packet& packet);
std::string NameInWords(std::string_view name);
