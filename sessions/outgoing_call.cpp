#include "sessions/outgoing_call.h"

#include <memory>
#include <utility>

#include "params/content.h"
#include "platform/guarded.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "transport/pause_point.h"
#include "transport/staying_awake.h"

namespace tolk {
namespace {

// Writes one frame on the loop thread. `settled(written)` is called exactly once.
template <class Settled>
class SendTask final : public Task {
 public:
  SendTask(Session& session, int peer, Frame frame, Settled settled)
      : session_(session), peer_(peer), frame_(std::move(frame)), settled_(std::move(settled)) {}

  void run() TOLK_LOOP override {
    bool written = false;
    guarded([&] {
      enter_loop();
      written = session_.deliver(peer_, std::move(frame_));
    });
    settled_(written);
  }
  void refuse() override { settled_(false); }

 private:
  Session& session_;  // owns the queue that holds this task
  int peer_;
  Frame frame_;
  Settled settled_;
};

// False when the task ran at once, since the calling thread is the loop thread.
template <class Settled>
bool hand_over(Session& session, int peer, Frame frame, Settled settled) {
  auto task =
      std::make_unique<SendTask<Settled>>(session, peer, std::move(frame), std::move(settled));
  if (!session.on_own_thread()) {
    session.post(std::move(task));
    return true;
  }
  enter_loop();
  if (session.takes_messages()) {
    task->run();
  } else {
    task->refuse();
  }
  return false;
}

struct Written {
  Written() { uv_sem_init(&semaphore, 0); }
  ~Written() { uv_sem_destroy(&semaphore); }
  Written(const Written&) = delete;
  Written& operator=(const Written&) = delete;

  uv_sem_t semaphore{};
};

}  // namespace

OutgoingCall::OutgoingCall(int to, const char* method, const TolkParams* params, int threadid)
    : peer(to), name(text_of(method)), call_id(call_id_or_own(threadid)) {
  if (params == nullptr) return;
  arguments = TolkParamsAccess::bytes(*params);
  if (arguments->size() < Frame::kTakeOverBytes) return;
  SharedBytes shared = TolkParamsAccess::share_bytes(*params);
  arguments = shared.view;
  owner = std::move(shared.owner);
}

int call_id_or_own(int asked) { return asked != 0 ? asked : platform::own_call_id(); }

void call_and_wait(Session& session, WaitList& waits, ResultTable& results, OldResult old,
                   const OutgoingCall& call, std::uint32_t limit_ms) {
  timeout_sem record(limit_ms);
  // Encoded before the old result goes: a host may pass that very block as its arguments. And
  // before the record is stamped: the timeout does not cover encoding.
  Frame frame = call_frame(call.name, call.call_id, call.arguments, record.token, call.owner);
  if (old == OldResult::drop) {
    results.drop(call.call_id);
  } else {
    results.drop_retained(call.call_id);
  }
  const Listed listed(waits, record);
  // By token, not by address: the task may still be queued when this call has given up.
  const auto wake_unless_written = [&waits, token = record.token](bool written) {
    if (!written) waits.wake(token);
  };
  if (hand_over(session, call.peer, std::move(frame), wake_unless_written)) {
    wait_awake(&record.semaphore);
  }
  TOLK_PAUSE_POINT("call.woken");
}

void take_reply(WaitList& waits, ResultTable& results, const Envelope& reply,
                const SharedBytes& payload) {
  if (!reply.call_id) return;
  results.store(*reply.call_id, payload);
  if (!reply.token) return;
  if (const auto token = parse_token(*reply.token)) waits.wake(*token);
}

void post_call(Session& session, const OutgoingCall& call) {
  Written written;
  const auto post = [&written](bool) { uv_sem_post(&written.semaphore); };
  hand_over(session, call.peer,
            call_frame(call.name, call.call_id, call.arguments, std::nullopt, call.owner), post);
  wait_awake(&written.semaphore);
}

}  // namespace tolk
