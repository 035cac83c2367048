// Where the data of a transfer come from, and where they go: memory, files, callbacks of the host.
//
// Thread: one at a time, that of the transfer's step. Owner: the host until a function takes it,
// then the transfer. Failure: false; `code` is then the system's, or 0.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct tolk_source {
 public:
  explicit tolk_source(std::uint64_t total) : total_(total) {}
  virtual ~tolk_source() = default;
  tolk_source(const tolk_source&) = delete;
  tolk_source& operator=(const tolk_source&) = delete;

  std::uint64_t total() const { return total_; }
  // The next bytes, as many as asked for.
  virtual bool read(char* to, std::size_t size) = 0;
  int code() const { return code_; }
  // It runs code of the host.
  virtual bool calls_host() const { return false; }

 protected:
  int code_ = 0;

 private:
  const std::uint64_t total_;
};

struct tolk_sink {
 public:
  tolk_sink() = default;
  virtual ~tolk_sink() = default;
  tolk_sink(const tolk_sink&) = delete;
  tolk_sink& operator=(const tolk_sink&) = delete;

  virtual bool write(std::string_view bytes) = 0;
  // It runs code of the host.
  virtual bool calls_host() const { return false; }
  // All bytes are there.
  virtual bool finish() { return true; }
  // The transfer has succeeded.
  virtual void keep() noexcept {}

  // Why the last write has failed, if the host has said so.
  std::string why;
};

namespace tolk {

// The host's view of how far a transfer is.
struct Progress {
  tolk_progress function = nullptr;
  void* context = nullptr;
  // Of a call, whose data and those of its answer do not overlap unless the peer breaks the rules.
  std::shared_ptr<std::atomic<bool>> is_running = nullptr;

  // False cancels.
  bool report(std::uint64_t done, std::uint64_t total) const {
    if (function == nullptr || (is_running && is_running->exchange(true))) return true;
    const bool goes_on = function(context, done, total);
    if (is_running) *is_running = false;
    return goes_on;
  }
};

}  // namespace tolk
