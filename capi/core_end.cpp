// The end of a client or a server, and what both have besides.
#include <algorithm>
#include <chrono>

#include "capi/core.h"
#include "platform/process.h"
#include "transport/frame_format.h"
#include "transport/pause_point.h"

namespace tolk {
namespace {

constexpr std::int32_t kUsualLimitMs = 5000;
constexpr std::int32_t kWorkerPauseMs = 10;
constexpr int kMomentMs = 10;
constexpr std::size_t kUsualQueuedBytes = std::size_t{64} << 20;
constexpr std::size_t kUsualRequests = 10000;
constexpr std::size_t kUsualDataBytes = frame_format::kMaxPayloadBytes;

CoreSettings with_defaults(CoreSettings settings) {
  if (settings.limit_ms == 0) settings.limit_ms = kUsualLimitMs;
  if (settings.most_queued_bytes == 0) settings.most_queued_bytes = kUsualQueuedBytes;
  if (settings.most_requests == 0) settings.most_requests = kUsualRequests;
  if (settings.most_data_bytes == 0) settings.most_data_bytes = kUsualDataBytes;
  return settings;
}

std::chrono::nanoseconds time_until(std::uint64_t deadline) {
  const std::uint64_t now = uv_hrtime();
  return std::chrono::nanoseconds(deadline > now ? deadline - now : 0);
}

int ms_until(std::uint64_t deadline) {
  if (deadline == UINT64_MAX) return OutgoingQueue::kForever;
  const std::uint64_t now = uv_hrtime();
  return deadline > now ? static_cast<int>((deadline - now) / kNanosecondsPerMs + 1) : 0;
}

// The loop thread needs a moment, or longer when it is in an inline callback that is slow.
bool has_ended_by(Session& session, std::uint64_t deadline) {
  if (deadline != UINT64_MAX) {
    return session.wait_until_ended(std::chrono::milliseconds(ms_until(deadline) + kMomentMs));
  }
  session.wait_until_ended();
  return true;
}

}  // namespace

Core::Core(Side role, std::string address, CoreSettings settings)
    : role_(role),
      address_(std::move(address)),
      settings_(with_defaults(std::move(settings))),
      process_(platform::generation()),
      callbacks_(*this, settings_.execute, settings_.context.get(), settings_.workers),
      deadlines_(
          [this](std::uint64_t number) {
            enter_loop();
            on_deadline(number);
          },
          [this](std::uint64_t number) { return number % 2 == 0 || calls_.has(number); }) {}

Core::~Core() = default;

bool Core::of_this_process() const { return process_ == platform::generation(); }

void Core::log_made(tolk_level level, std::string (*make)(const void*), const void* maker) {
  if (!of_this_process()) return;
  guarded([&] {
    std::string text = make(maker);
    std::replace(text.begin(), text.end(), '\n', ' ');  // a peer's text adds no lines
    std::replace(text.begin(), text.end(), '\r', ' ');
    const Callbacks::Telling telling(callbacks_);
    if (!telling.is_allowed()) return;
    const Callbacks::Scope scope(*this, true);
    settings_.log(settings_.context.get(), level, text.c_str());
  });
}

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

// In the order of the ids; null is before the first and behind the last.
std::shared_ptr<Peer> Core::peer_after(const Peer* peer) const {
  const auto peers = peers_.lock();
  const auto at = peer == nullptr ? peers->begin() : peers->upper_bound(peer->id());
  return at == peers->end() ? nullptr : at->second;
}

// The queue is closed first: a call that comes later is refused there, and one that came before is
// in the table.
void Core::lose(const std::shared_ptr<Peer>& peer, tolk_status status) {
  const bool is_first = peer->close(status);
  peers_.lock()->erase(peer->id());
  if (!is_first) return;
  TOLK_PAUSE_POINT("peer.closed");
  calls_.complete_all_of(
      peer->id(), [&](const CallRecord& record) { return outcome_of(record, status, nullptr); });
  peer->end_all_requests(status);
  on_peer_lost(peer, status);
  note_progress();
}

// Any thread. Something is over that a close may wait for.
void Core::note_progress() {
  if (state_ == State::open || !of_this_process()) return;
  if (drains_alone_ && is_drained()) begin_end();
  const auto lock = progress_lock_.lock();
  progress_.notify_all();
}

void Core::start_workers_soon() {
  guarded([this] {
    if (deadlines_.add(deadline_after(kWorkerPauseMs), kWorkers)) arm_deadlines();
  });
}

// All handlers have returned, and all frames are written.
bool Core::is_drained() const {
  if (callbacks_.handlers() != 0) return false;
  for (auto peer = peer_after(nullptr); peer; peer = peer_after(peer.get())) {
    if (!peer->is_gone() && peer->out().bytes() != 0) return false;
  }
  return true;
}

// Host. False: the limit has passed before.
bool Core::drain(std::uint64_t deadline) {
  auto lock = progress_lock_.lock();
  const auto handlers_have_returned = [&](int) {
    return state_ == State::closed || callbacks_.handlers() == 0;
  };
  if (deadline == UINT64_MAX) {
    lock.wait(progress_, handlers_have_returned);
  } else if (!lock.wait_for(progress_, time_until(deadline), handlers_have_returned)) {
    return false;
  }
  lock.unlock();
  bool written = true;
  for (auto peer = peer_after(nullptr); peer; peer = peer_after(peer.get())) {
    written = (peer->out().wait_until_empty(ms_until(deadline)) || peer->is_gone()) && written;
  }
  return written;
}

// In a callback, nobody waits: who ends the last of it then ends the connection, or the loop thread
// when the limit passes. Without memory for that, the end is now.
void Core::drain_alone(std::uint64_t deadline) {
  const bool has_limit = guarded_or(false, [&] {
    if (deadline != UINT64_MAX && deadlines_.add(deadline, kDrainLimit)) arm_deadlines();
    return true;
  });
  if (!has_limit) return begin_end();
  drains_alone_ = true;
  note_progress();
}

// Any thread; needs no memory. The table is closed before the streams: a call that comes now fails
// because this end is closed, and not because the other one has gone.
void Core::begin_end() {
  drains_alone_ = false;
  calls_.close(
      [this](const CallRecord& record) { return outcome_of(record, TOLK_CLOSED, nullptr); });
  TOLK_PAUSE_POINT("end.calls_closed");
  const auto current = session();
  if (!current || (!current->enter(Phase::close_asked) && current->phase() != Phase::close_asked)) {
    return finish_closing();  // there is nothing to end, or it has ended
  }
  current->wake_for_end();
}

tolk_status Core::close(std::int32_t limit_ms) {
  if (!of_this_process()) return TOLK_OK;
  State before = State::open;
  if (state_.compare_exchange_strong(before, State::draining)) {
    log(TOLK_INFO, [&] { return address_ + ": closing"; });
    if (limit_ms != 0) guarded([this] { begin_draining(); });
  }
  TOLK_PAUSE_POINT("end.draining");
  const std::uint64_t deadline = deadline_after(limit_ms);
  if (Callbacks::inside(*this) || on_loop_thread()) {
    if (limit_ms == 0) {
      begin_end();
    } else if (before == State::open) {
      drain_alone(deadline);
    }
    return TOLK_OK;
  }
  const WorkerPool::Blocked others_may_run;
  const bool written = drain(deadline);
  begin_end();
  const auto current = session();
  const bool ended = !current || has_ended_by(*current, deadline);
  if (ended) finish_closing();
  callbacks_.start_workers();  // the loop cannot do that any more
  return written && (ended || limit_ms == 0) ? TOLK_OK : TOLK_TIMED_OUT;
}

// Nothing is sent any more when the streams are closed after this.
void Core::on_loop_ending(tolk_status peers_lost) {
  State before = State::open;
  state_.compare_exchange_strong(before, State::draining);
  calls_.close([&](const CallRecord& record) { return outcome_of(record, peers_lost, nullptr); });
  while (const auto peer = peer_after(nullptr)) lose(peer, peers_lost);
}

// The streams are closing. The second time it does nothing.
void Core::finish_closing() {
  if (state_.exchange(State::closed) == State::closed) return;
  note_progress();
}

tolk_status Core::wait_closed(std::int32_t limit_ms) {
  if (!of_this_process()) return TOLK_OK;
  if (may_not_wait()) return TOLK_MISUSE;
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

// In a callback it does not wait for the loop thread, which may be in an inline one that waits for
// this thread.
void Core::end() {
  const auto self = shared();
  const WorkerPool::Blocked others_may_run;
  close(0);
  if (const auto current = session();
      current && !current->on_own_thread() && !Callbacks::inside(*this)) {
    current->wait_until_ended();
    finish_closing();
  }
  TOLK_PAUSE_POINT("end.before_callbacks");
  callbacks_.end();
  calls_.forget();
}

}  // namespace tolk
