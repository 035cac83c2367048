#include "transport/call_road.h"

#include <functional>
#include <memory>
#include <utility>

#include "params/content.h"
#include "platform/thread.h"
#include "transport/envelope.h"
#include "transport/invoke_guarded.h"
#include "transport/pause_point.h"

namespace tolk {
namespace {

// Writes one frame on the loop thread. `settled(written)` is called exactly once.
template <class Settled>
class SendTask final : public LoopTask {
 public:
  SendTask(FrameRoad& road, int peer, Frame frame, Settled settled)
      : road_(road), peer_(peer), frame_(std::move(frame)), settled_(std::move(settled)) {}

  void run() override {
    bool written = false;
    TOLK_PAUSE_POINT("handoff.before_write");
    invoke_guarded([&] { written = road_.deliver(peer_, std::move(frame_)); });
    TOLK_PAUSE_POINT("handoff.written");
    settled_(written);
  }
  void refuse() override { settled_(false); }

 private:
  FrameRoad& road_;  // the queue that holds this task is the road's own
  int peer_;
  Frame frame_;
  Settled settled_;
};

// False when the road ran the task in line, since the calling thread is its loop thread.
template <class Settled>
bool hand_over(FrameRoad& road, int peer, Frame frame, Settled settled) {
  auto task = std::make_unique<SendTask<Settled>>(road, peer, std::move(frame), std::move(settled));
  if (road.on_own_thread()) {
    if (road.stopping()) {
      task->refuse();
    } else {
      task->run();
    }
    return false;
  }
  road.post(std::move(task));
  return true;
}

// A record that is on a list for as long as this lives.
class Listed {
 public:
  Listed(WaitList& list, timeout_sem& record) : list_(list), record_(record) { list_.add(record_); }
  ~Listed() { list_.remove(record_); }
  Listed(const Listed&) = delete;
  Listed& operator=(const Listed&) = delete;

 private:
  WaitList& list_;
  timeout_sem& record_;
};

struct Written {
  Written() { uv_sem_init(&semaphore, 0); }
  ~Written() { uv_sem_destroy(&semaphore); }
  Written(const Written&) = delete;
  Written& operator=(const Written&) = delete;

  uv_sem_t semaphore{};
};

}  // namespace

int call_id_or_own(int asked) { return asked != 0 ? asked : platform::own_call_id(); }

std::optional<std::string_view> encoded(const TolkParams* block) {
  if (block == nullptr) return std::nullopt;
  return TolkParamsAccess::bytes(*block);
}

void call_and_wait(FrameRoad& road, WaitList& waits, ResultTable& results, OldResult old,
                   const Call& call, std::uint32_t limit_ms) {
  timeout_sem record(limit_ms);
  const Listed listed(waits, record);
  TOLK_PAUSE_POINT("call.listed");
  // Encoded before the old result goes: a host may pass that very block on as its arguments.
  Frame frame = call_frame(call.name, call.call_id, call.arguments, record.token);
  if (old == OldResult::drop) {
    results.drop(call.call_id);
  } else {
    results.drop_retained(call.call_id);
  }
  // By token, not by address: the task may still stand in line when this call has given up.
  const auto wake_unless_written = [&waits, token = record.token](bool written) {
    if (!written) waits.wake(token);
  };
  TOLK_PAUSE_POINT("call.before_handoff");
  if (hand_over(road, call.peer, std::move(frame), wake_unless_written)) {
    TOLK_PAUSE_POINT("call.before_wait");
    uv_sem_wait(&record.semaphore);
  }
  TOLK_PAUSE_POINT("call.woken_before_unlist");
}

void post_and_go(FrameRoad& road, const Call& call) {
  Written written;
  const auto post = [&written](bool) { uv_sem_post(&written.semaphore); };
  Frame frame = call_frame(call.name, call.call_id, call.arguments, std::nullopt);
  TOLK_PAUSE_POINT("post.before_handoff");
  hand_over(road, call.peer, std::move(frame), post);
  TOLK_PAUSE_POINT("post.before_wait");
  uv_sem_wait(&written.semaphore);
  TOLK_PAUSE_POINT("post.woken");
}

}  // namespace tolk
