// What all threads of one server share. Lives as long as any of them uses it.
//
// Owner: references are held by the facade (TolkServer), the loop thread, every operation under way
// and every work item.
// Thread: as said at each group. Locks: lifecycle outermost, then leaves (see docs/threads.md). No
// host code runs under a leaf.
#pragma once

#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "server/session.h"
#include "transport/endpoint.h"
#include "transport/logger.h"
#include "transport/method_registry.h"
#include "transport/result_table.h"
#include "transport/thread_safety.h"

namespace tolk {

class ServerCore : public std::enable_shared_from_this<ServerCore> {
 public:
  ServerCore();
  void register_builtins();

  // Host.
  bool start(Endpoint where);
  bool listen(Endpoint where);  // the calling thread becomes the loop thread
  bool run();
  void SetTimeoutStep(int ms);
  bool isok() const;
  TolkParams* SendMsg(int clientid, const char* name, const TolkParams* params, int threadid,
                      std::uint32_t timeout_ms);
  void PostMsg(int clientid, const char* name, const TolkParams* params, int threadid);
  bool closeasync();
  void method(const char* name, IServerMethod* handler);
  // The facade is gone: calls that return from now on find no result, and a start that is under way
  // does not leave a server that nobody could stop.
  void abandon();

  // Any thread. `answered`: the connection that asked for it, closed when its answer is written.
  void close(Connection* answered = nullptr);

  // Loop: the flags of a server that the wake-up has stopped.
  void end_by_closeasync();

  // Worker.
  // Runs one call; `out` takes the results without the envelope.
  void dispatch(int client_id, const std::string& name, TolkParams* arguments, TolkParams* out);
  void dispatch_large(int client_id, const std::string& name, TolkParams* arguments,
                      TolkParams* out);
  void send_large_result(int client_id, int call_id, TolkParams& result);

  Logger logger;
  MethodRegistry methods;
  ResultTable results{server_result_lock()};
  std::atomic<bool> running{false};
  std::atomic<bool> is_pipe{false};
  std::atomic<bool> custom_release{false};
  std::atomic<int> port{0};
  std::atomic<int> timeout_step_ms{kDefaultStepMs};
  std::atomic<int> client_count{0};

  static constexpr int kDefaultStepMs = 100;

 private:
  std::shared_ptr<ServerSession> session() const { return *session_.lock(); }
  std::shared_ptr<ServerSession> running_session() const;
  void log_disconnected();
  void answer_unknown(int client_id, const std::string& name, TolkParams* arguments,
                      TolkParams* out);

  void answer_version_check(TolkParams* arguments, TolkParams* out) const;

  const std::uint32_t process_;
  std::mutex lifecycle_;
  std::atomic<bool> stopped_{false};
  std::atomic<bool> destroyed_{false};
  Guarded<std::shared_ptr<ServerSession>> session_;
};

}  // namespace tolk
