#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <sstream>
#include <string>
#include <thread>

#include "base/descriptor.h"
#include "tests/support/fault.h"
#include "tests/support/output.h"

namespace {

TEST(Log, PartsMakeOneLineWithALineFeed) {
  EXPECT_EQ(StdoutOf([] { LogLine({"a ", "br0", "", " (", "12", ")"}); }), "a br0 (12)\n");
  EXPECT_EQ(StdoutOf([] { LogLine(""); }), "\n");
}

TEST(Log, LineOf512BytesIsWholeAndALongerOneIsCutBeforeItsLineFeed) {
  const std::string longest(511, 'x');
  EXPECT_EQ(StdoutOf([&] { LogLine(longest.c_str()); }), longest + "\n");
  EXPECT_EQ(StdoutOf([&] { LogLine((longest + "y").c_str()); }), longest + "\n");
  EXPECT_EQ(StdoutOf([&] { LogLine({longest, "y", "z"}); }), longest + "\n");
}

TEST(Log, ErrorsGoToStandardErrorWithTheSystemsTextForTheGivenError) {
  const Log log = LogOf([] {
    errno = ENOENT;
    LogError(kNoLastingThread, EAGAIN);
    LogError(kNoPassingThread, ENOMEM);
    errno = ENOMEM;
    LogNoMemory();
  });
  EXPECT_EQ(log.err,
            "[Bonjour] pthread_create error: Resource temporarily unavailable\n"
            "[Bonjour] pthread_create: Cannot allocate memory\n"
            "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(log.out, "");
}

// A file that takes only a part of a line, as one on a file system that fills up

TEST(TornLine, NextLineBeginsOnALineOfItsOwn) {
  const struct {
    std::deque<ssize_t> results;  // of the writes
    const char* kept;             // of the lines
  } rows[] = {{{5}, "one line\nnext\nlast\n"},
              {{5, 1, 2}, "one line\nnext\nlast\n"},
              {{5, -1}, "one l\nnext\nlast\n"},
              {{8, -1}, "one line\nnext\nlast\n"},
              {{5, 0}, "one l\nnext\nlast\n"},
              {{-1}, "next\nlast\n"},
              {{5, -1, -1}, "one l\nlast\n"},
              // The end of the torn line is written once.
              {{5, -1, 1, -1}, "one l\nlast\n"}};
  for (const auto& row : rows) {
    EXPECT_EQ(StdoutOf([&] {
                writeResults = row.results;
                for (const char* line : {"one line", "next", "last"}) LogLine(line);
              }),
              row.kept);
  }
}

// What stands in a file to which standard output leads, and standard error too or to another, when
// a line to standard output was torn before one to standard error.
std::string TornOutThenError(bool isOneFile) {
  const Log log = LogOf([&] {
    const Descriptor error(dup(STDERR_FILENO));
    if (isOneFile) dup2(STDOUT_FILENO, STDERR_FILENO);
    InitLog();
    writeResults = {5, -1};
    LogLine("one line");
    LogError("failed", EAGAIN);
    dup2(error.Get(), STDERR_FILENO);
  });
  return log.out + "|" + log.err;
}

TEST(TornLine, StreamsThatLeadToOneFileAreOneAndOthersAreNot) {
  EXPECT_EQ(TornOutThenError(true), "one l\nfailed: Resource temporarily unavailable\n|");
  LogLine("");  // ends the torn line
  EXPECT_EQ(TornOutThenError(false), "one l|failed: Resource temporarily unavailable\n");
}

// Readers that hang or go

// The same line to both streams.
constexpr char kLine[] = "[Bonjour] failed: Resource temporarily unavailable";

void WriteLines(int count) {
  for (int i = 0; i < count; ++i) {
    LogLine(kLine);
    LogError("[Bonjour] failed", EAGAIN);
  }
}

enum Channel { kPipe, kSocket };

// Standard output and standard error lead into one end of a pipe or of a pair of sockets, the test
// reads at the other, until the object goes.
class Redirected {
 public:
  explicit Redirected(Channel channel) : out(dup(STDOUT_FILENO)), err(dup(STDERR_FILENO)) {
    const int result = channel == kPipe ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    EXPECT_EQ(result, 0);
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    InitLog();
  }
  ~Redirected() {
    dup2(out.Get(), STDOUT_FILENO);
    dup2(err.Get(), STDERR_FILENO);
    InitLog();
    close(ends[0]);
    close(ends[1]);
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;

  // Takes what has been written by now, which is whole lines. Their number.
  int TakeLines() const {
    std::string all;
    char bytes[4096];
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    ssize_t got = 0;
    while ((got = read(ends[0], bytes, sizeof(bytes))) > 0) {
      all.append(bytes, static_cast<size_t>(got));
    }
    EXPECT_TRUE(all.ends_with('\n'));
    std::istringstream lines(all);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) EXPECT_EQ(line, kLine);
    return count;
  }

  void ExpectThatNothingWaits() const {
    constexpr int kTooMany = 20000;
    alarm(20);
    WriteLines(kTooMany);
    alarm(0);
    const int kept = TakeLines();
    EXPECT_GT(kept, 100);
    EXPECT_LT(kept, 2 * kTooMany);
    // Later lines find a reader again.
    LogLine(kLine);
    EXPECT_EQ(TakeLines(), 1);
  }

  int ends[2];  // where it is read and where it is written

 private:
  const Descriptor out;
  const Descriptor err;
};

TEST(StuckLog, PipeOrSocketThatIsFullLosesWholeLinesAndNobodyWaitsButOtherWriters) {
  for (const Channel channel : {kPipe, kSocket}) {
    const Redirected log(channel);
    log.ExpectThatNothingWaits();
    EXPECT_EQ(fcntl(log.ends[1], F_GETFL) & O_NONBLOCK, 0);
  }
}

TEST(StuckLog, PipeIsNotWaitedForWithoutProcEither) {
  onOpen = [](const std::string&, int) { return -1; };
  Redirected(kPipe).ExpectThatNothingWaits();
  onOpen = nullptr;
}

TEST(StuckLog, SocketWithoutAReaderRaisesNoSignal) {
  EXPECT_EXIT(
      {
        const Redirected log(kSocket);
        close(log.ends[0]);
        LogLine("nobody reads");
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(StuckLog, FileAndTerminalStayAsTheyAre) {
  for (const char* path : {"/dev/ptmx", "/dev/null"}) {
    const Descriptor target(open(path, O_RDWR | O_NOCTTY));
    const Descriptor out(dup(STDOUT_FILENO));
    dup2(target.Get(), STDOUT_FILENO);
    InitLog();
    const int flags = fcntl(STDOUT_FILENO, F_GETFL);
    dup2(out.Get(), STDOUT_FILENO);
    InitLog();
    EXPECT_EQ(flags & O_NONBLOCK, 0) << path;
  }
}

TEST(StuckLog, LinesOfManyThreadsAreNotMixed) {
  const Redirected log(kPipe);
  std::thread writers[4];
  for (std::thread& writer : writers) writer = std::thread(WriteLines, 100);
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(log.TakeLines(), 800);
}

}  // namespace
