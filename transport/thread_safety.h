// Locks that own their data, and annotations by which clang checks who may touch what
// (-Wthread-safety). Other compilers see plain mutexes.
//
// Being on a loop thread, or on a worker, is a capability as holding a lock is. A function that
// needs it is annotated with TOLK_LOOP or TOLK_WORKER. A callback of libuv, a task and a lambda say
// with enter_loop() or enter_worker() that they have it; sessions check at run time, in debug
// builds, that the loop thread is their own.
#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/static_mutex.h"

#if defined(__clang__)
#define TOLK_THREAD_MARK(x) __attribute__((x))
#else
#define TOLK_THREAD_MARK(x)
#endif
#define TOLK_CAPABILITY(name) TOLK_THREAD_MARK(capability(name))
#define TOLK_SCOPED_CAPABILITY TOLK_THREAD_MARK(scoped_lockable)
#define TOLK_GUARDED_BY(x) TOLK_THREAD_MARK(guarded_by(x))
#define TOLK_REQUIRES(...) TOLK_THREAD_MARK(requires_capability(__VA_ARGS__))
#define TOLK_ACQUIRE(...) TOLK_THREAD_MARK(acquire_capability(__VA_ARGS__))
#define TOLK_RELEASE(...) TOLK_THREAD_MARK(release_capability(__VA_ARGS__))
#define TOLK_ASSERTS(...) TOLK_THREAD_MARK(assert_capability(__VA_ARGS__))

namespace tolk {

class TOLK_CAPABILITY("thread role") ThreadRole {};
inline constexpr ThreadRole loop_role;
inline constexpr ThreadRole worker_role;
#define TOLK_LOOP TOLK_REQUIRES(::tolk::loop_role)
#define TOLK_WORKER TOLK_REQUIRES(::tolk::worker_role)

inline void enter_loop() TOLK_ASSERTS(loop_role) {}
inline void enter_worker() TOLK_ASSERTS(worker_role) {}

// May be static.
class TOLK_CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;
  void lock() TOLK_ACQUIRE() { mutex_.lock(); }
  void unlock() TOLK_RELEASE() { mutex_.unlock(); }

 private:
  platform::StaticMutex mutex_;
};

class TOLK_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TOLK_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() TOLK_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// A value that nobody reaches without its lock:
//   auto list = waiting_.lock();
//   list->push_back(x);
template <class T>
class Guarded {
 public:
  class Locked {
   public:
    explicit Locked(const Guarded& owner) : lock_(owner.mutex_), value_(owner.value_) {}
    T* operator->() const { return &value_; }
    T& operator*() const { return value_; }
    // Waits, with the lock released meanwhile, until `done(value)` or the limit.
    template <class Duration, class Done>
    bool wait_for(std::condition_variable& changed, Duration limit, Done done) {
      return changed.wait_for(lock_, limit, [&] { return done(value_); });
    }
    template <class Done>
    void wait(std::condition_variable& changed, Done done) {
      changed.wait(lock_, [&] { return done(value_); });
    }
    // In between, others may use the value.
    void unlock() { lock_.unlock(); }
    void relock() { lock_.lock(); }

   private:
    std::unique_lock<std::mutex> lock_;
    T& value_;
  };

  constexpr Guarded() = default;
  Locked lock() const { return Locked(*this); }

 private:
  mutable std::mutex mutex_;
  mutable T value_{};
};

}  // namespace tolk
