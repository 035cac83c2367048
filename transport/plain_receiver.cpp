#include "transport/plain_receiver.h"

#include <utility>

#include "transport/pause_point.h"

namespace tolk {
namespace {

// A call from the peer. A worker builds its reply, the loop thread writes it.
class CallItem final : public WorkItem {
 public:
  CallItem(PlainReceiver& receiver, PeerStream& stream, const Envelope& envelope,
           const std::shared_ptr<const void>& owner)
      : receiver_(receiver),
        side_(stream.owner().side().shared_from_this()),
        owner_(stream.owner().shared_from_this()),
        stream_(stream),
        call_(envelope, owner) {}

 private:
  void work() TOLK_WORKER override {
    if (!owner_->begins_calls()) return;
    TOLK_PAUSE_POINT("worker.before_handler");
    reply_ = receiver_.answer(stream_.id(), call_);
    TOLK_PAUSE_POINT("worker.answered");
  }

  void end() TOLK_LOOP override {
    owner_->check_loop_thread();
    if (reply_) stream_.write_reply(std::move(*reply_));
  }

  void fail() TOLK_LOOP override { stream_.end_unanswered(); }

  PlainReceiver& receiver_;                  // the side
  const std::shared_ptr<MessageSide> side_;  // outlives the session
  const std::shared_ptr<StreamOwner> owner_;
  PeerStream& stream_;  // the session's
  IncomingCall call_;
  std::optional<Frame> reply_;
};

}  // namespace

IncomingCall::IncomingCall(const Envelope& envelope, const std::shared_ptr<const void>& owner)
    : name(envelope.name.value_or("")), call_id(envelope.call_id), token(envelope.token) {
  if (!envelope.arguments) return;
  arguments = owner ? SharedBytes{owner, *envelope.arguments} : copy_of(*envelope.arguments);
}

void PlainReceiver::receive(PeerStream& stream, const SharedBytes& payload) {
  const Envelope envelope = Envelope::scan(payload.view);
  if (!envelope.well_formed && !accepts_malformed()) return;
  if (!envelope.name) return on_message_without_name();
  if (envelope.is_reply()) return on_reply(envelope, payload);
  if (answers_on_loop(stream, envelope)) return;
  stream.owner().begin_work(std::make_unique<CallItem>(*this, stream, envelope, payload.owner));
}

}  // namespace tolk
