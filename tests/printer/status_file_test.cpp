#include "printer/status_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/fault.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

std::string Letters(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + i % 26);
  return text;
}

class StatusFile : public testing::Test {
 protected:
  StatusFile() {
    onOpen = [this](const std::string& path, int flags) {
      EXPECT_EQ(path, BONJOUR_STATUS_FILE);
      EXPECT_EQ(flags, O_RDONLY);
      return descriptor = dup(STDOUT_FILENO);
    };
    onRead = [this](int, char* bytes, size_t size) -> ssize_t {
      sizes.push_back(size);
      if (sizes.size() > failsAfter) return -1;
      const size_t most = sizes.size() == 1 ? std::min(size, firstGives) : size;
      const size_t count = file.copy(bytes, most, offset);
      offset += count;
      return static_cast<ssize_t>(count);
    };
  }
  ~StatusFile() override {
    onOpen = nullptr;
    onRead = nullptr;
  }

  void ExpectText(const std::string& text) {
    offset = 0;
    // Exactly as large as the module asks for: a sanitizer sees one byte too far.
    const std::unique_ptr<char[]> buffer(new char[40961]);
    std::fill_n(buffer.get(), 40961, '#');
    EXPECT_EQ(ReadPrinterStatus(buffer.get()), static_cast<int32_t>(text.size()));
    EXPECT_EQ(std::string(buffer.get()), text);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "not closed";
  }

  std::string file;
  size_t offset = 0;
  int descriptor = -1;
  std::vector<size_t> sizes;     // that the reads asked for
  size_t failsAfter = SIZE_MAX;  // the read after this many fails
  size_t firstGives = SIZE_MAX;  // the first read gives no more than this
};

TEST_F(StatusFile, MissingFileIsToldFromAnEmptyOne) {
  ExpectText("");
  onOpen = [](const std::string&, int) {
    errno = ENOENT;
    return -1;
  };
  char buffer[1];
  EXPECT_EQ(ReadPrinterStatus(buffer), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(StatusFile, IsReadInFourKilobytesUntilNothingIsLeft) {
  file = Letters(4097);
  ExpectText(file);
  EXPECT_THAT(sizes, ElementsAre(4096, 4096, 4096));
}

TEST_F(StatusFile, IsReadToTheLimitAndNoReadAsksForMoreThanTheSpaceLeft) {
  file = Letters(50000);
  // A first read that ends early moves all others off the four-kilobyte steps.
  firstGives = 100;
  ExpectText(Letters(40960));
  EXPECT_THAT(sizes, SizeIs(11));
  EXPECT_EQ(sizes.back(), 3996u);
}

TEST_F(StatusFile, FailingReadEndsTheText) {
  file = Letters(9000);
  failsAfter = 2;
  ExpectText(Letters(8192));
  EXPECT_THAT(sizes, SizeIs(3));
}

TEST(FindLineEnd, CountsLineFeedsFromThePositionOn) {
  const size_t none = std::string_view::npos;
  EXPECT_EQ(FindLineEnd("ab\ncd\n", 0, 2), 5u);
  EXPECT_EQ(FindLineEnd("\n\n\n\n\n", 0, 5), 4u);
  EXPECT_EQ(FindLineEnd("ab\ncd\n", 0, 3), none);
  EXPECT_EQ(FindLineEnd("ab\ncd\n", 2, 1), 2u);
  EXPECT_EQ(FindLineEnd("ab\ncd\n", 3, 1), 5u);
  EXPECT_EQ(FindLineEnd("ab\n", 3, 1), none);
}

}  // namespace
