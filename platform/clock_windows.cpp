#include <windows.h>

#include "platform/clock.h"

namespace tolk::platform {

std::uint32_t tick_ms() { return GetTickCount(); }

}  // namespace tolk::platform
