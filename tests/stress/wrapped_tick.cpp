// The tick of timeouts starts just before it wraps. Each call must time out on time, the longest
// ones after weeks, which the row skips by moving the tick.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"
#include "transport/system_calls.h"

namespace tolk::stress {
namespace {

constexpr std::uint32_t kFirstTick = 0xffffff00;  // it wraps after a quarter of a second
constexpr std::uint32_t kHalf = 0x80000000;
constexpr std::uint32_t kLongest = 0xffffffff;

std::atomic<std::uint32_t> moved_by{0};

std::uint32_t moved_tick() { return platform::tick_ms() + moved_by; }

// One call to a peer that never answers, and when it returned.
class Waiting {
 public:
  template <class Call>
  Waiting(std::uint32_t time_out_ms, Call call)
      : time_out_ms_(time_out_ms), thread_([this, call, time_out_ms] {
          call(static_cast<int>(time_out_ms));
          took_ms_ = clock_.elapsed().count();
          returned_ = true;
        }) {}
  ~Waiting() { thread_.join(); }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

  std::uint32_t time_out_ms() const { return time_out_ms_; }
  std::uint32_t begin_tick() const { return begin_tick_; }
  bool has_returned() const { return returned_; }
  std::int64_t took_ms() const { return took_ms_; }
  void wait() const {
    eventually([&] { return returned_.load(); });
  }

 private:
  const std::uint32_t time_out_ms_;
  const std::uint32_t begin_tick_ = moved_tick();
  const Stopwatch clock_;
  std::atomic<std::int64_t> took_ms_{0};
  std::atomic<bool> returned_{false};
  std::thread thread_;
};

using Calls = std::vector<std::unique_ptr<Waiting>>;

class WrappedTick {
 public:
  explicit WrappedTick(Run& run) : run_(run) {}

  // `zero_ends`: in a server a timeout of 0 ends at the next sweep, in a client never.
  template <class Call>
  void wait_on_a_side(const std::string& side, bool zero_ends, const Call& call) {
    const auto first_sweep_ms = static_cast<std::int64_t>(kFirstSweepMs);
    // The first calls come before the sweep runs at all, those afterwards see it running.
    for (const std::int64_t earliest : {first_sweep_ms, std::int64_t{0}}) {
      for (const std::uint32_t limit : {1u, 150u}) expect_on_time(side, limit, earliest, call);
    }
    if (zero_ends) expect_on_time(side, 0, 0, call);
    Calls long_ones;
    long_ones.push_back(std::make_unique<Waiting>(kHalf, call));
    long_ones.push_back(std::make_unique<Waiting>(kLongest, call));
    if (!zero_ends) long_ones.push_back(std::make_unique<Waiting>(0u, call));
    expect_all_waiting(long_ones, "at once");
    expect_after_weeks(side, *long_ones.front());
    // It does not end at all: no difference of two ticks is larger.
    moved_by += kHalf - 60'000;
    run_.expect(!has_returned_soon(*long_ones[1]), "a timeout of 2^32-1 ms ended, ", side);
    waiting_.insert(waiting_.end(), std::make_move_iterator(long_ones.begin()),
                    std::make_move_iterator(long_ones.end()));
  }

  // What still waits does so until the end of the connection.
  template <class EndAll>
  void end(const EndAll& end_all) {
    end_all();
    waiting_.clear();
  }

  void report() const {
    run_.figure("timeouts that ended before their time", early_, "");
    run_.figure("latest end of a timeout, beyond it", static_cast<double>(worst_late_ms_), "ms");
    run_.expect(early_ == 0, early_, " timeouts ended early");
    if (run_.holds_times()) {
      run_.expect(worst_late_ms_ <= kStepMs + kSchedulingMs, "a timeout ended ", worst_late_ms_,
                  " ms late");
    }
  }

 private:
  static constexpr int kSchedulingMs = 10;  // to wake a thread, on either side of the call

  template <class Call>
  void expect_on_time(const std::string& side, std::uint32_t limit_ms, std::int64_t earliest_ms,
                      const Call& call) {
    const Waiting waiting(limit_ms, call);
    waiting.wait();
    if (!run_.expect(waiting.has_returned(), "a timeout of ", limit_ms, " ms never ended, ",
                     side)) {
      return;
    }
    const std::int64_t limit = limit_ms;
    note_end(waiting.took_ms(), limit, std::max(limit, earliest_ms));
  }

  // Moves the tick to a moment before the timeout, and then waits for it.
  void expect_after_weeks(const std::string& side, const Waiting& waiting) {
    constexpr std::uint32_t kBeforeMs = 500;
    moved_by += waiting.time_out_ms() - kBeforeMs - (moved_tick() - waiting.begin_tick());
    const Stopwatch clock;
    waiting.wait();
    if (!run_.expect(waiting.has_returned(), "a timeout of 2^31 ms never ended, ", side)) return;
    note_end(clock.elapsed().count(), kBeforeMs, kBeforeMs);
  }

  // A millisecond: the clocks that are compared are cut to whole ones.
  void note_end(std::int64_t took_ms, std::int64_t limit_ms, std::int64_t due_ms) {
    if (took_ms + 1 < limit_ms) ++early_;
    worst_late_ms_ = std::max(worst_late_ms_, took_ms - due_ms);
  }

  static bool has_returned_soon(const Waiting& call) {
    return eventually([&] { return call.has_returned(); }, Milliseconds(3 * kStepMs));
  }

  void expect_all_waiting(const Calls& calls, const char* when) {
    for (const auto& call : calls) {
      run_.expect(!has_returned_soon(*call), "a timeout of ", call->time_out_ms(), " ms ended ",
                  when);
    }
  }

  Run& run_;
  Calls waiting_;
  int early_ = 0;
  std::int64_t worst_late_ms_ = 0;
};

void wait_as_client(Run& run, WrappedTick& tick) {
  const test::Address address = test::fresh_address(test::Transport::pipe);
  test::RawServer listening(address);
  const test::ClientPtr client = test::make_client();
  if (!run.expect(test::connect_client(client.get(), address), "a client did not connect")) return;
  std::atomic<int> last_id{0};
  tick.wait_on_a_side("client", false, [&](int time_out_ms) {
    client->SendMsgFast("never", nullptr, ++last_id, time_out_ms);
  });
  tick.end([&] { client->close(); });
}

void wait_as_server(Run& run, WrappedTick& tick) {
  const test::Address address = test::fresh_address(test::Transport::pipe);
  const test::ServerPtr server = test::make_server();
  const auto id = std::make_shared<std::atomic<int>>(0);
  server->method("s_c_connect",
                 test::on_call([id](int client, TolkParams*, TolkParams*) { *id = client; }));
  if (!run.expect(test::start_server(server.get(), address), "a server did not start")) return;
  test::RawClient client(address);
  std::atomic<int> last_id{0};
  tick.wait_on_a_side("server", true, [&](int time_out_ms) {
    server->SendMsg(*id, "never", nullptr, ++last_id, time_out_ms);
  });
  // Nothing but an answer wakes a server's call that has no end.
  tick.end([&] {
    while (!client.socket.is_quiet()) {
      const auto call = client.socket.read_message();
      if (!run.expect(call.has_value(), "the server has gone")) return;
      client.socket.send_frame(test::reply_payload(*call));
    }
  });
}

}  // namespace

void wrap_the_tick(Run& run) {
  moved_by = kFirstTick - platform::tick_ms();
  system_calls.tick_ms = moved_tick;  // before there is any loop
  WrappedTick tick(run);
  run.at("client, seed ", run.seed());
  wait_as_client(run, tick);
  run.at("server, seed ", run.seed());
  wait_as_server(run, tick);
  tick.report();
}

}  // namespace tolk::stress
