// The least that an answering daemon can do: only the system calls that its behaviour prescribes,
// with ready-made packets. `bench_floor PACKETS`, a file of packets, each after a big-endian 16-bit
// length: the first answers a host-name question, every other one is a service's answer to a browse
// question. It reads the printer status file as often as the daemon does, until it is killed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mdns/socket.h"
#include "mdns/state.h"
#include "printer/monitor.h"
#include "printer/status_file.h"
#include "records/encode.h"
#include "records/message.h"
#include "records/sender.h"

namespace {

// As long as the line that the daemon logs.
constexpr char kLogLine[] = "[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (46)\n";
constexpr size_t kPacketsMax = 32;

struct ReadyPacket {
  uint8_t bytes[kReceiveSize];
  size_t length;
};

ReadyPacket packets[kPacketsMax];
size_t packetCount = 0;
int multicast = -1;
sockaddr_in destination;

bool ReadPackets(const char* path) {
  FILE* file = fopen(path, "rb");
  if (file == nullptr) return false;
  uint8_t length[2];
  while (packetCount < kPacketsMax && fread(length, sizeof(length), 1, file) == 1) {
    ReadyPacket& packet = packets[packetCount];
    packet.length = static_cast<size_t>((length[0] << 8) | length[1]);
    if (packet.length > sizeof(packet.bytes)) break;
    if (fread(packet.bytes, packet.length, 1, file) != 1) break;
    ++packetCount;
  }
  fclose(file);
  return packetCount > 1;
}

void* PollStatusFile(void* /*argument*/) {
  static char text[kStatusFileMax];
  for (;;) {
    const int file = open(kStatusFilePath, O_RDONLY);
    while (read(file, text, kStatusReadMax) > 0) continue;
    close(file);
    sleep(kPassSeconds);
  }
}

void* SendPacketThreeTimes(void* argument) {
  const ReadyPacket& packet = *static_cast<const ReadyPacket*>(argument);
  for (int i = 0; i < kTransmissions; ++i) {
    sendto(multicast, packet.bytes, packet.length, 0,
           reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
    usleep(kTransmissionPauseMicroseconds);
  }
  return nullptr;
}

void AskForAddress() {
  const int control = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq request = {};
  memcpy(request.ifr_name, kBridgeName, sizeof(kBridgeName));
  ioctl(control, SIOCGIFFLAGS, &request);
  ioctl(control, SIOCGIFADDR, &request);
  close(control);
}

void Answer(ReadyPacket& packet, const pthread_attr_t& detached) {
  if (write(STDOUT_FILENO, kLogLine, sizeof(kLogLine) - 1) < 0) exit(1);
  AskForAddress();
  pthread_t thread;
  if (pthread_create(&thread, &detached, SendPacketThreeTimes, &packet) != 0) exit(1);
}

void AnswerForEver() {
  pthread_attr_t detached;
  pthread_attr_init(&detached);
  pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&detached, kSenderStackSize);
  uint8_t message[kReceiveSize];
  for (;;) {
    sockaddr_in sender;
    socklen_t senderSize = sizeof(sender);
    const ssize_t received = recvfrom(multicast, message, sizeof(message), 0,
                                      reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (received <= kHeaderSize || message[kFlagsOffset] != kFlagsQuery) continue;
    if (message[kHeaderSize + 1] == '_') {
      for (size_t i = 1; i < packetCount; ++i) Answer(packets[i], detached);
    } else {
      Answer(packets[0], detached);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !ReadPackets(argv[1])) return 2;
  destination.sin_family = AF_INET;
  destination.sin_port = htons(kMdnsPort);
  destination.sin_addr.s_addr = inet_addr(kMdnsGroup);
  responderState.mdnsDestination = destination;
  memcpy(responderState.interfaceName[kBridgeSlot], kBridgeName, sizeof(kBridgeName));
  if (SocketSetup_For_Interface_N() == 0) return 1;
  fflush(stdout);
  multicast = multicastSocket.Get();
  pthread_t poller;
  if (pthread_create(&poller, nullptr, PollStatusFile, nullptr) != 0) return 1;
  AnswerForEver();
}
