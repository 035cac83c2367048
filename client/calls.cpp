// Calls from the host to the server.
#include <mutex>

#include "client/client_side.h"
#include "platform/static_mutex.h"
#include "sessions/outgoing_call.h"

namespace tolk {
namespace {

// On purpose held by SendMsg and PostMsg for their whole run, the wait for the reply included: one
// of them at a time runs in the process. The Fast forms do not take it.
constinit platform::StaticMutex call_lock;

// A hook does not wait for its turn: the thread that has it may wait for the very loop that the
// hook holds up.
std::unique_lock<platform::StaticMutex> take_turn() {
  return Session::on_a_loop_thread() ? std::unique_lock<platform::StaticMutex>()
                                     : std::unique_lock<platform::StaticMutex>(call_lock);
}

}  // namespace

std::shared_ptr<ClientSession> ClientSide::connected_session() const {
  auto current = of_this_process() ? session() : nullptr;
  return is_connected(current.get()) ? current : nullptr;
}

void ClientSide::log_disconnected() { logger.plain("send msg: disconnect... .. .\n"); }

TolkParams* ClientSide::SendMsg(const char* name, const TolkParams* params, int threadid,
                                std::uint32_t timeout_ms) {
  if (!of_this_process()) {
    log_disconnected();
    return nullptr;
  }
  const auto turn = take_turn();
  if (destroyed_) return nullptr;
  return SendMsgFast(name, params, threadid, timeout_ms);
}

TolkParams* ClientSide::SendMsgFast(const char* name, const TolkParams* params, int threadid,
                                    std::uint32_t timeout_ms) {
  const auto current = connected_session();
  if (!current) {
    log_disconnected();
    return nullptr;
  }
  const OutgoingCall call(0, name, params, threadid);
  call_and_wait(*current, client_waits(), results, OldResult::drop, call, timeout_ms);
  return destroyed_ ? nullptr : results.find(call.call_id);
}

void ClientSide::PostMsg(const char* name, const TolkParams* params, int threadid) {
  if (!of_this_process()) return log_disconnected();
  const auto turn = take_turn();
  if (!destroyed_) PostMsgFast(name, params, threadid);
}

void ClientSide::PostMsgFast(const char* name, const TolkParams* params, int threadid) {
  const auto current = connected_session();
  if (!current) return log_disconnected();
  post_call(*current, OutgoingCall(0, name, params, threadid));
}

void ClientSide::clear_results() {
  results.clear();
  large_results.clear();
}

}  // namespace tolk
