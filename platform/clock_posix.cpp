#include <uv.h>

#include "platform/clock.h"

namespace tolk::platform {

std::uint32_t tick_ms() {
  constexpr std::uint64_t kNanosecondsPerMillisecond = 1'000'000;
  return static_cast<std::uint32_t>(uv_hrtime() / kNanosecondsPerMillisecond);
}

}  // namespace tolk::platform
