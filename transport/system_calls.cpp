#include "transport/system_calls.h"

#include "platform/clock.h"

namespace tolk {

constinit SystemCalls system_calls{&uv_write, &uv_sleep, &platform::tick_ms};

}  // namespace tolk
