// Calls from the host to the server.
#include <mutex>
#include <string_view>

#include "client/core.h"
#include "platform/process.h"
#include "platform/static_mutex.h"
#include "transport/call_road.h"
#include "transport/pause_point.h"

namespace tolk {
namespace {

// On purpose held by SendMsg and PostMsg for their whole run, the wait for the answer included: one
// of them at a time runs in the process. The Fast forms don't take it.
constinit platform::StaticMutex call_lock;

// A hook does not wait for its turn: who has it may be waiting for the very loop that the hook is
// holding up.
std::unique_lock<platform::StaticMutex> take_turn() {
  return LoopSession::on_a_loop_thread() ? std::unique_lock<platform::StaticMutex>()
                                         : std::unique_lock<platform::StaticMutex>(call_lock);
}

Call call_to_server(const char* name, const TolkParams* params, int threadid) {
  Call call;
  call.name = name == nullptr ? "" : name;
  call.arguments = encoded(params);
  call.call_id = call_id_or_own(threadid);
  return call;
}

}  // namespace

// In a forked child nothing waits, for a lock neither: the thread that held it is not there.
bool ClientCore::of_this_process() const { return process_ == platform::generation(); }

bool ClientCore::isok() const { return connected && of_this_process(); }

// Asked in this order: a session is there before anybody can see the client as connected.
std::shared_ptr<ClientSession> ClientCore::connected_session() const {
  return isok() ? session() : nullptr;
}

void ClientCore::log_disconnected() { logger.plain("send msg: disconnect... .. .\n"); }

TolkParams* ClientCore::SendMsg(const char* name, const TolkParams* params, int threadid,
                                std::uint32_t timeout_ms) {
  if (!of_this_process()) {
    log_disconnected();
    return nullptr;
  }
  const auto turn = take_turn();
  TOLK_PAUSE_POINT("call.has_turn");
  if (destroyed_) return nullptr;
  return SendMsgFast(name, params, threadid, timeout_ms);
}

TolkParams* ClientCore::SendMsgFast(const char* name, const TolkParams* params, int threadid,
                                    std::uint32_t timeout_ms) {
  const auto road = connected_session();
  if (!road) {
    log_disconnected();
    return nullptr;
  }
  TOLK_PAUSE_POINT("call.after_connected");
  const Call call = call_to_server(name, params, threadid);
  call_and_wait(*road, client_waits(), results, OldResult::drop, call, timeout_ms);
  TOLK_PAUSE_POINT("call.before_result");
  return destroyed_ ? nullptr : results.find(call.call_id);
}

void ClientCore::PostMsg(const char* name, const TolkParams* params, int threadid) {
  if (!of_this_process()) return log_disconnected();
  const auto turn = take_turn();
  if (!destroyed_) PostMsgFast(name, params, threadid);
}

void ClientCore::PostMsgFast(const char* name, const TolkParams* params, int threadid) {
  const auto road = connected_session();
  if (!road) return log_disconnected();
  TOLK_PAUSE_POINT("post.after_connected");
  post_and_go(*road, call_to_server(name, params, threadid));
}

void ClientCore::clear_results() {
  results.clear();
  large_results.clear();
}

}  // namespace tolk
