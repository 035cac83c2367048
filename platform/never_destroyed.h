// An object whose destructor never runs: for static objects that loop threads may use while the
// process ends, after the destructors of static objects.
//
// Thread, Failure: as T. Owner: none; what T holds is the system's to take back.
#pragma once

#include <utility>

namespace tolk {

template <class T>
class NeverDestroyed {
 public:
  template <class... Args>
  explicit constexpr NeverDestroyed(Args&&... args) : value_(std::forward<Args>(args)...) {}
  ~NeverDestroyed() {}
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& operator*() { return value_; }
  T* operator->() { return &value_; }

 private:
  union {
    T value_;
  };
};

}  // namespace tolk
