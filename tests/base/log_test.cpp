#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <future>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "tests/support/case_name.h"
#include "tests/support/fault.h"
#include "tests/support/output.h"
#include "tests/support/own_namespace.h"

namespace {

constexpr std::chrono::seconds kPatience{20};

TEST(Log, LineIsWrittenWithALineFeed) {
  CapturedOutput output;
  LogLine("one");
  LogLine("");
  EXPECT_EQ(output.Stdout(), "one\n\n");
  EXPECT_EQ(output.Stderr(), "");
}

TEST(Log, PartsMakeOneLine) {
  const std::string name = "br0";
  EXPECT_EQ(StdoutOf([&] { LogLine({"a ", name, "", " (", "12", ")"}); }), "a br0 (12)\n");
}

TEST(Log, LineOf512BytesIsWholeAndALongerOneIsCutBeforeItsLineFeed) {
  const std::string longest(511, 'x');
  EXPECT_EQ(StdoutOf([&] { LogLine(longest.c_str()); }), longest + "\n");
  EXPECT_EQ(StdoutOf([&] { LogLine((longest + "y").c_str()); }), longest + "\n");
  EXPECT_EQ(StdoutOf([&] { LogLine({longest, "y", "z"}); }), longest + "\n");
}

TEST(Log, ErrorsShowTheSystemsTextForTheGivenError) {
  CapturedOutput output;
  errno = ENOENT;
  LogError(kNoLastingThread, EAGAIN);
  LogError(kNoPassingThread, ENOMEM);
  EXPECT_EQ(output.Stderr(),
            "[Bonjour] pthread_create error: Resource temporarily unavailable\n"
            "[Bonjour] pthread_create: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "");
}

TEST(Log, MissingMemoryShowsErrno) {
  CapturedOutput output;
  errno = ENOMEM;
  LogNoMemory();
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
}

TEST(Log, AddressFailureNamesItsCaller) {
  EXPECT_EQ(StdoutOf([] { LogUpdateHostIPError("MDNS_Answer"); }),
            "[MDNS_Answer] UpdateHostIP error\n");
}

// A file that takes only a part of a line, as one on a file system that fills up

struct TornRow {
  const char* name;
  std::deque<ssize_t> results;  // of the writes
  const char* kept;             // of the lines "one line" and "next"
};

class TornLineTest : public testing::TestWithParam<TornRow> {};

INSTANTIATE_TEST_SUITE_P(
    , TornLineTest,
    testing::Values(TornRow{"RestIsWritten", {5}, "one line\nnext\n"},
                    TornRow{"RestIsWrittenInPieces", {5, 1, 2}, "one line\nnext\n"},
                    TornRow{"LostRestEndsTheLine", {5, -1}, "one l\nnext\n"},
                    TornRow{"LostLineFeedIsMadeUpFor", {8, -1}, "one line\nnext\n"},
                    TornRow{"WriteOfNothingIsAFailure", {5, 0}, "one l\nnext\n"},
                    TornRow{"LineThatIsLostWholeLeavesNothing", {-1}, "next\n"},
                    TornRow{"LineLostAfterATornOneChangesNothing", {5, -1, -1}, "one l\nlast\n"},
                    TornRow{"EndOfATornLineIsWrittenOnce", {5, -1, 1, -1}, "one l\nlast\n"}),
    CaseName());

TEST_P(TornLineTest, NextLineBeginsOnALineOfItsOwn) {
  const TornRow& row = GetParam();
  EXPECT_EQ(StdoutOf([&row] {
              writeResults = row.results;
              LogLine("one line");
              LogLine("next");
              if (std::string_view(row.kept).find("last") != std::string::npos) LogLine("last");
            }),
            row.kept);
  EXPECT_TRUE(writeResults.empty());
}

// What stands in a file to which standard output leads, and standard error too or to another, when
// a line to standard output was torn before one to standard error.
std::string TornOutThenError(bool isOneFile) {
  CapturedOutput output;
  const Descriptor error(dup(STDERR_FILENO));
  if (isOneFile) dup2(STDOUT_FILENO, STDERR_FILENO);
  InitLog();
  writeResults = {5, -1};
  LogLine("one line");
  LogError("failed", EAGAIN);
  dup2(error.Get(), STDERR_FILENO);
  return output.Stdout() + "|" + output.Stderr();
}

TEST(TornLine, StreamsThatLeadToOneFileAreOneAndOthersAreNot) {
  EXPECT_EQ(TornOutThenError(true), "one l\nfailed: Resource temporarily unavailable\n|");
  LogLine("");  // ends the torn line
  EXPECT_EQ(TornOutThenError(false), "one l|failed: Resource temporarily unavailable\n");
}

// Standard output and standard error lead into one end of a pipe or of a pair of sockets, the test
// reads at the other, until the object goes.
class Redirected {
 public:
  explicit Redirected(const int (&ends)[2])
      : readEnd(ends[0]), writeEnd(ends[1]), out(dup(STDOUT_FILENO)), err(dup(STDERR_FILENO)) {
    dup2(writeEnd.Get(), STDOUT_FILENO);
    dup2(writeEnd.Get(), STDERR_FILENO);
    InitLog();
  }
  ~Redirected() {
    dup2(out.Get(), STDOUT_FILENO);
    dup2(err.Get(), STDERR_FILENO);
    InitLog();
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;

  // Writes lines to both streams, more than fits. False when that did not end in time.
  bool Overfill() {
    auto filling = std::async(std::launch::async, [] {
      for (int i = 0; i < kTooMany; ++i) {
        LogLine(kLine);
        LogError("[Bonjour] something", EAGAIN);
      }
    });
    if (filling.wait_for(kPatience) == std::future_status::ready) return true;
    ReadAll();  // lets it go on, and the test end
    return false;
  }

  // Takes what has been written by now.
  std::string ReadAll() const {
    std::string all;
    char bytes[4096];
    fcntl(readEnd.Get(), F_SETFL, O_NONBLOCK);
    for (;;) {
      const ssize_t count = read(readEnd.Get(), bytes, sizeof(bytes));
      if (count <= 0) return all;
      all.append(bytes, static_cast<size_t>(count));
    }
  }

  // Flags of the description that other writers share with whoever started this process.
  int SharedFlags() const { return fcntl(writeEnd.Get(), F_GETFL); }

  static constexpr char kLine[] = "[Bonjour] a line of some length, as they are";
  static constexpr int kTooMany = 20000;

 private:
  const Descriptor readEnd;
  const Descriptor writeEnd;
  const Descriptor out;
  const Descriptor err;
};

// What was read consists of whole lines of the two kinds; returns their number.
int CountWholeLines(const std::string& text) {
  const std::string one = std::string(Redirected::kLine) + "\n";
  const std::string other = "[Bonjour] something: Resource temporarily unavailable\n";
  int count = 0;
  for (size_t at = 0; at < text.size(); ++count) {
    const bool isOne = text.compare(at, one.size(), one) == 0;
    if (!isOne && text.compare(at, other.size(), other) != 0) {
      ADD_FAILURE() << "torn at byte " << at << ": " << text.substr(at, 80);
      return count;
    }
    at += isOne ? one.size() : other.size();
  }
  return count;
}

void ExpectThatNothingWaits(Redirected& log) {
  ASSERT_TRUE(log.Overfill());
  const int kept = CountWholeLines(log.ReadAll());
  EXPECT_GT(kept, 100);
  EXPECT_LT(kept, 2 * Redirected::kTooMany);
  // Later lines find a reader again.
  LogLine(Redirected::kLine);
  EXPECT_EQ(CountWholeLines(log.ReadAll()), 1);
}

TEST(StuckLog, PipeThatIsFullLosesWholeLinesAndNobodyWaits) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  Redirected log(ends);
  ExpectThatNothingWaits(log);
}

TEST(StuckLog, OtherWritersOfThePipeStillWait) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Redirected log(ends);
  EXPECT_EQ(log.SharedFlags() & O_NONBLOCK, 0);
}

TEST(StuckLog, PipeIsNotWaitedForWithoutProcEither) {
  ASSERT_TRUE(EnterOwnMounts());
  ASSERT_EQ(mount("nothing", "/proc", "tmpfs", 0, nullptr), 0);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  {
    Redirected log(ends);
    ExpectThatNothingWaits(log);
  }
  umount("/proc");
}

TEST(StuckLog, SocketThatIsFullLosesWholeLinesAndNobodyWaits) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  Redirected log(ends);
  ExpectThatNothingWaits(log);
  EXPECT_EQ(log.SharedFlags() & O_NONBLOCK, 0);
}

TEST(StuckLog, SocketWithoutAReaderRaisesNoSignal) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  EXPECT_EXIT(
      {
        Redirected log(ends);
        close(ends[0]);
        LogLine("nobody reads");
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
  close(ends[0]);
  close(ends[1]);
}

TEST(StuckLog, StreamThatIsNotThereIsPassedOver) {
  {
    const Descriptor out(dup(STDOUT_FILENO));
    close(STDOUT_FILENO);
    InitLog();
    LogLine("lost");
    dup2(out.Get(), STDOUT_FILENO);
  }
  EXPECT_EQ(StdoutOf([] { LogLine("kept"); }), "kept\n");
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
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Redirected log(ends);
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([] {
      for (int line = 0; line < 100; ++line) {
        LogLine(Redirected::kLine);
        LogError("[Bonjour] something", EAGAIN);
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(CountWholeLines(log.ReadAll()), 800);
}

}  // namespace
