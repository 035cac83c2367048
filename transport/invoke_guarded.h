// Runs host code so that no exception leaves it.
// Thread: the one that calls. Failure: none; `report(text)` is told what was thrown.
#pragma once

#include <exception>

#if __has_include(<cxxabi.h>)
#include <cxxabi.h>
#endif

namespace tolk {

template <class Call, class Report>
void invoke_guarded(Call&& call, Report&& report) {
  try {
    call();
#if __has_include(<cxxabi.h>)
  } catch (const abi::__forced_unwind&) {
    throw;  // a thread that is being cancelled must be let go
#endif
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report("unknown exception");
  }
}

template <class Call>
void invoke_guarded(Call&& call) {
  invoke_guarded(call, [](const char*) {});
}

}  // namespace tolk
