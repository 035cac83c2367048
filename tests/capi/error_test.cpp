#include "capi/error.h"

#include <gtest/gtest.h>
#include <tolk/c.h>

#include <set>
#include <stdexcept>
#include <string>

#include "capi/block.h"

namespace tolk {
namespace {

TEST(CError, SaysAllOfItInOneLine) {
  tolk_error* error = nullptr;
  EXPECT_EQ(fail(&error, {.status = TOLK_TIMED_OUT,
                          .method = "add",
                          .address = "pipe:5000",
                          .peer = "client 3",
                          .reason = "timed out after 500 ms",
                          .wanted = "w",
                          .found = "f",
                          .code = 7}),
            TOLK_TIMED_OUT);
  EXPECT_STREQ(tolk_error_text(error), "add at pipe:5000: timed out after 500 ms");
  EXPECT_STREQ(tolk_error_reason(error), "timed out after 500 ms");
  EXPECT_STREQ(tolk_error_method(error), "add");
  EXPECT_STREQ(tolk_error_address(error), "pipe:5000");
  EXPECT_STREQ(tolk_error_peer(error), "client 3");
  EXPECT_STREQ(tolk_error_wanted(error), "w");
  EXPECT_STREQ(tolk_error_found(error), "f");
  EXPECT_EQ(tolk_error_code(error), 7);
  EXPECT_STREQ(tolk_error_hint(error), status_hint(TOLK_TIMED_OUT));
  EXPECT_EQ(tolk_error_details(error), nullptr);
  tolk_error_free(error);
}

TEST(CError, LineNamesTheHandlersFailures) {
  const auto line = [](Failure failure) {
    tolk_error* const error = new_error(std::move(failure));
    std::string text = tolk_error_text(error);
    tolk_error_free(error);
    return text;
  };
  EXPECT_EQ(line({.status = TOLK_FAILED, .method = "add", .reason = "no"}),
            "add: handler failed: no");
  EXPECT_EQ(line({.status = TOLK_WRONG_ARGUMENTS, .address = "pipe:1", .reason = "2"}),
            "pipe:1: wrong arguments: 2");
  EXPECT_EQ(line({.status = TOLK_NO_METHOD}), "no such method");
  EXPECT_EQ(line({.status = TOLK_FAILED, .reason = "one\ntwo"}), "handler failed: one\ntwo");
}

TEST(CError, CopyLivesOn) {
  auto details = std::make_shared<tolk_block>();
  tolk_error* const error =
      new_error({.status = TOLK_FAILED, .reason = "x", .hint = "own hint", .details = details});
  tolk_error* const copy = tolk_error_copy(error);
  tolk_error_free(error);
  EXPECT_EQ(tolk_error_details(copy), details.get());
  EXPECT_STREQ(tolk_error_hint(copy), "own hint");
  EXPECT_EQ(details.use_count(), 2);
  tolk_error_free(copy);
  EXPECT_EQ(details.use_count(), 1);
}

TEST(CError, NullIsTheAbsenceOfAFailure) {
  EXPECT_EQ(tolk_error_status(nullptr), TOLK_OK);
  for (const char* const text :
       {tolk_error_text(nullptr), tolk_error_reason(nullptr), tolk_error_method(nullptr),
        tolk_error_address(nullptr), tolk_error_peer(nullptr), tolk_error_wanted(nullptr),
        tolk_error_found(nullptr), tolk_error_hint(nullptr)}) {
    EXPECT_STREQ(text, "");
  }
  EXPECT_EQ(tolk_error_code(nullptr), 0);
  tolk_error* const copy = tolk_error_copy(nullptr);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(tolk_error_status(copy), TOLK_OK);
  EXPECT_STREQ(tolk_error_text(copy), "");
  tolk_error_free(copy);
  tolk_error_free(nullptr);
}

TEST(CError, EveryStatusHasItsTexts) {
  std::set<std::string> names;
  for (int status = TOLK_OK; status <= TOLK_NO_MEMORY; ++status) {
    names.insert(tolk_status_name(static_cast<tolk_status>(status)));
    EXPECT_EQ(*status_hint(static_cast<tolk_status>(status)) != '\0', status != TOLK_OK);
  }
  EXPECT_EQ(names.size(), TOLK_NO_MEMORY + 1U);
  EXPECT_STREQ(tolk_status_name(TOLK_TIMED_OUT), "timed_out");
  EXPECT_STREQ(tolk_status_name(TOLK_NO_MEMORY), "no_memory");
  EXPECT_STREQ(tolk_status_name(static_cast<tolk_status>(31)), "unknown");
  EXPECT_STREQ(tolk_version(), "1.1.0");
}

TEST(CError, EveryStatusHasAnErrorThatNeedsNoMemory) {
  for (int number = TOLK_OK; number <= TOLK_NO_MEMORY; ++number) {
    const auto status = static_cast<tolk_status>(number);
    tolk_error* const error = static_error(status);
    EXPECT_EQ(tolk_error_status(error), status);
    EXPECT_STREQ(tolk_error_reason(error), status_reason(status));
    tolk_error_free(error);
    EXPECT_EQ(tolk_error_copy(error), error);
  }
  EXPECT_EQ(tolk_error_status(static_error(static_cast<tolk_status>(31))), TOLK_NO_MEMORY);
}

TEST(CError, RunningOutOfMemoryIsAStatus) {
  tolk_error* error = nullptr;
  EXPECT_EQ(guarded_call(&error, []() -> tolk_status { throw std::bad_alloc(); }), TOLK_NO_MEMORY);
  EXPECT_EQ(error, no_memory_error());
  EXPECT_STREQ(tolk_error_text(error), "no memory");
  tolk_error_free(tolk_error_copy(error));
  tolk_error_free(error);
  EXPECT_EQ(guarded_call(&error, [] { return TOLK_OK; }), TOLK_OK);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(guarded_call(nullptr, [] { return fail(nullptr, {.status = TOLK_GONE}); }), TOLK_GONE);
}

}  // namespace
}  // namespace tolk
