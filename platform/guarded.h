// Runs host code, or code that may run out of memory, so that no exception leaves it.
// Thread: the one that calls. Owner: none. Failure: none; `report(text)` is told what was thrown.
#pragma once

#include <exception>

#if defined(__GLIBCXX__)  // GNU's standard library ends a cancelled thread with an exception
#include <cxxabi.h>
#endif

namespace tolk {

template <class Call, class Report>
void guarded(Call&& call, Report&& report) {
  try {
    call();
#if defined(__GLIBCXX__)
  } catch (const abi::__forced_unwind&) {
    throw;  // the cancellation of a thread must go on
#endif
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report("unknown exception");
  }
}

template <class Call>
void guarded(Call&& call) {
  guarded(call, [](const char*) {});
}

// What `operation` returns, or `failure` if it throws.
template <class Result, class Operation>
Result guarded_or(Result failure, Operation&& operation) {
  Result result = failure;
  guarded([&] { result = operation(); });
  return result;
}

}  // namespace tolk
