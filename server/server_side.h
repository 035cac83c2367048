// A server of the required interface: what all its threads share. It decides what is printed,
// called and returned; its session tells it what happened.
//
// Thread: as said at each group. Locks: lifecycle outermost, then leaves (see docs/threads.md). No
// host code runs under a leaf.
// Owner: references are held by the facade (TolkServer), the loop thread, every operation under way
// and every work item. Nothing here is freed while one of them is left.
#pragma once

#include <tolk/TolkParams.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "sessions/server_session.h"
#include "transport/logger.h"
#include "transport/method_registry.h"
#include "transport/plain_receiver.h"
#include "transport/result_table.h"
#include "transport/sweep_timer.h"
#include "transport/thread_safety.h"

namespace tolk {

class ServerSide final : public ServerEvents, private PlainReceiver {
 public:
  ServerSide();  // register_builtins comes next, once there is a first reference
  void register_builtins();

  // Host.
  bool start(Endpoint where);
  bool listen(Endpoint where);  // the calling thread becomes the loop thread
  void run();
  void SetTimeoutStep(int ms);
  bool isok() const;
  TolkParams* SendMsg(int clientid, const char* name, const TolkParams* params, int threadid,
                      std::uint32_t timeout_ms);
  void PostMsg(int clientid, const char* name, const TolkParams* params, int threadid);
  void method(const char* name, IServerMethod* handler);
  void closeasync();
  // The facade is gone: nothing of the host is called any more, calls that return from now on find
  // no result, and a start that is under way does not leave a server that nobody could stop.
  void abandon();

  // Any thread. `answered`: the connection that asked for it.
  void close(PeerStream* answered = nullptr);

  // Worker. Runs one call; `out` takes the results without the envelope. False: the call is
  // dropped.
  bool dispatch(int client_id, const std::string& name, TolkParams* arguments, TolkParams* out);
  bool dispatch_large(int client_id, const std::string& name, TolkParams* arguments,
                      TolkParams* out);
  void send_large_result(int client_id, int call_id, TolkParams& result);

  Logger logger;
  MethodRegistry methods;
  ResultTable results{server_result_lock()};
  std::atomic<bool> is_pipe{false};
  std::atomic<bool> custom_release{false};
  std::atomic<int> port{0};
  std::atomic<int> client_count{0};

 private:
  // Host.
  std::shared_ptr<ServerSession> session() const { return *session_.lock(); }
  std::shared_ptr<ServerSession> running_session() const;
  bool of_this_process() const;
  void log_disconnected();

  // Messages (receive.cpp).
  void on_message(PeerStream& stream, SharedBytes payload) TOLK_LOOP override {
    receive(stream, payload);
  }
  bool accepts_malformed() const override { return true; }
  void on_message_without_name() TOLK_LOOP override;
  void on_reply(const Envelope& envelope, const SharedBytes& payload) TOLK_LOOP override;
  bool answers_on_loop(PeerStream& stream, const Envelope& envelope) TOLK_LOOP override;
  std::optional<Frame> answer(int peer, IncomingCall& call) TOLK_WORKER override;
  bool dispatch_unknown(int client_id, const std::string& name, TolkParams* arguments,
                        TolkParams* out);
  void call_catch_all(int client_id, const std::string& name, TolkParams* arguments,
                      TolkParams* out);
  static void answer_unknown(const std::string& name, TolkParams* out);
  static void answer_version_check(TolkParams* arguments, TolkParams* out);

  // Life (start.cpp, accept.cpp, close.cpp).
  void on_starting(const Endpoint& where) TOLK_LOOP override;
  void on_listen_failed(const char* step, int status) TOLK_LOOP override;
  bool on_listening(uv_loop_t* loop, const Endpoint& where) TOLK_LOOP override;
  void on_connection_error() TOLK_LOOP override;
  void on_connecting(int id) TOLK_LOOP override;
  void on_accept_failed() TOLK_LOOP override;
  void on_accepted(int id, bool is_tcp, int count) TOLK_LOOP override;
  void on_client_refused(const std::string& user) TOLK_LOOP override;
  void on_first_read(int id) TOLK_LOOP override;
  void on_client_gone(int id, int status) TOLK_LOOP override;
  void on_client_left(int id, bool had_read) TOLK_LOOP override;
  bool on_delivery() TOLK_LOOP override;
  void on_closing_async() TOLK_LOOP override;
  void on_closed_async() TOLK_LOOP override;
  void call_hook(const char* name, int client_id);

  const std::uint32_t process_;
  std::mutex lifecycle_;
  std::atomic<bool> destroyed_{false};
  std::atomic<int> timeout_step_ms_{SweepTimer::kStepMs};
  // Before the session: one that a host thread never ran closes its loop, and this timer with it,
  // when it is destroyed.
  SweepTimer sweep_{server_waits()};
  Guarded<std::shared_ptr<ServerSession>> session_;
};

}  // namespace tolk
