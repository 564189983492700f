/* Preloaded into a program to make chosen calls of libc fail or wait, and to record every one.

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

enum Action { kObserve, kFail, kHold };

/* Threads are told apart by the order in which the program started them: 0 is the initial thread,
   then come the joinable ones; all detached threads count as one. */
enum { kAnyThread = -1, kDetachedThreads = -2 };

enum { kRules = 32, kNameSize = 32, kPathSize = 64, kHoldMilliseconds = 60000 };
enum { kRecords = 16384, kTextSize = 120, kFirstDetached = 1000 };

struct Rule {
  char function[kNameSize];
  int32_t armed;
  int32_t action;
  int32_t thread;
  int32_t overdue;      /* kHold: the test never released the call */
  int64_t selector;     /* what the call must be about (see the functions below), or -1 */
  int64_t skip;         /* calls that match are let through first */
  int64_t times;        /* this many are then dealt with, -1 = every one */
  int64_t error;        /* kFail: errno */
  char path[kPathSize]; /* open: the path, empty = any */
  int64_t duration;     /* kFail: from the first call that failed on, every call of the function
                           fails for so many nanoseconds, on whatever thread */
  int64_t released;     /* kHold: how many of the held calls go on, set by the test */
  int64_t seen;         /* calls that matched */
  int64_t hits;         /* calls that were dealt with */
  int64_t latest;       /* when a call was last dealt with: wall-clock time in nanoseconds */
};

enum State { kBegun = 1, kDone, kFailed };

/* One call, in the order in which the calls began. */
struct Record {
  char function[kNameSize]; /* "the end": none, but a thread's body has returned */
  int32_t state;            /* kFailed: a rule made it fail */
  int32_t thread;       /* as in rules, but the detached threads by the order of their start, from
                           kFirstDetached on */
  int64_t error;        /* errno of a call that failed, by a rule or not */
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
  const char* function;
  int64_t selector; /* -1 where there is no such thing */
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

/* What the rules make of a call: 0, or the errno with which it fails. A call that fails is not held
   by a later rule. */
static int Judge(const struct Call* call) {
  int failure = 0;
  for (int i = 0; i < kRules; ++i) {
    struct Rule* rule = &board->rules[i];
    if (__atomic_load_n(&rule->armed, __ATOMIC_ACQUIRE) == 0) continue;
    if (strcmp(rule->function, call->function) != 0) continue;
    if (IsOutage(rule)) failure = (int)rule->error;
    if (!ThreadMatches(rule->thread)) continue;
    if (rule->selector != -1 && rule->selector != call->selector) continue;
    if (rule->path[0] != '\0' && strcmp(rule->path, call->text) != 0) continue;
    const int64_t number = __atomic_fetch_add(&rule->seen, 1, __ATOMIC_ACQ_REL);
    if (number < rule->skip) continue;
    if (rule->times >= 0 && number >= rule->skip + rule->times) continue;
    __atomic_store_n(&rule->latest, Now(), __ATOMIC_RELEASE);
    __atomic_fetch_add(&rule->hits, 1, __ATOMIC_ACQ_REL);
    if (rule->action == kHold && failure == 0) WaitForRelease(rule, number - rule->skip);
    if (rule->action == kFail) failure = (int)rule->error;
  }
  return failure;
}

static struct Record* TakeRecord(const struct Call* call) {
  if (__atomic_load_n(&board->recording, __ATOMIC_ACQUIRE) == 0) return NULL;
  const int32_t number = __atomic_fetch_add(&board->recorded, 1, __ATOMIC_ACQ_REL);
  if (number >= kRecords) return NULL;
  struct Record* record = &board->records[number];
  strcpy(record->function, call->function);
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
};

static struct Passage Begin(uintptr_t caller, struct Call call) {
  struct Passage passage = {NULL, 0};
  if (!IsProgram(caller)) return passage;
  passage.record = TakeRecord(&call);
  passage.error = Judge(&call);
  return passage;
}

/* Begins a call of the function that this stands in, as `passage`. */
#define BEGIN(selector, text, length)                                          \
  const struct Passage passage = Begin((uintptr_t)__builtin_return_address(0), \
                                       (struct Call){__func__, selector, text, length});

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

/* The functions that do nothing but what the rules say. `selector` is what rules may tell calls
   apart by, -1 if there is no such thing. */
#define PASS(type, name, selector, parameters, arguments)                 \
  type name parameters {                                                  \
    NEXT(name)                                                            \
    BEGIN((int64_t)(selector), NULL, 0)                                   \
    return (type)End(&passage, passage.error != 0 ? -1 : next arguments); \
  }

/* Heap blocks and mappings are selected by their size in bytes. */

void* calloc(size_t count, size_t size) {
  NEXT(calloc)
  BEGIN((int64_t)(count * size), NULL, 0)
  void* block = passage.error != 0 ? NULL : next(count, size);
  End(&passage, block == NULL ? -1 : 0);
  if (block != NULL && IsProgram(CALLER)) __atomic_fetch_add(&board->blocks, 1, __ATOMIC_ACQ_REL);
  return block;
}

void free(void* block) {
  static __thread int depth __attribute__((tls_model("initial-exec")));
  if (depth > 0) return; /* what looking it up gives back: the text of an earlier error */
  ++depth;
  NEXT(free)
  --depth;
  if (block != NULL && IsProgram(CALLER)) __atomic_fetch_sub(&board->blocks, 1, __ATOMIC_ACQ_REL);
  next(block);
}

void* mmap(void* address, size_t size, int protection, int flags, int file, off_t offset) {
  NEXT(mmap)
  BEGIN((int64_t)size, NULL, 0)
  void* mapped =
      passage.error != 0 ? MAP_FAILED : next(address, size, protection, flags, file, offset);
  const int failed = mapped == MAP_FAILED;
  End(&passage, failed ? -1 : 0);
  if (!failed && IsProgram(CALLER)) __atomic_fetch_add(&board->mappings, 1, __ATOMIC_ACQ_REL);
  return mapped;
}

int munmap(void* address, size_t size) {
  NEXT(munmap)
  if (IsProgram(CALLER)) __atomic_fetch_sub(&board->mappings, 1, __ATOMIC_ACQ_REL);
  return next(address, size);
}

struct Start {
  int32_t thread;
  int32_t detached; /* the number of a detached one */
  void* (*body)(void*);
  void* argument;
};

static void* RunThread(void* argument) {
  struct Start* start = argument;
  thisThread = start->thread;
  thisDetached = start->detached;
  void* (*body)(void*) = start->body;
  void* bodyArgument = start->argument;
  free(start);
  void* result = body(bodyArgument);
  const struct Passage end = {TakeRecord(&(struct Call){"the end", -1, NULL, 0}), 0};
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
  BEGIN(state, NULL, 0)
  if (passage.error != 0) {
    Finish(&passage, -1, passage.error);
    return passage.error;
  }
  struct Start* start = calloc(1, sizeof(*start));
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
  if (result != 0) free(start);
  Finish(&passage, result != 0 ? -1 : number, result);
  return result;
}

int pthread_join(pthread_t thread, void** result) {
  NEXT(pthread_join)
  BEGIN(-1, NULL, 0)
  return (int)Finish(&passage, next(thread, result), 0);
}

/* The default size is a stack, too. */
int pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size) {
  NEXT(pthread_attr_setstacksize)
  BEGIN((int64_t)size, NULL, 0)
  return (int)Finish(&passage, passage.error != 0 ? passage.error : next(attributes, size),
                     passage.error);
}

PASS(int, socket, -1, (int domain, int type, int protocol), (domain, type, protocol))
PASS(int, bind, -1, (int descriptor, __CONST_SOCKADDR_ARG address, socklen_t length),
     (descriptor, address, length))
PASS(int, shutdown, -1, (int descriptor, int how), (descriptor, how))
PASS(int, fstat, -1, (int descriptor, struct stat* status), (descriptor, status))
PASS(int, dup2, -1, (int from, int to), (from, to))
PASS(int, usleep, microseconds, (useconds_t microseconds), (microseconds))
PASS(int, sigsuspend, -1, (const sigset_t* mask), (mask))
PASS(long, sysconf, name, (int name), (name))
PASS(int, clock_gettime, clock, (clockid_t clock, struct timespec* now), (clock, now))
PASS(ssize_t, read, -1, (int descriptor, void* buffer, size_t size), (descriptor, buffer, size))
PASS(ssize_t, recvfrom, -1,
     (int descriptor, void* restrict buffer, size_t size, int flags, __SOCKADDR_ARG address,
      socklen_t* restrict length),
     (descriptor, buffer, size, flags, address, length))
/* Selected by the packet's size. */
PASS(ssize_t, sendto, size,
     (int descriptor, const void* buffer, size_t size, int flags, __CONST_SOCKADDR_ARG address,
      socklen_t length),
     (descriptor, buffer, size, flags, address, length))
/* Selected by level and option: level * 65536 + option. */
PASS(int, setsockopt, (int64_t)level * 65536 + option,
     (int descriptor, int level, int option, const void* value, socklen_t length),
     (descriptor, level, option, value, length))

/* The argument is a number or a pointer, handed on as it is. */
#define PASS_WITH_ARGUMENT(name, type)                                                     \
  int name(int descriptor, type what, ...) {                                               \
    NEXT(name)                                                                             \
    va_list arguments;                                                                     \
    va_start(arguments, what);                                                             \
    void* argument = va_arg(arguments, void*);                                             \
    va_end(arguments);                                                                     \
    BEGIN((int64_t)what, NULL, 0)                                                          \
    return (int)End(&passage, passage.error != 0 ? -1 : next(descriptor, what, argument)); \
  }

/* Selected by the request, and by the command. */
PASS_WITH_ARGUMENT(ioctl, unsigned long)
PASS_WITH_ARGUMENT(fcntl, int)

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
  BEGIN(-1, path, (int64_t)strlen(path))
  return (int)End(&passage, passage.error != 0 ? -1 : next(path, flags, mode));
}

/* A close that fails has closed all the same, as on Linux. */
int close(int descriptor) {
  NEXT(close)
  BEGIN(-1, NULL, 0)
  const int result = next(descriptor);
  return (int)End(&passage, passage.error != 0 ? -1 : result);
}

/* A sleep that fails ends before its time. */
unsigned sleep(unsigned seconds) {
  NEXT(sleep)
  BEGIN(seconds, NULL, 0)
  return (unsigned)End(&passage, passage.error != 0 ? seconds : next(seconds));
}

/* Lines are selected by the descriptor. */

ssize_t write(int descriptor, const void* buffer, size_t size) {
  NEXT(write)
  BEGIN(descriptor, buffer, (int64_t)size - 1)
  return End(&passage, passage.error != 0 ? -1 : next(descriptor, buffer, size));
}

ssize_t send(int descriptor, const void* buffer, size_t size, int flags) {
  NEXT(send)
  BEGIN(descriptor, buffer, (int64_t)size - 1)
  return End(&passage, passage.error != 0 ? -1 : next(descriptor, buffer, size, flags));
}
