#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "transport/invoke_guarded.h"
#include "transport/shielded.h"

namespace {

TEST(Guarded, CallThatReturnsReportsNothing) {
  bool ran = false;
  std::string report = "none";
  tolk::invoke_guarded([&] { ran = true; }, [&](const char* what) { report = what; });
  EXPECT_TRUE(ran);
  EXPECT_EQ(report, "none");
}

TEST(Guarded, ExceptionIsReportedByItsText) {
  std::string report;
  tolk::invoke_guarded([] { throw std::runtime_error("why"); },
                       [&](const char* what) { report = what; });
  EXPECT_EQ(report, "why");
}

TEST(Guarded, WhatIsNoExceptionIsReportedToo) {
  std::string report;
  tolk::invoke_guarded([] { throw 7; }, [&](const char* what) { report = what; });
  EXPECT_EQ(report, "unknown exception");
}

TEST(Guarded, ExceptionWithoutAReportEndsThere) {
  EXPECT_NO_THROW(tolk::invoke_guarded([] { throw 7; }));
}

TEST(Guarded, OperationThatThrowsGivesItsFailureValue) {
  EXPECT_EQ(tolk::shielded(-1, [] { return 5; }), 5);
  EXPECT_EQ(tolk::shielded(-1, []() -> int { throw std::bad_alloc(); }), -1);
  EXPECT_NO_THROW(tolk::shielded([] { throw std::bad_alloc(); }));
}

}  // namespace
