// The pauses that the library makes on purpose, made short: tests of steps are not about their
// length. The programs here link uv_sleep to these (--wrap).
// Thread: before the library is used.
#pragma once

namespace tolk::test {

void shorten_pauses();

}  // namespace tolk::test
