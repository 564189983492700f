// The least that answers a question of a conventional resolver in two address families: it waits
// for both sockets, receives the question and sends the ready-made answer with its ID back.
// `bench_echo PACKET`: the file that holds the answer.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint16_t kPort = 5353;
constexpr size_t kIdSize = 2;
constexpr size_t kFlagsOffset = 2;

int OpenSocket() {
  const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(kPort);
  ip_mreqn membership{};
  membership.imr_multiaddr.s_addr = inet_addr("224.0.0.251");
  membership.imr_ifindex = static_cast<int>(if_nametoindex("br0"));
  const bool isOpen =
      bind(descriptor, reinterpret_cast<sockaddr*>(&any), sizeof(any)) == 0 &&
      setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) == 0;
  return isOpen ? descriptor : -1;
}

size_t ReadAnswer(const char* path, uint8_t* answer, size_t size) {
  FILE* file = fopen(path, "rb");
  if (file == nullptr) return 0;
  const size_t length = fread(answer, 1, size, file);
  fclose(file);
  return length;
}

}  // namespace

int main(int argc, char** argv) {
  uint8_t answer[1500];
  const size_t length = argc == 2 ? ReadAnswer(argv[1], answer, sizeof(answer)) : 0;
  const int link = OpenSocket();
  const int other = socket(AF_INET6, SOCK_DGRAM, 0);
  if (length < kIdSize || link < 0) return 1;
  for (;;) {
    pollfd polled[] = {{link, POLLIN, 0}, {other, POLLIN, 0}};
    if (ppoll(polled, 2, nullptr, nullptr) != 1 || polled[0].revents == 0) continue;
    uint8_t question[9000];
    sockaddr_in asker;
    socklen_t size = sizeof(asker);
    sockaddr* address = reinterpret_cast<sockaddr*>(&asker);
    const ssize_t received = recvfrom(link, question, sizeof(question), 0, address, &size);
    if (received <= static_cast<ssize_t>(kFlagsOffset) || question[kFlagsOffset] != 0) continue;
    memcpy(answer, question, kIdSize);
    sendto(link, answer, length, 0, address, size);
  }
}
