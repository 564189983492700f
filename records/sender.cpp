// The packet sender.
#include "records/sender.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/log.h"

namespace {

void TransmitThreeTimes(const uint8_t* data, size_t length, int32_t socket,
                        const sockaddr_in& destination) {
  for (int i = 0; i < kTransmissions; ++i) {
    if (sendto(socket, data, length, 0, reinterpret_cast<const sockaddr*>(&destination),
               sizeof(destination)) < 0) {
      LogError("[Bonjour] send packet error", errno);
      return;
    }
    usleep(kTransmissionPauseMicroseconds);
  }
}

// Every sender is inside from the moment that its packet is handed over.
Gate senders;

// Jobs that senders have done with. They carry the next packets: a new mapping, and its first use,
// cost more than all that an answer needs beside its thread.
std::atomic<SendJob*> spareJobs[kSpareJobs];

// A job is a mapping of its own, not a block in the heap: what the heap keeps of a flood of jobs
// would never go back to the system, and where memory is limited the senders would take what the
// texts of a new printer need.
SendJob* MapJob() {
  void* const mapped =
      mmap(nullptr, sizeof(SendJob), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return mapped != MAP_FAILED ? static_cast<SendJob*>(mapped) : nullptr;
}

SendJob* TakeJob() {
  for (std::atomic<SendJob*>& spare : spareJobs) {
    if (SendJob* const job = spare.exchange(nullptr)) return job;
  }
  return MapJob();
}

// Each place takes the job and gives back what it had.
void SpareJob(SendJob* job) {
  for (std::atomic<SendJob*>& spare : spareJobs) {
    job = spare.exchange(job);
    if (job == nullptr) return;
  }
  munmap(job, sizeof(SendJob));
}

// A usual packet goes to the sender's own stack, and the job carries the next one at once: a flood
// then needs no memory for jobs beside that for stacks.
void* RunSender(void* argument) {
  SendJob* const job = static_cast<SendJob*>(argument);
  const size_t length = BytesToSend(*job);
  const int32_t socket = job->socket;
  const sockaddr_in destination = job->destination;
  if (uint8_t data[kUsualPacketSize]; length <= sizeof(data)) {
    memcpy(data, job->data, length);
    SpareJob(job);
    TransmitThreeTimes(data, length, socket, destination);
  } else {
    TransmitThreeTimes(job->data, length, socket, destination);
    SpareJob(job);
  }
  senders.Leave();
  return nullptr;
}

// What the C library demands of a stack may be more than a sender needs, and a smaller one it
// refuses.
size_t SenderStackSize() {
  const long least = sysconf(_SC_THREAD_STACK_MIN);
  return least > static_cast<long>(kSenderStackSize) ? static_cast<size_t>(least)
                                                     : kSenderStackSize;
}

// Hands the packet to a new sender. False when none could be started.
bool StartSender(const uint8_t* packet, int32_t length, int32_t socket,
                 const sockaddr_in& destination) {
  SendJob* const job = TakeJob();
  if (job == nullptr) return false;
  FillSendJob(*job, packet, length, socket, destination);

  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, SenderStackSize());
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, RunSender, job);
  pthread_attr_destroy(&attributes);
  if (error == 0) return true;
  SpareJob(job);
  LogError(kNoPassingThread, error);
  return false;
}

}  // namespace

void FillSendJob(SendJob& job, const uint8_t* packet, int32_t length, int32_t socket,
                 const sockaddr_in& destination) {
  const auto copied = static_cast<size_t>(length < kJobCopyMax ? length : kJobCopyMax);
  memcpy(job.data, packet, copied);
  job.length = length;
  memset(job.data + copied, 0, BytesToSend(job) - copied);
  job.socket = socket;
  job.destination = destination;
}

size_t BytesToSend(const SendJob& job) {
  return static_cast<size_t>(job.length < kJobDataSize ? job.length : kJobDataSize);
}

void SendPacket(const uint8_t* packet, int32_t length, int32_t socket, sockaddr_in destination) {
  if (length <= 0 || !senders.Enter()) return;
  // A sender that was started leaves the gate itself when it ends.
  if (!StartSender(packet, length, socket, destination)) senders.Leave();
}

bool IsAnyoneSending() { return !senders.IsEmpty(); }

void CloseSending() { senders.Close(); }

GatePass UseAsSender() { return GatePass(senders); }
