// Calls a handler of the host's: an exception ends here, with one line that names the method. One
// of the library's own handlers has no memory to go on; that is the caller's to see.
// Thread: the one that calls; no lock may be held.
#pragma once

#include <string_view>

#include "transport/invoke_guarded.h"
#include "transport/logger.h"

namespace tolk {

template <class Call>
void call_handler(Logger& logger, std::string_view name, Call&& call) {
  invoke_guarded(call, [&](const char* what) {
    logger.plain("handler error: %.*s: %s\n", static_cast<int>(name.size()), name.data(), what);
  });
}

template <class Call>
void call_handler(Logger& logger, std::string_view name, const MethodRef& method, Call&& call) {
  if (method.owner->of_library()) {
    call();
  } else {
    call_handler(logger, name, call);
  }
}

}  // namespace tolk
