// The allocations of a test program: counted, and made to fail.
//
// allocations.cpp replaces the allocation functions of the program.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <new>

namespace tolk::test {

extern int allocations_until_failure;  // below 0: none fails
extern long live_allocations;

// Runs `operation` on a new `Subject` with its first, second, ... allocation failing, until none
// fails any more. `check` sees the subject after each failure; nothing may be left at the end.
template <class Subject>
void fail_each_allocation(const std::function<void(Subject&)>& prepare,
                          const std::function<void(Subject&)>& operation,
                          const std::function<void(Subject&)>& check) {
  bool failed = true;
  for (int nth = 0; failed; ++nth) {
    const long before = live_allocations;
    {
      Subject subject;
      prepare(subject);
      failed = false;
      allocations_until_failure = nth;
      try {
        operation(subject);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
      allocations_until_failure = -1;
      if (failed) check(subject);
    }
    EXPECT_EQ(live_allocations, before) << "allocation " << nth;
    ASSERT_LT(nth, 200);
  }
}

}  // namespace tolk::test
