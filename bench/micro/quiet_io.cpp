// Replaces the sender and the socket module: the linker finds these first.
#include "bench/micro/quiet_io.h"

#include "mdns/socket.h"
#include "records/sender.h"

namespace {

size_t bytesHandedOver = 0;

}  // namespace

size_t BytesHandedOver() { return bytesHandedOver; }

void SendPacket(const uint8_t* /*packet*/, int32_t length, int32_t /*socket*/,
                sockaddr_in /*destination*/) {
  bytesHandedOver += static_cast<size_t>(length);
}

uint32_t UpdateHostIP(uint32_t /*slot*/) { return 1; }
