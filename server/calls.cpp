// Calls from the host to one client.
#include "server/server_side.h"
#include "sessions/outgoing_call.h"
#include "transport/reserved_names.h"

namespace tolk {

// Host.

std::shared_ptr<ServerSession> ServerSide::running_session() const {
  auto current = of_this_process() ? session() : nullptr;
  return current && current->takes_messages() ? current : nullptr;
}

void ServerSide::log_disconnected() { logger.plain("send msg: disconnect... .. .\n"); }

// On purpose: without a reply the result is what an earlier reply left under the call id.
TolkParams* ServerSide::SendMsg(int clientid, const char* name, const TolkParams* params,
                                int threadid, std::uint32_t timeout_ms) {
  const auto current = running_session();
  if (!current) {
    log_disconnected();
    return nullptr;
  }
  const OutgoingCall call(clientid, name, params, threadid);
  call_and_wait(*current, server_waits(), results, OldResult::keep, call, timeout_ms);
  return destroyed_ ? nullptr : results.find(call.call_id);
}

void ServerSide::PostMsg(int clientid, const char* name, const TolkParams* params, int threadid) {
  const auto current = running_session();
  if (!current) return log_disconnected();
  post_call(*current, OutgoingCall(clientid, name, params, threadid));
}

void ServerSide::SetTimeoutStep(int ms) {
  timeout_step_ms_ = ms < 1 ? static_cast<int>(SweepTimer::kStepMs) : ms;
  const auto current = running_session();
  if (!current) return;
  current->post(make_task([this, step = static_cast<unsigned>(timeout_step_ms_)] {
    enter_loop();
    sweep_.set_step(step);
  }));
}

// A handler named "s_c_log" is the sink of the log lines instead.
void ServerSide::method(const char* name, IServerMethod* handler) {
  if (name != nullptr && std::string_view(name) == kHookLog) {
    logger.set_sink(methods.refer_to(handler));
  } else {
    methods.replace(name, handler);
  }
}

// Loop.

// On purpose timeouts are swept from the first delivery on, not before.
bool ServerSide::on_delivery() { return sweep_.start(static_cast<unsigned>(timeout_step_ms_)); }

}  // namespace tolk
