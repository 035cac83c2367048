// A context of the host, with the function that releases it.
//
// Every owner of a callback holds one; `free_context` runs once, when the last of them is gone.
//
// Thread: values; the release runs on the thread of the last owner, so nobody drops a context while
// it holds a lock. Owner: counted. Failure: std::bad_alloc from the constructor, which has then
// released the context.
#pragma once

#include <tolk/c.h>

#include <memory>

namespace tolk {

class Context {
 public:
  Context() = default;
  Context(void* context, tolk_release free_context) : raw_(context) {
    if (free_context != nullptr) owner_ = std::shared_ptr<void>(context, free_context);
  }

  void* get() const noexcept { return raw_; }
  // For who holds the context without a use for it.
  const std::shared_ptr<void>& owner() const noexcept { return owner_; }

 private:
  void* raw_ = nullptr;
  std::shared_ptr<void> owner_;
};

}  // namespace tolk
