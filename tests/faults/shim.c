/* Preloaded into a program to make chosen calls of libc fail, wait or do less than asked.

   The environment variable FAULTS names the board: a file that this library and the test both map.
   The test writes rules into it, before the program starts or while it runs; the library counts
   there which of them were reached. A rule looks only at calls that the program itself makes, not
   at those of the libraries under it. The layout is repeated in board.py. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum Function {
  kMalloc,
  kCalloc,
  kPthreadCreate,
  kSocket,
  kSetsockopt,
  kBind,
  kIoctl,
  kOpen,
  kRead,
  kRecvfrom,
  kSendto
};

enum Action { kObserve, kFail, kHold, kLimit };

/* Threads are told apart by the order in which the program started them: 0 is the initial thread,
   then come the joinable ones; all detached threads count as one. */
enum { kAnyThread = -1, kDetachedThreads = -2 };

enum { kRules = 32, kPathSize = 64, kStarts = 4096, kHoldMilliseconds = 60000 };

struct Rule {
  int32_t armed;
  int32_t function;
  int32_t thread;
  int32_t action;
  int64_t selector;     /* what the call must be about (see the functions below), or -1 */
  int64_t skip;         /* calls that match are let through first */
  int64_t times;        /* this many are then dealt with, -1 = every one */
  int64_t argument;     /* kFail: errno; kLimit: the most bytes */
  char path[kPathSize]; /* open: the path, empty = any */
  int32_t released;     /* kHold: set by the test */
  int32_t overdue;      /* kHold: the test never set it */
  int64_t seen;         /* calls that matched */
  int64_t hits;         /* calls that were dealt with */
  int64_t bytes;        /* asked for by the calls that matched */
  int64_t mostBytes;    /* asked for by one of them */
  int64_t latest;       /* when a call was last dealt with: wall-clock time in nanoseconds */
};

struct Board {
  int32_t attached; /* 1 once the library is in the program */
  int32_t joinable; /* joinable threads that the program started */
  int64_t blocks;   /* heap blocks that the program took and did not give back */
  struct Rule rules[kRules];
};

static struct Board* board;
static uintptr_t programStart;
static uintptr_t programEnd;
static __thread int32_t thisThread __attribute__((tls_model("initial-exec")));

/* The next library's function of the same name: libc's, or a sanitizer's on the way to it. */
#define NEXT(name)               \
  static __typeof__(&name) next; \
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, #name);
#define CALLER ((uintptr_t)__builtin_return_address(0))

static int NoteProgram(struct dl_phdr_info* info, size_t size, void* data) {
  (void)size;
  (void)data;
  programStart = UINTPTR_MAX;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)* segment = &info->dlpi_phdr[i];
    if (segment->p_type != PT_LOAD) continue;
    const uintptr_t start = info->dlpi_addr + segment->p_vaddr;
    if (start < programStart) programStart = start;
    if (start + segment->p_memsz > programEnd) programEnd = start + segment->p_memsz;
  }
  return 1; /* the program is the first object; the others are of no interest */
}

__attribute__((constructor)) static void Attach(void) {
  const char* path = getenv("FAULTS");
  if (path == NULL) return;
  const int file = open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) {
    perror(path);
    abort();
  }
  void* mapped = mmap(NULL, sizeof(struct Board), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (mapped == MAP_FAILED) {
    perror(path);
    abort();
  }
  dl_iterate_phdr(NoteProgram, NULL);
  board = mapped;
  __atomic_store_n(&board->attached, 1, __ATOMIC_RELEASE);
}

static int IsProgram(uintptr_t caller) {
  return board != NULL && caller >= programStart && caller < programEnd;
}

static int ThreadMatches(int32_t wanted) { return wanted == kAnyThread || wanted == thisThread; }

static void Count(struct Rule* rule, int64_t bytes) {
  __atomic_fetch_add(&rule->bytes, bytes, __ATOMIC_ACQ_REL);
  int64_t most = __atomic_load_n(&rule->mostBytes, __ATOMIC_ACQUIRE);
  while (bytes > most && !__atomic_compare_exchange_n(&rule->mostBytes, &most, bytes, 0,
                                                      __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
  }
}

static int64_t Now(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

static void WaitForRelease(struct Rule* rule) {
  const struct timespec pause = {0, 1000000};
  for (int i = 0; i < kHoldMilliseconds; ++i) {
    if (__atomic_load_n(&rule->released, __ATOMIC_ACQUIRE) != 0) return;
    nanosleep(&pause, NULL);
  }
  __atomic_store_n(&rule->overdue, 1, __ATOMIC_RELEASE);
}

struct Call {
  enum Function function;
  int64_t selector;
  const char* path; /* of open, else NULL */
  int64_t bytes;    /* asked for, 0 where there is no such thing */
};

/* What the rules make of a call: 0, or the errno with which it fails. `limit` is lowered by a rule
   that says so. */
static int Judge(const struct Call* call, int64_t* limit) {
  int failure = 0;
  for (int i = 0; i < kRules; ++i) {
    struct Rule* rule = &board->rules[i];
    if (__atomic_load_n(&rule->armed, __ATOMIC_ACQUIRE) == 0) continue;
    if (rule->function != (int32_t)call->function || !ThreadMatches(rule->thread)) continue;
    if (rule->selector != -1 && rule->selector != call->selector) continue;
    if (call->path != NULL && rule->path[0] != '\0' && strcmp(rule->path, call->path) != 0)
      continue;
    const int64_t number = __atomic_fetch_add(&rule->seen, 1, __ATOMIC_ACQ_REL);
    Count(rule, call->bytes);
    if (number < rule->skip) continue;
    if (rule->times >= 0 && number >= rule->skip + rule->times) continue;
    __atomic_store_n(&rule->latest, Now(), __ATOMIC_RELEASE);
    __atomic_fetch_add(&rule->hits, 1, __ATOMIC_ACQ_REL);
    if (rule->action == kHold) WaitForRelease(rule);
    if (rule->action == kFail) failure = (int)rule->argument;
    if (rule->action == kLimit && rule->argument < *limit) *limit = rule->argument;
  }
  return failure;
}

/* For functions that report through errno: whether the call fails. */
static int Fails(uintptr_t caller, struct Call call) {
  int64_t limit = INT64_MAX;
  const int error = IsProgram(caller) ? Judge(&call, &limit) : 0;
  if (error != 0) errno = error;
  return error != 0;
}

static void* CountBlock(uintptr_t caller, void* block) {
  if (block != NULL && IsProgram(caller)) {
    __atomic_fetch_add(&board->blocks, 1, __ATOMIC_ACQ_REL);
  }
  return block;
}

/* Looking up a function may itself allocate, through the function that is looked up. What it takes
   comes from here and is never given back. */
static struct Allocator {
  void* (*takeRaw)(size_t);
  void* (*takeCleared)(size_t, size_t);
  void (*giveBack)(void*);
} allocator;
static int isLookingUp;
static _Alignas(16) char lookupBytes[4096];
static size_t lookupBytesTaken;

static void* TakeLookupBytes(size_t size) {
  const size_t start = lookupBytesTaken;
  lookupBytesTaken = start + (size + 15) / 16 * 16;
  if (lookupBytesTaken > sizeof(lookupBytes)) abort();
  return lookupBytes + start;
}

static int IsLookupBlock(const void* block) {
  const uintptr_t address = (uintptr_t)block;
  return address >= (uintptr_t)lookupBytes &&
         address < (uintptr_t)lookupBytes + sizeof(lookupBytes);
}

/* False while the functions are being looked up. First called while there is one thread. */
static int HasAllocator(void) {
  if (allocator.giveBack != NULL) return 1;
  if (isLookingUp) return 0;
  isLookingUp = 1;
  *(void**)&allocator.takeRaw = dlsym(RTLD_NEXT, "malloc");
  *(void**)&allocator.takeCleared = dlsym(RTLD_NEXT, "calloc");
  *(void**)&allocator.giveBack = dlsym(RTLD_NEXT, "free");
  isLookingUp = 0;
  return 1;
}

/* Allocations are selected by their size in bytes. */

void* malloc(size_t size) {
  if (!HasAllocator()) return TakeLookupBytes(size);
  if (Fails(CALLER, (struct Call){kMalloc, (int64_t)size, NULL, (int64_t)size})) return NULL;
  return CountBlock(CALLER, allocator.takeRaw(size));
}

void* calloc(size_t count, size_t size) {
  if (!HasAllocator()) return TakeLookupBytes(count * size);
  const int64_t bytes = (int64_t)(count * size);
  if (Fails(CALLER, (struct Call){kCalloc, bytes, NULL, bytes})) return NULL;
  return CountBlock(CALLER, allocator.takeCleared(count, size));
}

void free(void* block) {
  if (block == NULL || IsLookupBlock(block) || !HasAllocator()) return;
  if (IsProgram(CALLER)) __atomic_fetch_sub(&board->blocks, 1, __ATOMIC_ACQ_REL);
  allocator.giveBack(block);
}

struct Start {
  int32_t taken;
  int32_t thread;
  void* (*body)(void*);
  void* argument;
};

static struct Start starts[kStarts];

static struct Start* TakeStart(void) {
  for (int i = 0; i < kStarts; ++i) {
    int32_t taken = 0;
    if (__atomic_compare_exchange_n(&starts[i].taken, &taken, 1, 0, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      return &starts[i];
    }
  }
  abort();
}

static void* RunThread(void* argument) {
  struct Start* start = argument;
  thisThread = start->thread;
  void* (*body)(void*) = start->body;
  void* bodyArgument = start->argument;
  __atomic_store_n(&start->taken, 0, __ATOMIC_RELEASE);
  return body(bodyArgument);
}

/* Selected by the detach state: PTHREAD_CREATE_JOINABLE or PTHREAD_CREATE_DETACHED. */
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  NEXT(pthread_create)
  if (!IsProgram(CALLER)) return next(thread, attributes, body, argument);

  int state = PTHREAD_CREATE_JOINABLE;
  if (attributes != NULL) pthread_attr_getdetachstate(attributes, &state);
  int64_t limit = INT64_MAX;
  const struct Call call = {kPthreadCreate, state, NULL, 0};
  const int error = Judge(&call, &limit);
  if (error != 0) return error;
  struct Start* start = TakeStart();
  start->thread = state == PTHREAD_CREATE_DETACHED
                      ? kDetachedThreads
                      : __atomic_add_fetch(&board->joinable, 1, __ATOMIC_ACQ_REL);
  start->body = body;
  start->argument = argument;
  const int result = next(thread, attributes, RunThread, start);
  if (result != 0) __atomic_store_n(&start->taken, 0, __ATOMIC_RELEASE);
  return result;
}

int socket(int domain, int type, int protocol) {
  NEXT(socket)
  if (Fails(CALLER, (struct Call){kSocket, -1, NULL, 0})) return -1;
  return next(domain, type, protocol);
}

/* Selected by level and option: level * 65536 + option. */
int setsockopt(int descriptor, int level, int option, const void* value, socklen_t length) {
  NEXT(setsockopt)
  const int64_t selector = (int64_t)level * 65536 + option;
  if (Fails(CALLER, (struct Call){kSetsockopt, selector, NULL, 0})) return -1;
  return next(descriptor, level, option, value, length);
}

int bind(int descriptor, __CONST_SOCKADDR_ARG address, socklen_t length) {
  NEXT(bind)
  if (Fails(CALLER, (struct Call){kBind, -1, NULL, 0})) return -1;
  return next(descriptor, address, length);
}

/* Selected by the request. */
int ioctl(int descriptor, unsigned long request, ...) {
  NEXT(ioctl)
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (Fails(CALLER, (struct Call){kIoctl, (int64_t)request, NULL, 0})) return -1;
  return next(descriptor, request, argument);
}

/* Selected by the path. */
int open(const char* path, int flags, ...) {
  NEXT(open)
  mode_t mode = 0;
  if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (Fails(CALLER, (struct Call){kOpen, -1, path, 0})) return -1;
  return next(path, flags, mode);
}

ssize_t read(int descriptor, void* buffer, size_t size) {
  NEXT(read)
  if (IsProgram(CALLER)) {
    int64_t limit = (int64_t)size;
    const struct Call call = {kRead, -1, NULL, (int64_t)size};
    const int error = Judge(&call, &limit);
    if (error != 0) {
      errno = error;
      return -1;
    }
    size = (size_t)limit;
  }
  return next(descriptor, buffer, size);
}

ssize_t recvfrom(int descriptor, void* restrict buffer, size_t size, int flags,
                 __SOCKADDR_ARG address, socklen_t* restrict length) {
  NEXT(recvfrom)
  if (Fails(CALLER, (struct Call){kRecvfrom, -1, NULL, (int64_t)size})) return -1;
  return next(descriptor, buffer, size, flags, address, length);
}

ssize_t sendto(int descriptor, const void* buffer, size_t size, int flags,
               __CONST_SOCKADDR_ARG address, socklen_t length) {
  NEXT(sendto)
  if (Fails(CALLER, (struct Call){kSendto, -1, NULL, (int64_t)size})) return -1;
  return next(descriptor, buffer, size, flags, address, length);
}
