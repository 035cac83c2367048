// What all threads of one client share. Lives as long as any of them uses it.
//
// Owner: references are held by the facade (TolkClient), the loop thread, every operation under way
// and every work item. Nothing here is freed while one of them is left.
// Thread: each operation says so by its place: calls, connect and close are host threads',
// "loop" is the session's own thread, "worker" a libuv worker.
// Locks, outermost first: lifecycle, the process's SendMsgEx lock, the process's call lock; then
// leaves (see docs/threads.md). No host code runs under a leaf.
#pragma once

#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "client/large_wait.h"
#include "client/session.h"
#include "transport/endpoint.h"
#include "transport/logger.h"
#include "transport/method_registry.h"
#include "transport/result_table.h"
#include "transport/thread_safety.h"

namespace tolk {

class ClientCore : public std::enable_shared_from_this<ClientCore> {
 public:
  ClientCore();  // register_builtins comes next, once the core has its first reference
  ~ClientCore();
  void register_builtins();

  // Host.
  bool connect(Endpoint where);
  void close();
  void closeClient();
  // The facade is gone: calls that return from now on find no result.
  void abandon();
  bool isok() const;
  bool CheckServer();

  TolkParams* SendMsg(const char* name, const TolkParams* params, int threadid,
                      std::uint32_t timeout_ms);
  TolkParams* SendMsgFast(const char* name, const TolkParams* params, int threadid,
                          std::uint32_t timeout_ms);
  void PostMsg(const char* name, const TolkParams* params, int threadid);
  void PostMsgFast(const char* name, const TolkParams* params, int threadid);
  TolkParams* SendMsgEx(const char* name, TolkParams* params, int threadid);
  bool SendMsgLargeData(const char* name, TolkParams* params, int threadid,
                        std::uint32_t timeout_ms);
  void clear_results();

  // Worker.
  // Runs one call from the server, whose arguments move out. False when there is no such method:
  // nothing was added then.
  bool DoTask(IncomingCall& call, int connection_id, TolkParams* out);

  // Loop; closeClient also runs it.
  // Wakes every waiting call of the process and releases the handlers.
  void ClearMem();

  Logger logger;
  MethodRegistry methods;
  ResultTable results{client_result_lock()};
  ResultTable large_results{client_result_lock()};
  // Written by the current session alone.
  std::atomic<bool> connected{false};
  std::atomic<bool> custom_release{false};
  // On purpose for the client's whole life: the sweep of time-outs runs in its first session only.
  std::atomic<bool> sweep_started{false};

 private:
  std::shared_ptr<ClientSession> session() const { return *session_.lock(); }
  std::shared_ptr<ClientSession> connected_session() const;
  bool of_this_process() const;
  bool attempt(Endpoint where);
  void log_disconnected();

  bool send_large(std::string_view block, int header_id, int call_id, std::uint32_t timeout_ms,
                  const std::function<void()>& all_read);

  const std::uint32_t process_;
  std::mutex lifecycle_;
  Guarded<std::shared_ptr<ClientSession>> session_;
  std::atomic<bool> destroyed_{false};
};

}  // namespace tolk
