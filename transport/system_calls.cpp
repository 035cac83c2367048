#include "transport/system_calls.h"

#include "platform/clock.h"
#include "platform/direct_send.h"

namespace tolk {

constinit SystemCalls system_calls{&uv_write, &uv_sleep, &platform::tick_ms,
                                   &platform::direct_send};

}  // namespace tolk
