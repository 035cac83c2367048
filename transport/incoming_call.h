// A call that the peer made, taken out of its frame: what a worker needs to answer it.
// Thread: one at a time. Owner: its own copies; the frame may go.
#pragma once

#include <optional>
#include <string>

#include "transport/envelope.h"

namespace tolk {

struct IncomingCall {
  explicit IncomingCall(const Envelope& envelope)
      : name(envelope.name.value_or("")),
        arguments(envelope.arguments),
        call_id(envelope.call_id),
        token(envelope.token) {}

  std::string name;
  std::optional<std::string> arguments;  // encoded
  std::optional<int> call_id;
  std::optional<std::string> token;
};

}  // namespace tolk
