/// @file
/// Callables of any type, and what comes later.
///
/// Thread: as the callable. Owner: copies share one callable, which may be move-only.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace tolk {
inline namespace v1 {

template <class Signature>
class Function;

/// A callable of any type, or none. It is like std::function, but takes move-only ones.
template <class R, class... A>
class Function<R(A...)> {
 public:
  /// None.
  Function(std::nullptr_t = nullptr) {}
  /// The callable `f`.
  template <class F>
  requires(!std::same_as<F, Function> && std::is_invocable_r_v<R, F&, A...>) Function(F f)
      : held_(std::make_shared<Held<F>>(std::move(f))) {}

  /// Whether there is a callable.
  explicit operator bool() const noexcept { return held_ != nullptr; }
  /// Calls it. There must be one.
  R operator()(A... args) const { return held_->call(std::forward<A>(args)...); }

 private:
  struct Base {
    virtual ~Base() = default;
    virtual R call(A... args) = 0;
  };
  template <class F>
  struct Held final : Base {
    explicit Held(F callable) : f(std::move(callable)) {}
    R call(A... args) override { return static_cast<R>(f(std::forward<A>(args)...)); }
    F f;
  };

  std::shared_ptr<Base> held_;
};

/// @cond internal
namespace detail {
// A value that comes once, and one who is told of it, in whatever order.
// Thread: any. The second of the two runs `next`.
template <class T>
class Later {
 public:
  // Drops all values but the first.
  void set(T value) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (value_) return;
    value_.emplace(std::move(value));
    const auto next = std::move(next_);
    lock.unlock();
    came_.notify_all();
    if (next) next(*value_);
  }
  void then(Function<void(T&)> next) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!value_) {
      next_ = std::move(next);
      return;
    }
    lock.unlock();
    next(*value_);
  }
  T& wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    came_.wait(lock, [&] { return value_.has_value(); });
    return *value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable came_;
  std::optional<T> value_;
  Function<void(T&)> next_;
};
}  // namespace detail
/// @endcond
}  // namespace v1
}  // namespace tolk
