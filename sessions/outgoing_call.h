// A call from a host thread through a loop thread to the peer, and its reply back; the same on both
// sides.
//
// Thread: any. On the session's own thread nothing waits: the frame is written at once, and a call
// returns what the table holds.
// Who wakes a waiting call: its reply, the timeout sweep, the end of a client's session, or the
// refusal of its frame (no such client, session over).
// Failure: none; std::bad_alloc before anything was sent.
#pragma once

#include <tolk/TolkParams.h>

#include <memory>
#include <optional>
#include <string_view>

#include "sessions/session.h"
#include "transport/envelope.h"
#include "transport/result_table.h"
#include "transport/wait_list.h"

namespace tolk {

struct OutgoingCall {
  // `params`: null is no arguments. `threadid`: 0 is the calling thread's own id. `peer`: the
  // client id; a client has one peer and ignores it.
  OutgoingCall(int peer, const char* name, const TolkParams* params, int threadid);

  int peer;
  std::string_view name;
  std::optional<std::string_view> arguments;  // encoded
  std::shared_ptr<const void> owner;          // of large arguments
  int call_id;
};

// `asked`, or the calling thread's own id when that is 0.
int call_id_or_own(int asked);

enum class OldResult { drop, keep };

// Sends the call and waits until it is woken. The reply is in the side's result table.
void call_and_wait(Session& session, WaitList& waits, ResultTable& results, OldResult old,
                   const OutgoingCall& call, std::uint32_t limit_ms);

// Takes a reply in: stored first, then its call is woken, so that a woken call finds its reply.
void take_reply(WaitList& waits, ResultTable& results, const Envelope& reply,
                const SharedBytes& payload) TOLK_LOOP;

// Sends the call and returns once its frame is on the stream, or cannot get there any more.
void post_call(Session& session, const OutgoingCall& call);

}  // namespace tolk
