/* Preloaded into a program to make chosen calls of libc fail, wait or do less than asked, and to
   record every one.

   The environment variable FAULTS names the board: a file that this library and the test both map.
   The test writes rules into it, before the program starts or while it runs; the library counts
   there which of them were reached, and records the calls if the test wants that. Rules and records
   look only at calls that the program itself makes, not at those of the libraries under it. The
   layout is repeated in board.py. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
  kSendto,
  kWrite,
  kSend,
  kClose,
  kSleep,
  kUsleep,
  kShutdown,
  kFcntl,
  kFstat,
  kDup2,
  kSigsuspend,
  kSysconf,
  kClockGettime,
  kSetStackSize,
  kPthreadJoin,
  kMmap,
  kThreadEnd /* no call: a thread's body has returned */
};

enum Action { kObserve, kFail, kHold, kLimit };

/* Threads are told apart by the order in which the program started them: 0 is the initial thread,
   then come the joinable ones; all detached threads count as one. */
enum { kAnyThread = -1, kDetachedThreads = -2 };

enum { kRules = 32, kPathSize = 64, kStarts = 4096, kHoldMilliseconds = 60000 };
enum { kRecords = 16384, kTextSize = 120, kFirstDetached = 1000 };

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
  int64_t duration;     /* kFail: from the first call that failed on, every call of the function
                           fails for so many nanoseconds, on whatever thread */
  int32_t released;     /* kHold: how many of the held calls go on, set by the test */
  int32_t overdue;      /* kHold: the test never set it */
  int64_t seen;         /* calls that matched */
  int64_t hits;         /* calls that were dealt with */
  int64_t bytes;        /* asked for by the calls that matched */
  int64_t mostBytes;    /* asked for by one of them */
  int64_t latest;       /* when a call was last dealt with: wall-clock time in nanoseconds */
};

enum State { kBegun = 1, kDone, kFailed };

/* One call, in the order in which the calls began. */
struct Record {
  int32_t state; /* kFailed: a rule made it fail */
  int32_t function;
  int32_t thread;       /* as in rules, but the detached threads by the order of their start, from
                           kFirstDetached on */
  int32_t error;        /* errno of a call that failed, by a rule or not */
  int64_t selector;     /* as in rules */
  int64_t result;       /* pthread_create: the thread as above, or -1 */
  char text[kTextSize]; /* open: the path; write, send: the line without its end */
};

struct Board {
  int32_t attached;      /* 1 once the library is in the program */
  int32_t joinable;      /* joinable threads that the program started */
  int64_t blocks;        /* heap blocks that the program took and did not give back */
  int32_t recording;     /* set by the test */
  int32_t recorded;      /* calls since then; those beyond kRecords are not kept */
  int32_t detached;      /* detached threads that the program started */
  int32_t mappings;      /* memory mappings likewise */
  int64_t processorTime; /* in nanoseconds, written when the program ends */
  struct Rule rules[kRules];
  struct Record records[kRecords];
};

static struct Board* board;
static uintptr_t programStart;
static uintptr_t programEnd;
static __thread int32_t thisThread __attribute__((tls_model("initial-exec")));
static __thread int32_t thisDetached __attribute__((tls_model("initial-exec")));

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

__attribute__((destructor)) static void Detach(void) {
  if (board == NULL) return;
  struct timespec used;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  board->processorTime = used.tv_sec * INT64_C(1000000000) + used.tv_nsec;
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

static void PauseMillisecond(void) {
  const struct timespec pause = {0, 1000000};
  nanosleep(&pause, NULL);
}

static void WaitForRelease(struct Rule* rule, int64_t held) {
  for (int i = 0; i < kHoldMilliseconds; ++i) {
    if (__atomic_load_n(&rule->released, __ATOMIC_ACQUIRE) > held) return;
    PauseMillisecond();
  }
  __atomic_store_n(&rule->overdue, 1, __ATOMIC_RELEASE);
}

struct Call {
  enum Function function;
  int64_t selector; /* -1 where there is no such thing */
  int64_t bytes;    /* asked for, 0 where there is no such thing */
  const char* text; /* as in a record; NULL for most */
  int64_t length;   /* of the text */
};

/* Whether the function fails because an earlier call did, within the rule's duration. Such a call
   takes a moment, so that whoever tries again at once does not fill the records. */
static int IsOutage(struct Rule* rule) {
  const int64_t latest = __atomic_load_n(&rule->latest, __ATOMIC_ACQUIRE);
  if (rule->duration == 0 || latest == 0 || Now() - latest >= rule->duration) return 0;
  __atomic_fetch_add(&rule->hits, 1, __ATOMIC_ACQ_REL);
  PauseMillisecond();
  return 1;
}

/* What the rules make of a call: 0, or the errno with which it fails. `limit` is lowered by a rule
   that says so. A call that fails is not held by a later rule. */
static int Judge(const struct Call* call, int64_t* limit) {
  int failure = 0;
  for (int i = 0; i < kRules; ++i) {
    struct Rule* rule = &board->rules[i];
    if (__atomic_load_n(&rule->armed, __ATOMIC_ACQUIRE) == 0) continue;
    if (rule->function != (int32_t)call->function) continue;
    if (IsOutage(rule)) failure = (int)rule->argument;
    if (!ThreadMatches(rule->thread)) continue;
    if (rule->selector != -1 && rule->selector != call->selector) continue;
    if (rule->path[0] != '\0' && strcmp(rule->path, call->text) != 0) continue;
    const int64_t number = __atomic_fetch_add(&rule->seen, 1, __ATOMIC_ACQ_REL);
    Count(rule, call->bytes);
    if (number < rule->skip) continue;
    if (rule->times >= 0 && number >= rule->skip + rule->times) continue;
    __atomic_store_n(&rule->latest, Now(), __ATOMIC_RELEASE);
    __atomic_fetch_add(&rule->hits, 1, __ATOMIC_ACQ_REL);
    if (rule->action == kHold && failure == 0) WaitForRelease(rule, number - rule->skip);
    if (rule->action == kFail) failure = (int)rule->argument;
    if (rule->action == kLimit && rule->argument < *limit) *limit = rule->argument;
  }
  return failure;
}

static struct Record* TakeRecord(const struct Call* call) {
  if (__atomic_load_n(&board->recording, __ATOMIC_ACQUIRE) == 0) return NULL;
  const int32_t number = __atomic_fetch_add(&board->recorded, 1, __ATOMIC_ACQ_REL);
  if (number >= kRecords) return NULL;
  struct Record* record = &board->records[number];
  record->function = (int32_t)call->function;
  record->thread = thisThread == kDetachedThreads ? thisDetached : thisThread;
  record->selector = call->selector;
  const int64_t most = kTextSize - 1;
  const int64_t length = call->length < most ? call->length : most;
  if (length > 0) memcpy(record->text, call->text, (size_t)length);
  __atomic_store_n(&record->state, kBegun, __ATOMIC_RELEASE);
  return record;
}

/* A call on its way. */
struct Passage {
  struct Record* record; /* or NULL */
  int error;             /* with which it fails, or 0 */
  int64_t limit;         /* the most bytes that it may ask for */
};

static struct Passage Begin(uintptr_t caller, struct Call call) {
  struct Passage passage = {NULL, 0, INT64_MAX};
  if (!IsProgram(caller)) return passage;
  passage.record = TakeRecord(&call);
  passage.error = Judge(&call, &passage.limit);
  return passage;
}

static int64_t Finish(const struct Passage* passage, int64_t result, int error) {
  if (passage->record != NULL) {
    passage->record->result = result;
    passage->record->error = error;
    __atomic_store_n(&passage->record->state, passage->error != 0 ? kFailed : kDone,
                     __ATOMIC_RELEASE);
  }
  return result;
}

/* For functions that report through errno: ends a call and returns its result. */
static int64_t End(const struct Passage* passage, int64_t result) {
  const int error = passage->error != 0 ? passage->error : errno;
  Finish(passage, result, result < 0 ? error : 0);
  errno = error;
  return result;
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

static void* EndAllocation(uintptr_t caller, const struct Passage* passage, void* block) {
  End(passage, block == NULL ? -1 : 0);
  return CountBlock(caller, block);
}

void* malloc(size_t size) {
  if (!HasAllocator()) return TakeLookupBytes(size);
  const struct Passage passage =
      Begin(CALLER, (struct Call){kMalloc, (int64_t)size, (int64_t)size, NULL, 0});
  return EndAllocation(CALLER, &passage, passage.error != 0 ? NULL : allocator.takeRaw(size));
}

void* calloc(size_t count, size_t size) {
  if (!HasAllocator()) return TakeLookupBytes(count * size);
  const int64_t bytes = (int64_t)(count * size);
  const struct Passage passage = Begin(CALLER, (struct Call){kCalloc, bytes, bytes, NULL, 0});
  return EndAllocation(CALLER, &passage,
                       passage.error != 0 ? NULL : allocator.takeCleared(count, size));
}

void free(void* block) {
  if (block == NULL || IsLookupBlock(block) || !HasAllocator()) return;
  if (IsProgram(CALLER)) __atomic_fetch_sub(&board->blocks, 1, __ATOMIC_ACQ_REL);
  allocator.giveBack(block);
}

/* Selected by the size in bytes. */
void* mmap(void* address, size_t size, int protection, int flags, int file, off_t offset) {
  NEXT(mmap)
  const struct Passage passage =
      Begin(CALLER, (struct Call){kMmap, (int64_t)size, (int64_t)size, NULL, 0});
  void* mapped =
      passage.error != 0 ? MAP_FAILED : next(address, size, protection, flags, file, offset);
  End(&passage, mapped == MAP_FAILED ? -1 : 0);
  if (mapped != MAP_FAILED && IsProgram(CALLER)) {
    __atomic_fetch_add(&board->mappings, 1, __ATOMIC_ACQ_REL);
  }
  return mapped;
}

int munmap(void* address, size_t size) {
  NEXT(munmap)
  if (IsProgram(CALLER)) __atomic_fetch_sub(&board->mappings, 1, __ATOMIC_ACQ_REL);
  return next(address, size);
}

struct Start {
  int32_t taken;
  int32_t thread;
  int32_t detached; /* the number of a detached one */
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
  thisDetached = start->detached;
  void* (*body)(void*) = start->body;
  void* bodyArgument = start->argument;
  __atomic_store_n(&start->taken, 0, __ATOMIC_RELEASE);
  void* result = body(bodyArgument);
  const struct Passage end = {TakeRecord(&(struct Call){kThreadEnd, -1, 0, NULL, 0}), 0, 0};
  Finish(&end, 0, 0);
  return result;
}

/* Selected by the detach state: PTHREAD_CREATE_JOINABLE or PTHREAD_CREATE_DETACHED. */
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  NEXT(pthread_create)
  if (!IsProgram(CALLER)) return next(thread, attributes, body, argument);

  int state = PTHREAD_CREATE_JOINABLE;
  if (attributes != NULL) pthread_attr_getdetachstate(attributes, &state);
  const struct Passage passage = Begin(CALLER, (struct Call){kPthreadCreate, state, 0, NULL, 0});
  if (passage.error != 0) {
    Finish(&passage, -1, passage.error);
    return passage.error;
  }
  struct Start* start = TakeStart();
  int32_t number = 0;
  if (state == PTHREAD_CREATE_DETACHED) {
    number = kFirstDetached + __atomic_fetch_add(&board->detached, 1, __ATOMIC_ACQ_REL);
    start->thread = kDetachedThreads;
    start->detached = number;
  } else {
    number = __atomic_add_fetch(&board->joinable, 1, __ATOMIC_ACQ_REL);
    start->thread = number;
  }
  start->body = body;
  start->argument = argument;
  const int result = next(thread, attributes, RunThread, start);
  if (result != 0) __atomic_store_n(&start->taken, 0, __ATOMIC_RELEASE);
  Finish(&passage, result != 0 ? -1 : number, result);
  return result;
}

int pthread_join(pthread_t thread, void** result) {
  NEXT(pthread_join)
  const struct Passage passage = Begin(CALLER, (struct Call){kPthreadJoin, -1, 0, NULL, 0});
  return (int)Finish(&passage, next(thread, result), 0);
}

/* The default size is a stack, too. */
int pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size) {
  NEXT(pthread_attr_setstacksize)
  const struct Passage passage =
      Begin(CALLER, (struct Call){kSetStackSize, (int64_t)size, 0, NULL, 0});
  return (int)Finish(&passage, passage.error != 0 ? passage.error : next(attributes, size),
                     passage.error);
}

int socket(int domain, int type, int protocol) {
  NEXT(socket)
  const struct Passage passage = Begin(CALLER, (struct Call){kSocket, -1, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(domain, type, protocol));
}

/* Selected by level and option: level * 65536 + option. */
int setsockopt(int descriptor, int level, int option, const void* value, socklen_t length) {
  NEXT(setsockopt)
  const int64_t selector = (int64_t)level * 65536 + option;
  const struct Passage passage = Begin(CALLER, (struct Call){kSetsockopt, selector, 0, NULL, 0});
  return (int)End(&passage,
                  passage.error != 0 ? -1 : next(descriptor, level, option, value, length));
}

int bind(int descriptor, __CONST_SOCKADDR_ARG address, socklen_t length) {
  NEXT(bind)
  const struct Passage passage = Begin(CALLER, (struct Call){kBind, -1, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(descriptor, address, length));
}

int shutdown(int descriptor, int how) {
  NEXT(shutdown)
  const struct Passage passage = Begin(CALLER, (struct Call){kShutdown, -1, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(descriptor, how));
}

/* Selected by the request. */
int ioctl(int descriptor, unsigned long request, ...) {
  NEXT(ioctl)
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  const struct Passage passage = Begin(CALLER, (struct Call){kIoctl, (int64_t)request, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(descriptor, request, argument));
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
  const struct Passage passage =
      Begin(CALLER, (struct Call){kOpen, -1, 0, path, (int64_t)strlen(path)});
  return (int)End(&passage, passage.error != 0 ? -1 : next(path, flags, mode));
}

/* A close that fails has closed all the same, as on Linux. */
int close(int descriptor) {
  NEXT(close)
  const struct Passage passage = Begin(CALLER, (struct Call){kClose, -1, 0, NULL, 0});
  const int result = next(descriptor);
  return (int)End(&passage, passage.error != 0 ? -1 : result);
}

/* Selected by the command. The argument is a number or a pointer, handed on as it is. */
int fcntl(int descriptor, int command, ...) {
  NEXT(fcntl)
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  const struct Passage passage = Begin(CALLER, (struct Call){kFcntl, command, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(descriptor, command, argument));
}

int fstat(int descriptor, struct stat* status) {
  NEXT(fstat)
  const struct Passage passage = Begin(CALLER, (struct Call){kFstat, -1, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(descriptor, status));
}

int dup2(int from, int to) {
  NEXT(dup2)
  const struct Passage passage = Begin(CALLER, (struct Call){kDup2, -1, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(from, to));
}

ssize_t read(int descriptor, void* buffer, size_t size) {
  NEXT(read)
  const struct Passage passage = Begin(CALLER, (struct Call){kRead, -1, (int64_t)size, NULL, 0});
  if (passage.limit < (int64_t)size) size = (size_t)passage.limit;
  return End(&passage, passage.error != 0 ? -1 : next(descriptor, buffer, size));
}

/* Lines are selected by the descriptor. */

static struct Call LineCall(enum Function function, int descriptor, const void* line, size_t size) {
  const int64_t length = (int64_t)size - (size > 0);
  return (struct Call){function, descriptor, (int64_t)size, line, length};
}

ssize_t write(int descriptor, const void* buffer, size_t size) {
  NEXT(write)
  const struct Passage passage = Begin(CALLER, LineCall(kWrite, descriptor, buffer, size));
  return End(&passage, passage.error != 0 ? -1 : next(descriptor, buffer, size));
}

ssize_t send(int descriptor, const void* buffer, size_t size, int flags) {
  NEXT(send)
  const struct Passage passage = Begin(CALLER, LineCall(kSend, descriptor, buffer, size));
  return End(&passage, passage.error != 0 ? -1 : next(descriptor, buffer, size, flags));
}

ssize_t recvfrom(int descriptor, void* restrict buffer, size_t size, int flags,
                 __SOCKADDR_ARG address, socklen_t* restrict length) {
  NEXT(recvfrom)
  const struct Passage passage =
      Begin(CALLER, (struct Call){kRecvfrom, -1, (int64_t)size, NULL, 0});
  return End(&passage,
             passage.error != 0 ? -1 : next(descriptor, buffer, size, flags, address, length));
}

/* Selected by the packet's size. */
ssize_t sendto(int descriptor, const void* buffer, size_t size, int flags,
               __CONST_SOCKADDR_ARG address, socklen_t length) {
  NEXT(sendto)
  const struct Passage passage =
      Begin(CALLER, (struct Call){kSendto, (int64_t)size, (int64_t)size, NULL, 0});
  return End(&passage,
             passage.error != 0 ? -1 : next(descriptor, buffer, size, flags, address, length));
}

/* A sleep that fails ends before its time. */

unsigned sleep(unsigned seconds) {
  NEXT(sleep)
  const struct Passage passage = Begin(CALLER, (struct Call){kSleep, seconds, 0, NULL, 0});
  return (unsigned)End(&passage, passage.error != 0 ? seconds : next(seconds));
}

int usleep(useconds_t microseconds) {
  NEXT(usleep)
  const struct Passage passage = Begin(CALLER, (struct Call){kUsleep, microseconds, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(microseconds));
}

int sigsuspend(const sigset_t* mask) {
  NEXT(sigsuspend)
  const struct Passage passage = Begin(CALLER, (struct Call){kSigsuspend, -1, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(mask));
}

long sysconf(int name) {
  NEXT(sysconf)
  const struct Passage passage = Begin(CALLER, (struct Call){kSysconf, name, 0, NULL, 0});
  return End(&passage, passage.error != 0 ? -1 : next(name));
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  NEXT(clock_gettime)
  const struct Passage passage = Begin(CALLER, (struct Call){kClockGettime, clock, 0, NULL, 0});
  return (int)End(&passage, passage.error != 0 ? -1 : next(clock, now));
}
