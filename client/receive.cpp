// Receiving: replies and calls from the server.
#include <optional>
#include <utility>

#include "client/client_side.h"
#include "params/content.h"
#include "platform/standard_output.h"
#include "sessions/outgoing_call.h"

namespace tolk {

// Loop.

void ClientSide::on_message_without_name() { platform::print_line("event empty!"); }

void ClientSide::on_reply(const Envelope& envelope, const SharedBytes& payload) {
  take_reply(client_waits(), results, envelope, payload);
}

void ClientSide::on_reply_refused() { logger.plain("write data error\n"); }

// Worker.

std::optional<Frame> ClientSide::answer(int peer, IncomingCall& call) {
  const MethodRef method = methods.acquire(call.name);
  if (!method) return no_method_frame();
  TolkParams arguments;
  TolkParams out;
  if (call.arguments) {
    TolkParamsAccess::parse_shared(arguments, *std::exchange(call.arguments, std::nullopt));
  }
  logger.run_handler(call.name, method, [&] { method->callback(peer, &arguments, &out); });
  return client_reply_frame(TolkParamsAccess::take_bytes(out), call.call_id, call.token);
}

}  // namespace tolk
