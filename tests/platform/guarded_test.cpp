#include "platform/guarded.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

namespace {

TEST(GuardedCall, ThatReturnsReportsNothing) {
  bool ran = false;
  std::string report = "none";
  tolk::guarded([&] { ran = true; }, [&](const char* what) { report = what; });
  EXPECT_TRUE(ran);
  EXPECT_EQ(report, "none");
}

TEST(GuardedCall, ThatThrowsIsReportedByItsText) {
  std::string report;
  tolk::guarded([] { throw std::runtime_error("why"); }, [&](const char* what) { report = what; });
  EXPECT_EQ(report, "why");
}

TEST(GuardedCall, ThatThrowsAnythingElseIsReportedToo) {
  std::string report;
  tolk::guarded([] { throw 7; }, [&](const char* what) { report = what; });
  EXPECT_EQ(report, "unknown exception");
}

TEST(GuardedCall, WithoutAReportKeepsTheExceptionIn) {
  EXPECT_NO_THROW(tolk::guarded([] { throw 7; }));
}

TEST(GuardedCall, ThatThrowsGivesItsFailureValue) {
  EXPECT_EQ(tolk::guarded_or(-1, [] { return 5; }), 5);
  EXPECT_EQ(tolk::guarded_or(-1, []() -> int { throw std::bad_alloc(); }), -1);
}

}  // namespace
