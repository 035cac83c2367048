// The errors of the C interface: status, texts, and what a handler added.
//
// Thread: an error does not change once the host has it; any thread may copy and free it.
// Owner: counted; the host owns what it gets.
// Failure: without memory for an error the host gets a static one, which has the status alone.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>

namespace tolk {

// What an error says. All but the status may be absent.
struct Failure {
  tolk_status status = TOLK_MISUSE;
  std::string method{};
  std::string address{};
  std::string peer{};
  std::string reason{};  // absent: the usual text of the status
  std::string wanted{};
  std::string found{};
  const char* hint = nullptr;  // a literal that replaces the status's
  std::int32_t code = 0;
  std::shared_ptr<const tolk_block> details{};
};

// A counted error, or none.
class ErrorRef {
 public:
  ErrorRef() = default;
  explicit ErrorRef(tolk_error* adopted) noexcept : error_(adopted) {}
  ErrorRef(const ErrorRef& other) noexcept : error_(copy(other.error_)) {}
  ErrorRef(ErrorRef&& other) noexcept : error_(other.take()) {}
  ErrorRef& operator=(ErrorRef other) noexcept {
    std::swap(error_, other.error_);
    return *this;
  }
  ~ErrorRef() { tolk_error_free(error_); }

  const tolk_error* get() const noexcept { return error_; }
  tolk_error* take() noexcept { return std::exchange(error_, nullptr); }

 private:
  static tolk_error* copy(const tolk_error* error) noexcept {
    return error == nullptr ? nullptr : tolk_error_copy(error);
  }

  tolk_error* error_ = nullptr;
};

// Never null.
tolk_error* new_error(Failure failure) noexcept;
// With the usual texts of the status. Needs no memory.
tolk_error* static_error(tolk_status status) noexcept;
tolk_error* no_memory_error() noexcept;

// Gives the host an error, if it wants one, and returns the status.
tolk_status fail(tolk_error** to, Failure failure) noexcept;
tolk_status fail_without_memory(tolk_error** to) noexcept;

const char* status_hint(tolk_status status) noexcept;
// The usual reason, a fragment: "no such method".
const char* status_reason(tolk_status status) noexcept;

// Runs an exported function: `*to` is null first, and running out of memory is a status.
template <class Function>
tolk_status guarded_call(tolk_error** to, Function&& function) noexcept {
  if (to != nullptr) *to = nullptr;
  try {
    return function();
  } catch (const std::exception&) {
    // Nothing below throws for another reason than a lack of memory or threads.
    return fail_without_memory(to);
  }
}

}  // namespace tolk

struct tolk_error {
  explicit tolk_error(tolk::Failure of);

  tolk::Failure failure;
  std::string text;
  bool is_static = false;
  mutable std::atomic<std::uint32_t> owners = 1;
};
