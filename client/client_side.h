// A client of the required interface: what all its threads share. It decides what is printed,
// called and returned; its sessions tell it what happened.
//
// Thread: as said at each group. Locks, outermost first: lifecycle, the process's SendMsgEx lock,
// the process's call lock; then leaves (see docs/threads.md). No host code runs under a leaf.
// Owner: references are held by the facade (TolkClient), the loop thread, every operation under way
// and every work item. Nothing here is freed while one of them is left.
#pragma once

#include <tolk/TolkParams.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "client/large_wait.h"
#include "sessions/client_session.h"
#include "transport/logger.h"
#include "transport/method_registry.h"
#include "transport/plain_receiver.h"
#include "transport/result_table.h"
#include "transport/sweep_timer.h"
#include "transport/thread_safety.h"

namespace tolk {

class ClientSide final : public ClientEvents, private PlainReceiver {
 public:
  ClientSide();  // register_builtins comes next, once there is a first reference
  void register_builtins();

  // Host.
  bool connect(Endpoint where);
  void close();
  void closeClient();
  // The facade is gone: calls that return from now on find no result.
  void abandon();
  bool isok() const;

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
  // What isok() says until the next change of phase.
  void write_server(int status);

  // Wakes every waiting call of the process and releases the handlers.
  void ClearMem();

  Logger logger;
  MethodRegistry methods;
  ResultTable results{client_result_lock()};
  ResultTable large_results{client_result_lock()};
  std::atomic<bool> custom_release{false};

 private:
  // Set by write_server.
  enum class StatusOverride { none, connected, disconnected };

  // Host.
  bool attempt(Endpoint where);
  bool CheckServer();
  std::shared_ptr<ClientSession> session() const { return *session_.lock(); }
  std::shared_ptr<ClientSession> connected_session() const;
  bool is_connected(const ClientSession* current) const;
  bool of_this_process() const;
  void log_disconnected();
  bool send_large(std::string_view block, int header_id, int call_id, std::uint32_t timeout_ms,
                  const std::function<void()>& all_read);

  // Messages (receive.cpp).
  void on_message(PeerStream& stream, SharedBytes payload) TOLK_LOOP override {
    receive(stream, payload);
  }
  bool accepts_malformed() const override { return false; }
  void on_message_without_name() TOLK_LOOP override;
  void on_reply(const Envelope& envelope, const SharedBytes& payload) TOLK_LOOP override;
  std::optional<Frame> answer(int peer, IncomingCall& call) TOLK_WORKER override;
  void on_reply_refused() TOLK_LOOP override;

  // Life (connect.cpp, close.cpp).
  void on_starting(const Endpoint& where) TOLK_LOOP override;
  void on_setup_failed(const Endpoint& where, SetupStep step) TOLK_LOOP override;
  void on_server_refused(const std::string& user) TOLK_LOOP override;
  bool on_connected(uv_loop_t* loop, const Endpoint& where) TOLK_LOOP override;
  void on_server_gone(int id) TOLK_LOOP override;
  void on_lost() TOLK_LOOP override;
  void on_closing() TOLK_LOOP override;
  void on_closed() TOLK_LOOP override;
  void on_run_out(const Endpoint& where) TOLK_LOOP override;
  void on_broken_off() TOLK_LOOP override;
  bool begins_calls_when_lost() const override { return !custom_release; }
  void call_closed_hooks(int id) TOLK_LOOP;

  const std::uint32_t process_;
  std::mutex lifecycle_;
  Guarded<std::shared_ptr<ClientSession>> session_;
  std::atomic<StatusOverride> status_override_{StatusOverride::none};
  std::atomic<bool> destroyed_{false};
  // On purpose for the client's whole life: timeouts are swept in its first session only.
  SweepTimer sweep_{client_waits()};
};

}  // namespace tolk
