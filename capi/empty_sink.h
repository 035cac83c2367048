// A sink of parse_records that takes nothing: the base of those that take a little.
// Thread: any. Owner: none. Failure: none.
#pragma once

#include <string_view>

#include "params/parser.h"

namespace tolk {

struct EmptySink {
  void positional(const Scalar&) {}
  void erase_key(std::string_view) {}
  void keyed(std::string_view, const Scalar&) {}
  void begin_list() {}
  void list_element(const Scalar&) {}
  void end_list() {}
  void begin_map() {}
  void map_entry(std::string_view, const Scalar&) {}
  void end_map() {}
};

}  // namespace tolk
