// Calls from the host to one client.
#include "platform/process.h"
#include "server/core.h"
#include "transport/frame_writer.h"
#include "transport/names.h"
#include "transport/pause_point.h"

namespace tolk {
namespace {

constexpr unsigned kFirstSweepMs = 500;

Call call_to_client(int client_id, const char* name, const TolkParams* params, int threadid) {
  Call call;
  call.peer = client_id;
  call.name = name == nullptr ? "" : name;
  call.arguments = encoded(params);
  call.call_id = call_id_or_own(threadid);
  return call;
}

}  // namespace

// Host.

bool ServerCore::isok() const { return running && process_ == platform::generation(); }

// Asked in this order: a session is there before anybody can see the server as running.
std::shared_ptr<ServerSession> ServerCore::running_session() const {
  return isok() ? session() : nullptr;
}

void ServerCore::log_disconnected() { logger.plain("send msg: disconnect... .. .\n"); }

// On purpose: without an answer the result is what an earlier answer left under the call id.
TolkParams* ServerCore::SendMsg(int clientid, const char* name, const TolkParams* params,
                                int threadid, std::uint32_t timeout_ms) {
  const auto road = running_session();
  if (!road) {
    log_disconnected();
    return nullptr;
  }
  TOLK_PAUSE_POINT("server_call.after_running");
  const Call call = call_to_client(clientid, name, params, threadid);
  call_and_wait(*road, server_waits(), results, OldResult::keep, call, timeout_ms);
  TOLK_PAUSE_POINT("server_call.before_result");
  return destroyed_ ? nullptr : results.find(call.call_id);
}

void ServerCore::PostMsg(int clientid, const char* name, const TolkParams* params, int threadid) {
  const auto road = running_session();
  if (!road) return log_disconnected();
  TOLK_PAUSE_POINT("server_post.after_running");
  post_and_go(*road, call_to_client(clientid, name, params, threadid));
}

void ServerCore::SetTimeoutStep(int ms) {
  timeout_step_ms = ms < 1 ? kDefaultStepMs : ms;
  const auto current = running_session();
  if (!current) return;
  current->post_function(
      [raw = current.get(), step = timeout_step_ms.load()] { raw->set_sweep_step(step); });
}

// A handler named "s_c_log" is the sink of the log lines instead.
void ServerCore::method(const char* name, IServerMethod* handler) {
  if (name != nullptr && std::string_view(name) == kHookLog) {
    logger.set_sink(methods.refer_to(handler));
  } else {
    methods.replace(name, handler);
  }
}

// Loop.

// On purpose only to clients that have sent something: one that is silent since its connect can't
// be called.
bool ServerSession::deliver(int peer, Frame frame) {
  check_loop_thread();
  if (!start_sweep()) return false;  // nobody would look after the time-out
  const auto at = connection_by_id_.find(peer);
  if (at == connection_by_id_.end() || !at->second->active) return false;
  write_frame(&at->second->stream, std::move(frame));
  return true;  // also when the stream refused: the caller then waits for its time-out
}

// Time-outs of the server's calls are looked after from its first hand-off on.
bool ServerSession::start_sweep() {
  if (sweep_started_) return true;
  const auto step = static_cast<std::uint64_t>(core_.timeout_step_ms.load());
  if (uv_timer_init(loop(), &sweep_) != 0) return false;
  sweep_started_ = uv_timer_start(&sweep_, timeout_sweep_cb, kFirstSweepMs, step) == 0;
  return sweep_started_;
}

void ServerSession::set_sweep_step(int ms) {
  check_loop_thread();
  if (sweep_started_) uv_timer_set_repeat(&sweep_, static_cast<std::uint64_t>(ms));
}

void ServerSession::timeout_sweep_cb(uv_timer_t*) { server_waits().sweep(); }

}  // namespace tolk
