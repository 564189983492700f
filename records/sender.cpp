// The packet sender.
#include "records/sender.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/log.h"
#include "base/text.h"

namespace {

// Only the stop looks at this: a socket is not closed under a thread that sends on it.
std::atomic<uint32_t> pendingTransmissions{0};

void TransmitThreeTimes(const SendJob& job) {
  for (int i = 0; i < kTransmissions; ++i) {
    if (sendto(job.socket, job.data, BytesToSend(job), 0,
               reinterpret_cast<const sockaddr*>(&job.destination), sizeof(job.destination)) < 0) {
      perror("[Bonjour] send packet error");
      return;
    }
    usleep(kTransmissionPauseMicroseconds);
  }
}

void* RunSender(void* argument) {
  const std::unique_ptr<SendJob, FreeBlock> job(static_cast<SendJob*>(argument));
  TransmitThreeTimes(*job);
  pendingTransmissions.fetch_sub(1, std::memory_order_release);
  return nullptr;
}

// What the C library demands of a stack may be more than a sender needs, and a smaller one it
// refuses.
size_t SenderStackSize() {
  const long least = sysconf(_SC_THREAD_STACK_MIN);
  return least > static_cast<long>(kSenderStackSize) ? static_cast<size_t>(least)
                                                     : kSenderStackSize;
}

}  // namespace

void FillSendJob(SendJob& job, const uint8_t* packet, int32_t length, int32_t socket,
                 const sockaddr_in& destination) {
  const auto copied = static_cast<size_t>(length < kJobCopyMax ? length : kJobCopyMax);
  memcpy(job.data, packet, copied);
  memset(job.data + copied, 0, sizeof(job.data) - copied);
  job.length = length;
  job.socket = socket;
  job.destination = destination;
}

uint32_t PendingTransmissions() { return pendingTransmissions.load(std::memory_order_acquire); }

size_t BytesToSend(const SendJob& job) {
  return static_cast<size_t>(job.length < kJobDataSize ? job.length : kJobDataSize);
}

void SendPacket(const uint8_t* packet, int32_t length, int32_t socket, sockaddr_in destination) {
  if (length <= 0) return;
  std::unique_ptr<SendJob, FreeBlock> job(static_cast<SendJob*>(malloc(sizeof(SendJob))));
  if (job == nullptr) return;
  FillSendJob(*job, packet, length, socket, destination);

  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, SenderStackSize());
  pthread_t thread;
  pendingTransmissions.fetch_add(1, std::memory_order_relaxed);
  const int error = pthread_create(&thread, &attributes, RunSender, job.get());
  pthread_attr_destroy(&attributes);
  // The sender frees the job. When none could be started the job is left behind all the same.
  static_cast<void>(job.release());
  if (error != 0) {
    pendingTransmissions.fetch_sub(1, std::memory_order_release);
    LogError(kShortThreadCreateError, error);
  }
}
