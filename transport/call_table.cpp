#include "transport/call_table.h"

#include "platform/clock.h"

namespace tolk {

constinit CallTable call_table{&uv_write, &uv_sleep, &platform::tick_ms};

}  // namespace tolk
