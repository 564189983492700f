#include "printer/status_file.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/case_name.h"
#include "tests/support/own_namespace.h"

namespace {

// What the reads of the file are asked for, and what becomes of them.
struct Reads {
  std::vector<size_t> sizes;
  size_t failsAfter = SIZE_MAX;  // the read after this many fails
  size_t firstGives = SIZE_MAX;  // the first read gives no more than this
};

Reads* watchedReads = nullptr;

constexpr char kPath[] = BONJOUR_STATUS_FILE;

std::string Letters(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + i % 26);
  return text;
}

class StatusFile : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(EnterOwnMounts()) << strerror(errno);
    ASSERT_TRUE(MountOwnStatusDirectory()) << strerror(errno);
    memset(buffer.get(), '#', 40961);
  }

  int32_t Read() {
    watchedReads = &reads;
    const int32_t held = ReadPrinterStatus(buffer.get());
    watchedReads = nullptr;
    return held;
  }

  // Exactly as large as the module asks for: a sanitizer sees one byte too far.
  std::unique_ptr<char[]> buffer{new char[40961]};
  Reads reads;
};

TEST_F(StatusFile, MissingFileIsToldFromAnEmptyOne) {
  EXPECT_EQ(Read(), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(StatusFile, EmptyFileGivesAnEmptyText) {
  ASSERT_TRUE(WriteFile(kPath, ""));
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(buffer[1], '#');
}

TEST_F(StatusFile, TextIsReadWholeAndTerminated) {
  ASSERT_TRUE(WriteFile(kPath, "usblp0\nHP\nModel 12\nPJL,PCL\n\n"));
  EXPECT_EQ(Read(), 28);
  EXPECT_STREQ(buffer.get(), "usblp0\nHP\nModel 12\nPJL,PCL\n\n");
  EXPECT_EQ(buffer[29], '#');
}

TEST_F(StatusFile, EveryLengthUpToTheLimitIsReadWhole) {
  for (const size_t length : {size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{8192},
                              size_t{40959}, size_t{40960}}) {
    const std::string text = Letters(length);
    ASSERT_TRUE(WriteFile(kPath, text));
    EXPECT_EQ(Read(), static_cast<int32_t>(length));
    EXPECT_EQ(std::string(buffer.get()), text);
  }
}

TEST_F(StatusFile, WhatIsBeyondTheLimitIsNotRead) {
  for (const size_t length : {size_t{40961}, size_t{45056}, size_t{100000}}) {
    ASSERT_TRUE(WriteFile(kPath, Letters(length)));
    EXPECT_EQ(Read(), 40960);
    EXPECT_EQ(std::string(buffer.get()), Letters(40960));
  }
}

TEST_F(StatusFile, ReadsAskForFourKilobytesUntilNothingIsLeft) {
  ASSERT_TRUE(WriteFile(kPath, Letters(5000)));
  EXPECT_EQ(Read(), 5000);
  EXPECT_EQ(reads.sizes, (std::vector<size_t>{4096, 4096, 4096}));
}

TEST_F(StatusFile, ReadsNeverAskForMoreThanTheRoomLeft) {
  ASSERT_TRUE(WriteFile(kPath, Letters(50000)));
  // A first read that ends early moves all others off the four-kilobyte steps.
  reads.firstGives = 100;
  EXPECT_EQ(Read(), 40960);
  EXPECT_EQ(reads.sizes, (std::vector<size_t>{4096, 4096, 4096, 4096, 4096, 4096, 4096, 4096, 4096,
                                              4096, 3996}));
  EXPECT_EQ(std::string(buffer.get()), Letters(40960));
}

TEST_F(StatusFile, FullBufferIsNotReadAnyFurther) {
  ASSERT_TRUE(WriteFile(kPath, Letters(40960)));
  EXPECT_EQ(Read(), 40960);
  EXPECT_EQ(reads.sizes, std::vector<size_t>(10, 4096));
}

TEST_F(StatusFile, FailingReadEndsTheText) {
  ASSERT_TRUE(WriteFile(kPath, Letters(9000)));
  reads.failsAfter = 2;
  EXPECT_EQ(Read(), 8192);
  EXPECT_EQ(std::string(buffer.get()), Letters(8192));
  EXPECT_EQ(reads.sizes, (std::vector<size_t>{4096, 4096, 4096}));
}

TEST_F(StatusFile, FailingFirstReadCountsAsEmpty) {
  ASSERT_EQ(mkdir(kPath, 0755), 0);  // opens, and refuses to be read
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(StatusFile, FileIsClosedAgain) {
  ASSERT_TRUE(WriteFile(kPath, "usblp0\n"));
  const int before = dup(STDOUT_FILENO);
  close(before);
  Read();
  const int after = dup(STDOUT_FILENO);
  close(after);
  EXPECT_EQ(after, before);
}

struct LineEndCase {
  const char* name;
  const char* text;
  size_t from;
  int count;
  size_t end;
};

class FindLineEndTest : public testing::TestWithParam<LineEndCase> {};

TEST_P(FindLineEndTest, FindsTheLineFeed) {
  EXPECT_EQ(FindLineEnd(GetParam().text, GetParam().from, GetParam().count), GetParam().end);
}

constexpr size_t kNone = std::string_view::npos;

INSTANTIATE_TEST_SUITE_P(
    , FindLineEndTest,
    testing::Values(LineEndCase{"First", "ab\ncd\n", 0, 1, 2},
                    LineEndCase{"Second", "ab\ncd\n", 0, 2, 5},
                    LineEndCase{"EmptyLinesCount", "\n\n\n\n\n", 0, 5, 4},
                    LineEndCase{"TooFew", "ab\ncd\n", 0, 3, kNone},
                    LineEndCase{"NoneInAnEmptyText", "", 0, 1, kNone},
                    LineEndCase{"OneAtTheStartPositionCounts", "ab\ncd\n", 2, 1, 2},
                    LineEndCase{"OneBeforeTheStartPositionDoesNot", "ab\ncd\n", 3, 1, 5},
                    LineEndCase{"StartAfterTheText", "ab\n", 3, 1, kNone}),
    CaseName());

}  // namespace

// Every read(2) of the module under test passes here.
extern "C" ssize_t read(int descriptor, void* bytes, size_t size) {
  if (watchedReads == nullptr) return syscall(SYS_read, descriptor, bytes, size);
  const size_t done = watchedReads->sizes.size();
  watchedReads->sizes.push_back(size);
  if (done == watchedReads->failsAfter) {
    errno = EIO;
    return -1;
  }
  const bool isShort = done == 0 && watchedReads->firstGives < size;
  return syscall(SYS_read, descriptor, bytes, isShort ? watchedReads->firstGives : size);
}
