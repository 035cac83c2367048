#include "tests/steps/pauses.h"

#include <algorithm>
#include <atomic>

namespace {

constexpr unsigned kShortened = 16;

std::atomic<bool> shortened{false};

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names.
extern "C" {

void __real_uv_sleep(unsigned milliseconds);
void __wrap_uv_sleep(unsigned milliseconds);

void __wrap_uv_sleep(unsigned milliseconds) {
  __real_uv_sleep(shortened ? std::max(1U, milliseconds / kShortened) : milliseconds);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

void tolk::test::shorten_pauses() { shortened = true; }
