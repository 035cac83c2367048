// Keeps exceptions inside the exported interface: no memory, or a lock that the system refuses,
// comes out as the operation's failure value.
// Thread: any.
#pragma once

#include "transport/invoke_guarded.h"

namespace tolk {

template <class Result, class Operation>
Result shielded(Result failure, Operation&& operation) {
  Result result = failure;
  invoke_guarded([&] { result = operation(); });
  return result;
}

template <class Operation>
void shielded(Operation&& operation) {
  invoke_guarded(operation);
}

}  // namespace tolk
