// How a command can fail to run: the same texts on each system.
//
// Thread: any. Failure: std::bad_alloc.
#pragma once

#include <string>

#include "tools/tolk/system/child.h"

namespace tolk::tool {

inline constexpr const char* kServerIsClosing = "this server is closing";

inline ChildFailed took_too_long(const std::string& name, std::chrono::milliseconds limit) {
  return ChildFailed(name + " took longer than " + std::to_string(limit.count()) +
                     " ms and was ended");
}

// What the command printed to standard error; `otherwise` if that is empty.
inline ChildFailed failed_with(std::string error_output, const std::string& otherwise) {
  const std::size_t last = error_output.find_last_not_of(" \r\n\t");
  error_output.resize(last == std::string::npos ? 0 : last + 1);
  return ChildFailed(error_output.empty() ? otherwise : error_output);
}

}  // namespace tolk::tool
