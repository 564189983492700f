/* Preloaded into a program to make chosen calls of libc fail or wait, and to record every one.

   The environment variable FAULTS names the board: a file that this library and the test both map.
   The test writes rules into it, before the program starts or while it runs; the library counts
   there which of them were reached, and records the calls if the test wants that. Rules and records
   look only at calls that the program itself makes, not at those of the libraries under it. The
   layout is repeated in board.py. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* Threads are told apart by the order in which the program started them: 0 is the initial thread,
   then come the joinable ones; all detached threads count as one. */
enum { kAnyThread = -1, kDetachedThreads = -2 };

enum { kRules = 32, kNameSize = 32, kHoldMilliseconds = 60000 };
enum { kRecords = 16384, kTextSize = 120, kFirstDetached = 1000 };

struct Rule {
  char function[kNameSize];
  int32_t armed;
  int32_t thread;
  int64_t selector; /* what the call must be about (see the functions below), or -1 */
  int64_t skip;     /* calls that match are let through first */
  int64_t times;    /* this many are then dealt with */
  int64_t error;    /* the errno with which they fail; 0: they wait until the test releases them */
  int64_t duration; /* from a call that failed on, every call of the function fails for so many
                       nanoseconds, on whatever thread */
  int64_t released; /* set by the test */
  int64_t seen;     /* calls that matched */
  int64_t until;    /* the end of the duration: wall-clock time in nanoseconds */
};

/* One call, in the order in which the calls began. */
struct Record {
  char function[kNameSize]; /* "the end": none, but a thread's body has returned */
  int32_t written;          /* 1 once all of this is there */
  int32_t thread;           /* as in rules, but the detached threads by the order of their start,
                               from kFirstDetached on */
  int64_t error;            /* with which a rule made it fail, or 0 */
  int64_t selector;         /* as in rules */
  char text[kTextSize];     /* open: the path; write, send: the line without its end */
};

struct Board {
  int64_t blocks;        /* heap blocks that the program took and did not give back */
  int64_t mappings;      /* memory mappings likewise */
  int64_t processorTime; /* in nanoseconds, written when the program ends */
  int32_t joinable;      /* joinable threads that the program started */
  int32_t detached;      /* detached ones */
  int32_t recording;     /* set by the test */
  int32_t recorded;      /* calls since then; those beyond kRecords are not kept */
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
  void* mapped = mmap(NULL, sizeof(struct Board), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (mapped == MAP_FAILED) err(1, "%s", path);
  close(file);
  dl_iterate_phdr(NoteProgram, NULL);
  board = mapped;
}

static int64_t Now(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

__attribute__((destructor)) static void Detach(void) {
  if (board != NULL) board->processorTime = Now(CLOCK_PROCESS_CPUTIME_ID);
}

static int IsProgram(uintptr_t caller) {
  return board != NULL && caller >= programStart && caller < programEnd;
}

static void PauseMillisecond(void) {
  const struct timespec pause = {0, 1000000};
  nanosleep(&pause, NULL);
}

static void WaitForRelease(const struct Rule* rule) {
  for (int i = 0; i < kHoldMilliseconds; ++i) {
    if (__atomic_load_n(&rule->released, __ATOMIC_ACQUIRE) != 0) return;
    PauseMillisecond();
  }
  abort();
}

/* Whether the function fails because an earlier call did, within the rule's duration. Such a call
   takes a moment, so that whoever tries again at once does not fill the records. */
static int IsOutage(const struct Rule* rule) {
  if (Now(CLOCK_REALTIME) >= __atomic_load_n(&rule->until, __ATOMIC_ACQUIRE)) return 0;
  PauseMillisecond();
  return 1;
}

/* What the rules make of a call: 0, or the errno with which it fails. */
static int Judge(const char* function, int64_t selector) {
  int failure = 0;
  for (int i = 0; i < kRules; ++i) {
    struct Rule* rule = &board->rules[i];
    if (__atomic_load_n(&rule->armed, __ATOMIC_ACQUIRE) == 0) continue;
    if (strcmp(rule->function, function) != 0) continue;
    if (IsOutage(rule)) failure = (int)rule->error;
    if (rule->thread != kAnyThread && rule->thread != thisThread) continue;
    if (rule->selector != -1 && rule->selector != selector) continue;
    const int64_t number = __atomic_fetch_add(&rule->seen, 1, __ATOMIC_ACQ_REL) - rule->skip;
    if (number < 0 || number >= rule->times) continue;
    if (rule->error == 0) WaitForRelease(rule);
    if (rule->error != 0) failure = (int)rule->error;
    __atomic_store_n(&rule->until, Now(CLOCK_REALTIME) + rule->duration, __ATOMIC_RELEASE);
  }
  return failure;
}

static void Note(const char* function, int64_t selector, const char* text, size_t length,
                 int error) {
  if (__atomic_load_n(&board->recording, __ATOMIC_ACQUIRE) == 0) return;
  const int32_t number = __atomic_fetch_add(&board->recorded, 1, __ATOMIC_ACQ_REL);
  if (number >= kRecords) return;
  struct Record* record = &board->records[number];
  strcpy(record->function, function);
  record->thread = thisThread == kDetachedThreads ? thisDetached : thisThread;
  record->error = error;
  record->selector = selector;
  if (length > 0) memcpy(record->text, text, length < kTextSize ? length : kTextSize - 1);
  __atomic_store_n(&record->written, 1, __ATOMIC_RELEASE);
}

/* Deals with a call as the rules say, before it is made. Returns 0, or the errno with which it is
   to fail, which is then set. */
static int Begin(uintptr_t caller, const char* function, int64_t selector, const char* text,
                 size_t length) {
  if (!IsProgram(caller)) return 0;
  const int error = Judge(function, selector);
  Note(function, selector, text, length, error);
  if (error != 0) errno = error;
  return error;
}

/* Begins the call of the function that this stands in. `selector` is what rules may tell calls
   apart by, -1 if there is no such thing. */
#define FAILS_WITH_TEXT(selector, text, length) \
  Begin(CALLER, __func__, (int64_t)(selector), text, length)
#define FAILS(selector) FAILS_WITH_TEXT(selector, NULL, 0)

/* The functions that do nothing but what the rules say. */
#define PASS(type, name, selector, parameters, arguments) \
  type name parameters {                                  \
    NEXT(name)                                            \
    return FAILS(selector) ? -1 : next arguments;         \
  }

/* Heap blocks and mappings are selected by their size in bytes. */

void* calloc(size_t count, size_t size) {
  NEXT(calloc)
  void* block = FAILS(count * size) ? NULL : next(count, size);
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
  if (FAILS(size)) return MAP_FAILED;
  void* mapped = next(address, size, protection, flags, file, offset);
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
  int32_t thread;
  int32_t detached; /* the number of a detached one */
  void* (*body)(void*);
  void* argument;
};

static void* RunThread(void* argument) {
  const struct Start start = *(struct Start*)argument;
  free(argument);
  thisThread = start.thread;
  thisDetached = start.detached;
  void* result = start.body(start.argument);
  Note("the end", -1, NULL, 0, 0);
  return result;
}

/* Selected by the detach state: PTHREAD_CREATE_JOINABLE or PTHREAD_CREATE_DETACHED. */
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  NEXT(pthread_create)
  if (!IsProgram(CALLER)) return next(thread, attributes, body, argument);

  int state = PTHREAD_CREATE_JOINABLE;
  if (attributes != NULL) pthread_attr_getdetachstate(attributes, &state);
  const int error = FAILS(state);
  if (error != 0) return error;
  struct Start* start = calloc(1, sizeof(*start));
  *start = (struct Start){kDetachedThreads, 0, body, argument};
  if (state == PTHREAD_CREATE_DETACHED) {
    start->detached = kFirstDetached + __atomic_fetch_add(&board->detached, 1, __ATOMIC_ACQ_REL);
  } else {
    start->thread = __atomic_add_fetch(&board->joinable, 1, __ATOMIC_ACQ_REL);
  }
  const int result = next(thread, attributes, RunThread, start);
  if (result != 0) free(start);
  return result;
}

/* The default size is a stack, too. */
int pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size) {
  NEXT(pthread_attr_setstacksize)
  const int error = FAILS(size);
  return error != 0 ? error : next(attributes, size);
}

PASS(int, pthread_join, -1, (pthread_t thread, void** result), (thread, result))
PASS(int, socket, -1, (int domain, int type, int protocol), (domain, type, protocol))
PASS(int, bind, -1, (int descriptor, __CONST_SOCKADDR_ARG address, socklen_t length),
     (descriptor, address, length))
PASS(int, shutdown, -1, (int descriptor, int how), (descriptor, how))
PASS(int, fstat, -1, (int descriptor, struct stat* status), (descriptor, status))
PASS(int, dup2, -1, (int from, int to), (from, to))
PASS(int, usleep, microseconds, (useconds_t microseconds), (microseconds))
PASS(int, sigsuspend, -1, (const sigset_t* mask), (mask))
PASS(long, sysconf, name, (int name), (name))
PASS(ssize_t, read, -1, (int descriptor, void* buffer, size_t size), (descriptor, buffer, size))
PASS(ssize_t, recvfrom, -1,
     (int descriptor, void* restrict buffer, size_t size, int flags, __SOCKADDR_ARG address,
      socklen_t* restrict length),
     (descriptor, buffer, size, flags, address, length))
PASS(ssize_t, recvmsg, -1, (int descriptor, struct msghdr* message, int flags),
     (descriptor, message, flags))
PASS(int, poll, -1, (struct pollfd * polled, nfds_t count, int timeout), (polled, count, timeout))
PASS(int, ppoll, -1,
     (struct pollfd * polled, nfds_t count, const struct timespec* timeout, const sigset_t* mask),
     (polled, count, timeout, mask))
PASS(int, eventfd, -1, (unsigned count, int flags), (count, flags))
PASS(ssize_t, getrandom, -1, (void* bytes, size_t size, unsigned flags), (bytes, size, flags))
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
#define PASS_WITH_ARGUMENT(name, type)                          \
  int name(int descriptor, type what, ...) {                    \
    NEXT(name)                                                  \
    va_list arguments;                                          \
    va_start(arguments, what);                                  \
    void* argument = va_arg(arguments, void*);                  \
    va_end(arguments);                                          \
    return FAILS(what) ? -1 : next(descriptor, what, argument); \
  }

/* Selected by the request, and by the command. */
PASS_WITH_ARGUMENT(ioctl, unsigned long)
PASS_WITH_ARGUMENT(fcntl, int)

int open(const char* path, int flags, ...) {
  NEXT(open)
  mode_t mode = 0;
  if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return FAILS_WITH_TEXT(-1, path, strlen(path)) ? -1 : next(path, flags, mode);
}

/* A close that fails has closed all the same, as on Linux. */
int close(int descriptor) {
  NEXT(close)
  const int error = FAILS(-1);
  const int result = next(descriptor);
  if (error == 0) return result;
  errno = error;
  return -1;
}

/* A sleep that fails ends before its time. */
unsigned sleep(unsigned seconds) {
  NEXT(sleep)
  return FAILS(seconds) ? seconds : next(seconds);
}

/* Lines are selected by the descriptor. */

ssize_t write(int descriptor, const void* buffer, size_t size) {
  NEXT(write)
  return FAILS_WITH_TEXT(descriptor, buffer, size - 1) ? -1 : next(descriptor, buffer, size);
}

ssize_t send(int descriptor, const void* buffer, size_t size, int flags) {
  NEXT(send)
  return FAILS_WITH_TEXT(descriptor, buffer, size - 1) ? -1 : next(descriptor, buffer, size, flags);
}
