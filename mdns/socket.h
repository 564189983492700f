// The multicast socket and the interface's address.
#pragma once

#include <cstdint>

/// Seconds after which a receive on the multicast socket returns without data.
constexpr int kReceiveTimeoutSeconds = 5;

/// Reads the IPv4 address of the slot's interface into the responder state. Returns 1, or 0 when it
/// can't be had; the reason is logged and the stored address stays as it was. Responder thread and
/// answering thread. The interface only has to exist, it may be down.
uint32_t UpdateHostIP(uint32_t slot);

/// Opens the one socket for sending and receiving: bound to the mDNS port and to the bridge, joined
/// to the group, without loop-back, with a receive timeout. Returns 1 with the bridge slot marked
/// as connected, or 0 with no socket open. Responder thread.
uint32_t SocketSetup_For_Interface_N();

/// Marks the bridge slot as not connected and closes the socket. Responder thread, once no other
/// thread receives on it or sends.
void CloseMulticastSocket();
