// How a side of the required interface takes the messages of its peers: it tells replies from calls
// and lets workers run the calls.
//
// Thread: as said at each function. Owner: the side, which is one.
// Failure: a call that there is no memory for ends its stream.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "params/shared_bytes.h"
#include "transport/envelope.h"
#include "transport/frame.h"
#include "transport/peer_stream.h"

namespace tolk {

// A call that the peer made, taken out of its frame: what a worker needs to answer it.
struct IncomingCall {
  // `owner`: of the message that the envelope was read from; without one its bytes are copied.
  IncomingCall(const Envelope& envelope, const std::shared_ptr<const void>& owner);

  std::string name;
  std::optional<SharedBytes> arguments;  // encoded
  std::optional<int> call_id;
  std::optional<std::string> token;
};

class PlainReceiver {
 public:
  virtual ~PlainReceiver() = default;

  void receive(PeerStream& stream, const SharedBytes& payload) TOLK_LOOP;

  // Whether a message counts up to its first malformed record.
  virtual bool accepts_malformed() const = 0;
  virtual void on_message_without_name() TOLK_LOOP = 0;
  virtual void on_reply(const Envelope& envelope, const SharedBytes& payload) TOLK_LOOP = 0;
  // True when the side has answered the call on the loop thread. Otherwise a worker runs it.
  virtual bool answers_on_loop(PeerStream&, const Envelope&) TOLK_LOOP { return false; }
  // Runs the call and builds the reply. None: the call is dropped.
  virtual std::optional<Frame> answer(int peer, IncomingCall& call) TOLK_WORKER = 0;
};

}  // namespace tolk
