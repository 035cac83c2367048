// The methods that peers may call.
//
// Thread: any. Owner: the host's handle and every object that uses the table; a method belongs to
// the table and to the requests that call it. Failure: std::bad_alloc; the table is then unchanged.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "capi/context.h"
#include "transport/thread_safety.h"

namespace tolk {

struct Method {
  std::string name;
  tolk_handler handler = nullptr;
  Context context;
  unsigned flags = 0;
  std::string signature;
  std::string about;
  tolk_accept accept = nullptr;
  tolk_progress progress = nullptr;
  // Set before the table is rid of it, for which there may be no memory.
  mutable std::atomic<bool> removed{false};

  bool is_inline() const { return (flags & TOLK_INLINE) != 0; }
  bool is_ordered() const { return (flags & TOLK_ORDERED) != 0; }
};

class MethodTable {
 public:
  using Methods = std::map<std::string, std::shared_ptr<const Method>, std::less<>>;

  // False: the name is there already.
  bool add(std::shared_ptr<const Method> method);
  bool remove(std::string_view name);
  // The catch-all has the empty name, and is found for every other one. May be null.
  std::shared_ptr<const Method> find(std::string_view name) const;
  std::shared_ptr<const Methods> all() const { return *methods_.lock(); }

 private:
  Guarded<std::shared_ptr<const Methods>> methods_;  // null is none
};

}  // namespace tolk

struct tolk_methods {
  std::shared_ptr<tolk::MethodTable> table = std::make_shared<tolk::MethodTable>();
};
