// A server's listening and all its connections.
//
// Thread: the loop thread, but for what LoopSession lets others do.
// Owner: the core and the loop thread; the core outlives the session's thread.
// Failure: a listen that fails prints its line, closes what it opened and ends the session.
#pragma once

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/pipe_name.h"
#include "server/connection.h"
#include "transport/call_road.h"
#include "transport/endpoint.h"
#include "transport/envelope.h"

namespace tolk {

class ServerCore;

class ServerSession final : public FrameRoad {
 public:
  ServerSession(ServerCore& core, Endpoint where);
  ~ServerSession() override;

  void body();
  bool listen() TOLK_REQUIRES(this);
  void serve();
  bool deliver(int peer, Frame frame) override;
  // Any thread: asks the loop thread to stop, the first time it is asked, and needs no memory.
  enum class Stop { none, for_close, for_closeasync, abandoned };
  void request_stop(Stop how);
  void stop_for_close(Connection* answered);
  // No memory to answer this client with: its connection can't go on.
  void end_unanswered(Connection& connection);
  void set_sweep_step(int ms);
  // A reply that becomes ready after `close` is dropped without a word.
  bool drops_replies() const TOLK_REQUIRES(this) { return drops_replies_; }
  bool is_tcp() const { return where_.transport != Transport::pipe; }

 private:
  static constexpr int kBacklog = 2147483647;

  static void on_connection_cb(uv_stream_t* listener, int status);
  static void forget(uv_handle_t* refused);
  static void onReadCb(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer);
  static void on_answer_written(uv_write_t* request, int status);
  static void on_answer_limit(uv_timer_t* timer);
  static void timeout_sweep_cb(uv_timer_t* timer);

  bool open_listener() TOLK_REQUIRES(this);
  int bind_pipe() TOLK_REQUIRES(this);
  int init_tcp() TOLK_REQUIRES(this);
  void remove_file(const std::string& path) TOLK_REQUIRES(this);
  int parse_address(sockaddr_storage* address) const;
  bool failed(const char* step, int status);
  void run_createport_hook();
  void end_failed() TOLK_REQUIRES(this);

  void stop_as_requested();
  void stop_for_closeasync();
  void on_connection(int status);
  static bool is_shortage(int status);
  void on_no_descriptor() TOLK_REQUIRES(this);
  void pause_listening() TOLK_REQUIRES(this);
  static void on_listener_closed(uv_handle_t* listener);
  static void on_pause_over(uv_timer_t* timer);
  int listen_again() TOLK_REQUIRES(this);
  void take_connection(Connection& connection) TOLK_REQUIRES(this);
  void turn_away();
  static void on_turned_away(uv_handle_t* handle);
  Connection& new_connection() TOLK_REQUIRES(this);
  int init_stream(uv_handle_t* handle) TOLK_REQUIRES(this);
  int accept(Connection& connection) TOLK_REQUIRES(this);
  bool refused(Connection& connection) TOLK_REQUIRES(this);
  void log_accepted(const Connection& connection) TOLK_REQUIRES(this);
  void call_hook(const char* name, int client_id);

  void on_read(Connection& connection, ssize_t count, const char* bytes);
  void mark_active(Connection& connection);
  void on_message(Connection& connection, std::string_view payload);
  void take_reply(const Envelope& envelope, std::string_view payload);
  void answer_close_request(Connection& connection, const Envelope& envelope);
  void connection_end(Connection& connection, ssize_t status);
  void end_guarded(Connection& connection, ssize_t status);
  bool start_sweep() TOLK_REQUIRES(this);
  void keep_for_answer() TOLK_REQUIRES(this);

  ServerCore& core_;
  const Endpoint where_;
  union {
    uv_handle_t handle;
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp;
  } listener_ TOLK_GUARDED_BY(this){};
  // For a connection that there is no memory for. It is taken and hung up on: as long as it waited,
  // libuv would not look at the next one.
  union {
    uv_handle_t handle;
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp;
  } turned_away_ TOLK_GUARDED_BY(this){};
  bool turning_away_ TOLK_GUARDED_BY(this) = false;
  int waiting_count_ TOLK_GUARDED_BY(this) = 0;  // for the same
  platform::PipeNameLock name_lock_ TOLK_GUARDED_BY(this);
  uv_timer_t sweep_ TOLK_GUARDED_BY(this){};
  uv_timer_t answer_limit_ TOLK_GUARDED_BY(this){};
  uv_timer_t listening_pause_ TOLK_GUARDED_BY(this){};
  // What the listener was bound to; one that opens again takes the same.
  sockaddr_storage bound_address_ TOLK_GUARDED_BY(this){};
  std::string bound_path_ TOLK_GUARDED_BY(this);
  std::uint64_t no_descriptor_at_ TOLK_GUARDED_BY(this) = 0;  // the loop's time
  int no_descriptor_count_ TOLK_GUARDED_BY(this) = 0;         // at that time
  bool sweep_started_ TOLK_GUARDED_BY(this) = false;
  bool serving_ TOLK_GUARDED_BY(this) = false;
  bool drops_replies_ TOLK_GUARDED_BY(this) = false;
  std::atomic<Stop> stop_request_{Stop::none};
  // Every one that was let in; the open ones, in the order of accept; the open ones by id.
  std::vector<std::unique_ptr<Connection>> all_ TOLK_GUARDED_BY(this);
  std::vector<Connection*> connections_ TOLK_GUARDED_BY(this);
  std::unordered_map<int, Connection*> connection_by_id_ TOLK_GUARDED_BY(this);
};

}  // namespace tolk
