// The packet sender: every packet leaves through SendPacket, three times.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "base/gate.h"

/// Each packet is sent this often, with this pause after each transmission.
constexpr int kTransmissions = 3;
constexpr unsigned kTransmissionPauseMicroseconds = 250000;
/// What all of that takes, the time of the transmissions themselves not counted.
constexpr unsigned kSendingMicroseconds = kTransmissions * kTransmissionPauseMicroseconds;

/// Packet bytes that a job can hold, and the most that are copied into it.
constexpr int32_t kJobDataSize = 1520;
constexpr int32_t kJobCopyMax = 1518;

/// Stack that a sender thread asks for, in bytes, unless the C library demands more (128 KiB with
/// glibc on MIPS and 64-bit ARM). A burst of answers keeps hundreds of senders alive at once, for
/// which default stacks would leave no space in a 32-bit address space.
constexpr size_t kSenderStackSize = size_t{64} * 1024;

/// Jobs that are kept for the next packets: when their senders have done with them or could not be
/// started.
constexpr size_t kSpareJobs = 4;

/// Packet bytes that a sender takes to its stack: as many as any answer about a usual printer has,
/// and as few as leave the stack within one page with glibc on 64-bit CPUs.
constexpr size_t kUsualPacketSize = 768;

/// One pending transmission. Owned by the creating thread until the sender thread starts, by that
/// thread alone afterwards.
struct SendJob {
  uint8_t data[kJobDataSize];  ///< copy of the packet, zeros after it as far as it is sent
  int32_t length;              ///< bytes to send as the caller gave them, may exceed `data`
  int32_t socket;              ///< UDP socket, owned by the responder
  sockaddr_in destination;
};

/// Fills `job` with a copy of the first `length` bytes of `packet`, but of no more than
/// kJobCopyMax. `packet` holds that many bytes. `length` is above 0.
void FillSendJob(SendJob& job, const uint8_t* packet, int32_t length, int32_t socket,
                 const sockaddr_in& destination);

/// The number of bytes that a transmission of `job` puts on the wire: its length, but no more than
/// the job holds.
size_t BytesToSend(const SendJob& job);

/// Copies the packet and starts a detached thread that sends it three times, the first time at
/// once, 250 ms apart. Returns at once; the caller may reuse `packet`, of which min(`length`, 1518)
/// bytes are read. A length of 0 or less, a lack of memory, or CloseSending before it sends nothing
/// without a message. Any thread.
void SendPacket(const uint8_t* packet, int32_t length, int32_t socket, sockaddr_in destination);

/// True from the moment that a packet is handed over until its sender has ended. Whoever finds
/// nobody sending after CloseSending may close the socket. Any thread.
bool IsAnyoneSending();

/// From here on SendPacket sends nothing; what was handed over before is still sent. Any thread.
void CloseSending();

/// Counts the caller as a sender for as long as the pass lives, so that the socket stays open. Not
/// inside after CloseSending. Any thread.
GatePass UseAsSender();
