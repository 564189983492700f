/* Floods the link with one question at a steady rate and counts what comes back.
 *
 * usage: flood ADDRESS QUESTION-HEX RATE SECONDS
 *
 * ADDRESS is this host's IPv4 address. Prints one line of JSON: how many questions were sent, in
 * how many seconds, how many datagrams were received meanwhile, and how many until a second and a
 * half passed without any.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { kPort = 5353, kQuestionMax = 512, kBatch = 64, kReceiveBuffer = 256 << 20 };
static const char kGroup[] = "224.0.0.251";
static const double kSilence = 1.5;

static double Now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static void Check(int result, const char* what) {
  if (result >= 0) return;
  perror(what);
  exit(1);
}

static int OpenSocket(const char* address) {
  const int opened = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  Check(opened, "socket");
  const int on = 1;
  const int off = 0;
  const int size = kReceiveBuffer;
  struct ip_mreq group = {{inet_addr(kGroup)}, {inet_addr(address)}};
  struct sockaddr_in any = {AF_INET, htons(kPort), {INADDR_ANY}, {0}};
  Check(setsockopt(opened, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "SO_REUSEADDR");
  Check(setsockopt(opened, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size), "SO_RCVBUFFORCE");
  Check(setsockopt(opened, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off), "IP_MULTICAST_LOOP");
  Check(setsockopt(opened, IPPROTO_IP, IP_MULTICAST_IF, &group.imr_interface,
                   sizeof group.imr_interface),
        "IP_MULTICAST_IF");
  Check(setsockopt(opened, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), "membership");
  Check(bind(opened, (struct sockaddr*)&any, sizeof any), "bind");
  return opened;
}

static size_t ParseHex(const char* text, unsigned char* bytes) {
  size_t length = 0;
  while (length < kQuestionMax && sscanf(text + 2 * length, "%2hhx", bytes + length) == 1) ++length;
  return length;
}

/* Takes what has arrived; returns how many datagrams that was. */
static long Drain(int from) {
  static unsigned char buffers[kBatch][16];
  struct mmsghdr messages[kBatch];
  struct iovec parts[kBatch];
  long count = 0;
  for (;;) {
    memset(messages, 0, sizeof messages);
    for (int i = 0; i < kBatch; ++i) {
      parts[i] = (struct iovec){buffers[i], sizeof buffers[i]};
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int taken = recvmmsg(from, messages, kBatch, MSG_DONTWAIT, NULL);
    if (taken <= 0) return count;
    count += taken;
  }
}

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: flood ADDRESS QUESTION-HEX RATE SECONDS\n");
    return 2;
  }
  unsigned char question[kQuestionMax];
  const size_t length = ParseHex(argv[2], question);
  const double interval = 1.0 / atof(argv[3]);
  const long questions = (long)(atof(argv[3]) * atof(argv[4]));
  const int opened = OpenSocket(argv[1]);
  const struct sockaddr_in group = {AF_INET, htons(kPort), {inet_addr(kGroup)}, {0}};

  long sent = 0;
  long received = 0;
  long meanwhile = 0;
  const double start = Now();
  double last = start;
  double end = start;
  while (sent < questions || Now() - last < kSilence) {
    while (sent < questions && start + (double)sent * interval <= Now()) {
      const ssize_t done =
          sendto(opened, question, length, 0, (const struct sockaddr*)&group, sizeof group);
      if (done < 0 && errno != EAGAIN && errno != ENOBUFS) Check(-1, "sendto");
      if (done < 0) break;
      ++sent;
      end = last = Now();
    }
    struct pollfd ready = {opened, POLLIN, 0};
    poll(&ready, 1, 1);
    const long taken = Drain(opened);
    if (taken > 0) last = Now();
    received += taken;
    if (sent < questions) meanwhile = received;
  }
  printf("{\"sent\": %ld, \"seconds\": %.3f, \"meanwhile\": %ld, \"received\": %ld}\n", sent,
         end - start, meanwhile, received);
  close(opened);
  return 0;
}
