#include "base/log.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/output.h"

namespace {

TEST(Log, ErrorsShowTheSystemsTextForTheGivenError) {
  CapturedOutput output;
  errno = ENOENT;
  LogError(kThreadCreateError, EAGAIN);
  LogError(kShortThreadCreateError, ENOMEM);
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

}  // namespace
