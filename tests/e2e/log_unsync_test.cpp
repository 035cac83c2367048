// Setting a log level ends the synchronization of std::cout with stdio. This is tested in a
// separate process, since it happens once in a process and has already happened in that of the
// tests.
#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/support/child_program.h"

namespace tolk::test {
namespace {

std::string told_by(const std::string& kind) {
  ChildProgram child(TOLK_WAITS_CHILD, {kind, "-", "-", "-"});
  const Stopwatch clock;
  std::string heard;
  while (heard.find("@set free\n") == std::string::npos &&
         heard.find("@still in step\n") == std::string::npos) {
    const auto more = child.read_some(kLimit - clock.elapsed());
    if (!more) break;
    heard += *more;
  }
  return heard;
}

TEST(LogLevel, SetByAClientUnsynchronizesStandardOutputFromStdio) {
  EXPECT_EQ(told_by("client log"), "@in step\n@set free\n");
}

TEST(LogLevel, SetByAServerUnsynchronizesStandardOutputFromStdio) {
  EXPECT_EQ(told_by("server log"), "@in step\n@set free\n");
}

}  // namespace
}  // namespace tolk::test
