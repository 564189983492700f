// The answering loop: questions for the host name and for the registered services.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "mdns/state.h"
#include "records/compose.h"
#include "records/message.h"

/// Capacity of an answer packet.
constexpr int32_t kAnswerSize = 4554;
/// Characters of the device name that a host name keeps, so that with the domain it has at most 63.
constexpr size_t kHostLabelMax = 57;

/// Argument of MDNS_Answer. Owned by the responder thread, outlives the answering thread.
struct AnswerStartRecord {
  int32_t socket;  ///< the multicast socket, read again before every receive
  uint32_t slot;   ///< interface slot whose address is logged and put into A records
};

/// The working state of the answering thread, which alone touches it.
struct AnsweringState {
  uint32_t slot;
  in_addr_t ownAddress;  ///< network byte order, as it was at the start; the own-packet filter's
  DeviceName deviceName;
  HostName hostName;  ///< with the first kHostLabelMax characters of the device name
  /// Not cleared between messages: what lies after the bytes just received is left over.
  uint8_t receiveBuffer[kReceiveSize];
  uint8_t packetBytes[kAnswerSize];
  Packet packet;  ///< over `packetBytes`
};

/// Sets up the state from the responder's current device name and the slot's current address, with
/// a zero-filled receive buffer.
void StartAnswering(AnsweringState& state, uint32_t slot);

/// Handles the message of `received` bytes (1 or more) in the receive buffer that came from
/// `sender`: answers it through SendPacket on `socket`, or ignores it. Takes the registry mutex.
void AnswerMessage(AnsweringState& state, size_t received, const sockaddr_in& sender,
                   int32_t socket);

/// Thread body; `argument` is an AnswerStartRecord. Receives and answers until a stop is asked for,
/// which it sees within the socket's receive timeout.
void* MDNS_Answer(void* argument);
