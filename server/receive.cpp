// Receiving: calls and replies from clients.
#include <tolk/TolkValue.h>

#include <optional>
#include <string>
#include <utility>

#include "params/content.h"
#include "platform/standard_output.h"
#include "server/server_side.h"
#include "sessions/outgoing_call.h"
#include "transport/reserved_names.h"

namespace tolk {

// Loop.

void ServerSide::on_message_without_name() { platform::print_line("event empty!"); }

void ServerSide::on_reply(const Envelope& envelope, const SharedBytes& payload) {
  take_reply(server_waits(), results, envelope, payload);
}

// A client's request to close is answered before it is carried out.
bool ServerSide::answers_on_loop(PeerStream& stream, const Envelope& envelope) {
  if (envelope.name != kMethodCloseServer) return false;
  TolkParams yes;
  yes.AddBool(true);
  const int status = stream.write(server_reply_frame(TolkParamsAccess::take_bytes(yes),
                                                     envelope.call_id.value_or(0), std::nullopt));
  close(status < 0 ? nullptr : &stream);
  return true;
}

// Worker.

std::optional<Frame> ServerSide::answer(int peer, IncomingCall& call) {
  TolkParams arguments;
  TolkParams out;
  if (call.arguments) {
    TolkParamsAccess::parse_shared(arguments, *std::exchange(call.arguments, std::nullopt));
  }
  if (!dispatch(peer, call.name, &arguments, &out)) return std::nullopt;
  return server_reply_frame(TolkParamsAccess::take_bytes(out), call.call_id, call.token);
}

bool ServerSide::dispatch(int client_id, const std::string& name, TolkParams* arguments,
                          TolkParams* out) {
  if (name == kMethodVersion) {
    answer_version_check(arguments, out);
    return true;
  }
  const MethodRef method = methods.acquire(name);
  if (!method) return dispatch_unknown(client_id, name, arguments, out);
  logger.run_handler(name, method, [&] { method->callback(client_id, arguments, out); });
  return true;
}

// On purpose the text is added also after what the catch-all has answered; a method that the
// catch-all has registered is called in the same dispatch. A call for what a closing server keeps
// for its host is dropped.
bool ServerSide::dispatch_unknown(int client_id, const std::string& name, TolkParams* arguments,
                                  TolkParams* out) {
  if (methods.refuses_known(name)) return false;
  call_catch_all(client_id, name, arguments, out);
  const MethodRef method = methods.acquire(name);
  if (!method) {
    answer_unknown(name, out);
  } else {
    logger.run_handler(name, method, [&] { method->callback(client_id, arguments, out); });
  }
  return true;
}

void ServerSide::call_catch_all(int client_id, const std::string& name, TolkParams* arguments,
                                TolkParams* out) {
  if (name == kHookClosed || name == kHookConnect) return;
  const AllRef all = methods.acquire_all();
  if (!all) return;
  logger.run_guarded(name, [&] { all->callback(name.c_str(), client_id, arguments, out); });
}

void ServerSide::answer_unknown(const std::string& name, TolkParams* out) {
  out->AddString(("no event: " + name).c_str());
}

void ServerSide::answer_version_check(TolkParams* arguments, TolkParams* out) {
  const TolkValue* const theirs = arguments->GetMap(kKeyVersion);
  const bool same = theirs != nullptr && theirs->IsString() && read::bytes(theirs) == kVersionText;
  out->AddBool(same);
  out->AddKeyValueString(kKeyVersion, kVersionText);
}

}  // namespace tolk
