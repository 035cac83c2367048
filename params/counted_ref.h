// One count of an object that counts its holders, or none.
//
// Thread: one at a time; the object counts atomically. Owner: the last count frees the object.
// Failure: none.
#pragma once

#include <utility>

namespace tolk {

// `T` has retain() and release().
template <class T>
class CountedRef {
 public:
  CountedRef() = default;
  explicit CountedRef(T* adopted) noexcept : object_(adopted) {}
  CountedRef(const CountedRef& other) noexcept : object_(other.object_) {
    if (object_ != nullptr) object_->retain();
  }
  CountedRef(CountedRef&& other) noexcept : object_(other.take()) {}
  CountedRef& operator=(CountedRef other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~CountedRef() {
    if (object_ != nullptr) object_->release();
  }

  explicit operator bool() const noexcept { return object_ != nullptr; }
  T* get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  // The count is the caller's from here on.
  T* take() noexcept { return std::exchange(object_, nullptr); }

 private:
  T* object_ = nullptr;
};

}  // namespace tolk
