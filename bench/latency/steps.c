/* Preloaded into the daemon and into the floor program: notes when each of their calls of libc that
   an answer consists of begins and ends. The environment variable BENCH_STEPS names the file that
   the notes go to; steps.py reads them. The layout is repeated there. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

enum Call { kReceive, kWrite, kSocket, kClose, kCreate, kSend };
enum { kNotes = 1 << 15 }; /* in the address space that the daemon is packaged with */

struct Note {
  int64_t begun; /* nanoseconds */
  int64_t ended;
  int32_t call;
  int32_t thread;
};

struct Notes {
  int64_t count; /* of all calls, also of those beyond kNotes */
  struct Note notes[kNotes];
};

static struct Notes* notes;
static __thread int32_t thisThread __attribute__((tls_model("initial-exec")));

#define NEXT(name)               \
  static __typeof__(&name) next; \
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, #name);

__attribute__((constructor)) static void Attach(void) {
  const char* path = getenv("BENCH_STEPS");
  if (path == NULL) return;
  const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (file < 0 || ftruncate(file, sizeof(struct Notes)) != 0) abort();
  /* All of it is there before anything is measured. */
  void* mapped =
      mmap(NULL, sizeof(struct Notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file, 0);
  close(file);
  if (mapped == MAP_FAILED) abort();
  notes = mapped;
}

static int64_t Now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

static void Keep(enum Call call, int64_t begun) {
  if (notes == NULL) return;
  const int64_t ended = Now();
  const int64_t number = __atomic_fetch_add(&notes->count, 1, __ATOMIC_RELAXED);
  if (number >= kNotes) return;
  if (thisThread == 0) thisThread = gettid();
  notes->notes[number] = (struct Note){begun, ended, (int32_t)call, thisThread};
}

#define TIMED(type, call, name, ...)     \
  NEXT(name)                             \
  const int64_t begun = Now();           \
  const type result = next(__VA_ARGS__); \
  Keep(call, begun);                     \
  return result;

ssize_t recvfrom(int descriptor, void* restrict buffer, size_t size, int flags,
                 __SOCKADDR_ARG address, socklen_t* restrict length){
    TIMED(ssize_t, kReceive, recvfrom, descriptor, buffer, size, flags, address, length)}

ssize_t write(int descriptor, const void* buffer, size_t size) {
  TIMED(ssize_t, kWrite, write, descriptor, buffer, size)
}

int socket(int domain, int type, int protocol) {
  TIMED(int, kSocket, socket, domain, type, protocol)
}

int close(int descriptor) { TIMED(int, kClose, close, descriptor) }

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument){
    TIMED(int, kCreate, pthread_create, thread, attributes, body, argument)}

ssize_t sendto(int descriptor, const void* buffer, size_t size, int flags,
               __CONST_SOCKADDR_ARG address, socklen_t length) {
  TIMED(ssize_t, kSend, sendto, descriptor, buffer, size, flags, address, length)
}
