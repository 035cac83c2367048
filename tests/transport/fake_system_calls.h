// Stands in for the outside world of the transport while it lives: writes are recorded and answered
// as the test says, sleeps take no time, the tick moves only by hand, sends take what the test
// says.
//
// Thread: the test's own, and one object at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "transport/system_calls.h"

namespace tolk::test {

class FakeSystemCalls {
 public:
  struct Write {
    uv_write_t* request;
    uv_stream_t* stream;
    const uv_buf_t* buffers;
    unsigned buffer_count;
    uv_write_cb done;
    std::string bytes;
  };

  FakeSystemCalls() : real_(system_calls) {
    current_ = this;
    system_calls = {write, sleep, read_tick, send};
  }
  ~FakeSystemCalls() {
    system_calls = real_;
    current_ = nullptr;
  }
  FakeSystemCalls(const FakeSystemCalls&) = delete;
  FakeSystemCalls& operator=(const FakeSystemCalls&) = delete;

  std::deque<int> statuses;         // of the next writes, in order
  int status_afterwards = 0;        // of those that follow
  std::vector<Write> writes;        // as they came
  std::vector<std::string> events;  // "write" and "sleep <ms>", in order
  std::deque<std::size_t> sends;    // how many bytes the next ones take, in order; then none
  std::string sent;                 // what they took
  std::uint32_t tick = 0;

 private:
  static int write(uv_write_t* request, uv_stream_t* stream, const uv_buf_t* buffers,
                   unsigned count, uv_write_cb done) {
    FakeSystemCalls& self = *current_;
    std::string bytes;
    for (unsigned i = 0; i < count; ++i) bytes.append(buffers[i].base, buffers[i].len);
    self.writes.push_back({request, stream, buffers, count, done, std::move(bytes)});
    self.events.emplace_back("write");
    if (self.statuses.empty()) return self.status_afterwards;
    const int status = self.statuses.front();
    self.statuses.pop_front();
    return status;
  }

  static void sleep(unsigned ms) { current_->events.push_back("sleep " + std::to_string(ms)); }
  static std::size_t send(int, std::span<const uv_buf_t> buffers) {
    FakeSystemCalls& self = *current_;
    self.events.emplace_back("send");
    if (self.sends.empty()) return 0;
    std::string bytes;
    for (const uv_buf_t& buffer : buffers) bytes.append(buffer.base, buffer.len);
    const std::size_t taken = std::min(self.sends.front(), bytes.size());
    self.sends.pop_front();
    self.sent.append(bytes, 0, taken);
    return taken;
  }
  static std::uint32_t read_tick() { return current_->tick; }

  static inline FakeSystemCalls* current_ = nullptr;
  const SystemCalls real_;
};

}  // namespace tolk::test
