// What the kernel says of the bridge, through rtnetlink: whether it is there, up and has a carrier,
// its MTU, hardware address and Internet addresses. Reading the messages does no I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "standard/address.h"

/// Bytes of the largest datagram that the kernel puts messages into for a reader that takes as
/// much.
constexpr size_t kNetlinkDatagramMax = 8192;

/// The interface under one name, as far as the messages so far tell.
struct LinkWatch {
  int32_t index;    ///< the kernel's number for it; 0 while there is none
  LinkState link;   ///< all zero while there is none
  bool mustReread;  ///< something was missed: ReadLink has to be called before `link` is right
  bool wasDown;     ///< it was not up, if only for a moment, since the reader last cleared this
  uint32_t carrierChanges;  ///< how often the carrier came and went; 0 on kernels before 3.15
  uint32_t sequence;        ///< number of the last request to the kernel
};

/// Takes the messages of one datagram from the kernel about the interface called `name`; malformed
/// ones and those about other interfaces change nothing. Returns true when the datagram ends the
/// reply to the last request.
bool HandleNetlink(LinkWatch& watch, std::string_view name, const uint8_t* bytes, size_t length);

/// Opens a netlink socket that is told of every change of links and addresses; no call waits on it.
/// Returns the descriptor, or -1 with errno set.
int OpenNetlink();

/// Takes messages that wait on a socket of OpenNetlink; not all of them when there are very many.
/// They are read into `buffer`, kNetlinkDatagramMax bytes of the caller's.
void TakeNetlink(int netlink, LinkWatch& watch, std::string_view name, uint8_t* buffer);

/// Asks the kernel for everything again. Returns true, and `watch` is right and not to be read
/// again, when all of it could be read; `buffer` is as for TakeNetlink.
bool ReadLink(int netlink, LinkWatch& watch, std::string_view name, uint8_t* buffer);
