// The road of a call from a host thread through a loop thread to the peer, and of its answer back;
// the same on both sides.
//
// Thread: any. On the session's own thread nothing waits: the frame is written at once, and a call
// returns what the table holds.
// Who wakes a waiting call: its reply, the time-out sweep, the end of a client's session, or the
// refusal of its frame (no such client, session over).
// Failure: null.
#pragma once

#include <tolk/TolkParams.h>

#include <optional>
#include <string_view>

#include "transport/frame.h"
#include "transport/loop_session.h"
#include "transport/result_table.h"
#include "transport/wait_list.h"

namespace tolk {

// A session that writes frames to a peer: a client's only one, or one of a server's by client id.
class FrameRoad : public LoopSession {
 public:
  // Loop. False when there is no such peer; nothing is written then.
  virtual bool deliver(int peer, Frame frame) = 0;
};

struct Call {
  int peer = 0;  // client id; a client has one peer and ignores it
  std::string_view name;
  std::optional<std::string_view> arguments;
  int call_id = 0;
};

// The call id to use: what the host asked for, or the calling thread's own.
int call_id_or_own(int asked);

// What the host passed as arguments; a null block is none.
std::optional<std::string_view> encoded(const TolkParams* block);

enum class OldResult { drop, keep };

// Sends the call and waits until it is woken. The answer is in the side's result table.
void call_and_wait(FrameRoad& road, WaitList& waits, ResultTable& results, OldResult old,
                   const Call& call, std::uint32_t limit_ms);

// Sends the call and returns once its frame is on the stream, or can't get there any more.
void post_and_go(FrameRoad& road, const Call& call);

}  // namespace tolk
