// The end of a client or a server, and what both have besides.
#include <algorithm>
#include <chrono>

#include "capi/core.h"
#include "platform/process.h"
#include "transport/frame_format.h"

namespace tolk {
namespace {

constexpr std::int32_t kUsualLimitMs = 5000;
constexpr std::size_t kUsualQueuedBytes = std::size_t{64} << 20;
constexpr std::size_t kUsualRequests = 10000;
constexpr std::size_t kUsualDataBytes = frame_format::kMaxPayloadBytes;
constexpr std::uint64_t kNanosecondsPerMs = 1000000;

CoreSettings with_defaults(CoreSettings settings) {
  if (settings.limit_ms == 0) settings.limit_ms = kUsualLimitMs;
  if (settings.most_queued_bytes == 0) settings.most_queued_bytes = kUsualQueuedBytes;
  if (settings.most_requests == 0) settings.most_requests = kUsualRequests;
  if (settings.most_data_bytes == 0) settings.most_data_bytes = kUsualDataBytes;
  return settings;
}

int ms_until(std::uint64_t deadline) {
  if (deadline == UINT64_MAX) return OutgoingQueue::kForever;
  const std::uint64_t now = uv_hrtime();
  return deadline > now ? static_cast<int>((deadline - now) / kNanosecondsPerMs + 1) : 0;
}

}  // namespace

Core::Core(Side role, std::string address, CoreSettings settings)
    : role_(role),
      address_(std::move(address)),
      settings_(with_defaults(std::move(settings))),
      process_(platform::generation()),
      callbacks_(*this, settings_.execute, settings_.context.get(), settings_.workers),
      deadlines_([this](std::uint64_t number) { on_deadline(number); }) {}

Core::~Core() = default;

bool Core::of_this_process() const { return process_ == platform::generation(); }

bool Core::on_loop_thread() const {
  const auto current = session();
  return current && current->on_own_thread();
}

void Core::post_to_loop(std::unique_ptr<Task> task) {
  if (const auto current = session()) {
    current->post(std::move(task));
  } else {
    task->refuse();
  }
}

void Core::add_peer(const std::shared_ptr<Peer>& peer) { (*peers_.lock())[peer->id()] = peer; }

std::shared_ptr<Peer> Core::peer(std::uint64_t id) const {
  const auto peers = peers_.lock();
  const auto at = peers->find(id);
  return at == peers->end() ? nullptr : at->second;
}

void Core::lose(const std::shared_ptr<Peer>& peer, tolk_status status) {
  if (!peer->close()) return;
  peers_.lock()->erase(peer->id());
  calls_.complete_all_of(
      peer->id(), [&](const CallRecord& record) { return outcome_of(record, status, nullptr); });
  peer->end_all_requests(status);
  on_peer_lost(peer, status);
  note_progress();
}

void Core::lose_all() {
  for (const auto& [id, peer] : peers()) lose(peer, TOLK_CLOSED);
}

void Core::note_progress() {
  if (state_ == State::open) return;
  const auto lock = progress_lock_.lock();
  progress_.notify_all();
}

// True: all handlers have returned, and all frames are written.
bool Core::drain(std::uint64_t deadline) {
  const auto in_time = [&](auto&& done) {
    auto lock = progress_lock_.lock();
    const auto wanted = [&](int) { return done(); };
    if (deadline != UINT64_MAX) {
      return lock.wait_for(progress_, std::chrono::milliseconds(ms_until(deadline)), wanted);
    }
    lock.wait(progress_, wanted);
    return true;
  };
  if (!in_time([&] { return callbacks_.handlers() == 0; })) return false;
  bool written = true;
  for (const auto& [id, peer] : peers()) {
    written = (peer->out().wait_until_empty(ms_until(deadline)) || peer->is_gone()) && written;
  }
  return written;
}

tolk_status Core::close(std::int32_t limit_ms) {
  if (!of_this_process()) return TOLK_OK;
  State before = State::open;
  if (!state_.compare_exchange_strong(before, State::draining)) {
    return Callbacks::inside(*this) || on_loop_thread() ? TOLK_OK : wait_closed(TOLK_FOREVER);
  }
  const WorkerPool::Blocked others_may_run;
  if (limit_ms != 0) begin_draining();
  bool written = true;
  if (limit_ms != 0 && !Callbacks::inside(*this) && !on_loop_thread()) {
    written = drain(limit_ms < 0
                        ? UINT64_MAX
                        : uv_hrtime() + static_cast<std::uint64_t>(limit_ms) * kNanosecondsPerMs);
  }
  if (const auto current = session()) {
    // Nobody sends any more when the streams are closed.
    run_on_loop([this, self = shared()] {
      enter_loop();
      lose_all();
    });
    ask_for_end(*current);
    if (!current->on_own_thread()) current->wait_until_ended();
  }
  finish_closing();
  return written ? TOLK_OK : TOLK_TIMED_OUT;
}

// Called once the session refuses frames; the second time it does nothing.
void Core::finish_closing() {
  if (state_.exchange(State::closed) == State::closed) return;
  calls_.close(
      [this](const CallRecord& record) { return outcome_of(record, TOLK_CLOSED, nullptr); });
  note_progress();
}

tolk_status Core::wait_closed(std::int32_t limit_ms) {
  if (!of_this_process()) return TOLK_OK;
  const WorkerPool::Blocked others_may_run;
  const auto closed = [&](int) { return state_ == State::closed; };
  auto lock = progress_lock_.lock();
  if (limit_ms < 0) {
    lock.wait(progress_, closed);
    return TOLK_OK;
  }
  return lock.wait_for(progress_, std::chrono::milliseconds(limit_ms), closed) ? TOLK_OK
                                                                               : TOLK_TIMED_OUT;
}

void Core::end() {
  if (!of_this_process()) return;
  const auto self = shared();
  close(0);
  const auto current = session();
  if (current && !current->on_own_thread()) current->wait_until_ended();
  callbacks_.end();
  calls_.forget();
}

}  // namespace tolk
