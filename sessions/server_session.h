// A server's listening and all its connections.
//
// Thread: the loop thread, except what Session offers to others.
// Owner: the side and the loop thread. The session keeps every connection that it accepted until
// its own end, closed ones too: an address, and so a client id, never comes back during a server's
// life. A side that has ids of its own may have them forgotten instead: keeps_connections.
// Failure: a listen that fails closes what it opened and ends the session.
#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/inherited_socket.h"
#include "platform/pipe_name.h"
#include "sessions/events.h"
#include "sessions/session.h"

namespace tolk {

class ServerSession final : public Session {
 public:
  ServerSession(ServerEvents& side, Endpoint where);
  ~ServerSession() override;

  // In listen.cpp: the loop thread's life, in two halves for a host that runs the loop itself.
  bool listen() TOLK_LOOP;
  void serve() TOLK_LOOP;
  bool is_tcp() const { return is_tcp_; }
  // Of a session that listens: what it is bound to, with the port that the system chose for port 0.
  // The name of an inherited pipe is its path.
  Endpoint bound_address() const TOLK_LOOP;
  // Of a live session: takes no further connections and gives up its address. Has no effect the
  // second time.
  void stop_listening() TOLK_LOOP;
  // An open connection; null if there is none of that id.
  PeerStream* find(int id) TOLK_LOOP {
    const auto found = open_by_id_.find(id);
    return found == open_by_id_.end() ? nullptr : found->second;
  }

  ServerEvents& side() override { return side_; }
  bool deliver(int peer, Frame frame) TOLK_LOOP override;
  bool begins_calls() const override { return takes_messages(); }
  void on_first_read(PeerStream& stream) TOLK_LOOP override { side_.on_first_read(stream.id()); }
  void on_stream_end(PeerStream& stream, int status) TOLK_LOOP override;

  // In close.cpp: carries out a close() that was asked for. `answered`: the connection that asked
  // for it, which stays open until its reply has arrived.
  void close_here(PeerStream* answered) TOLK_LOOP;

 private:
  static constexpr int kBacklog = 2147483647;

  // listen.cpp
  void body() TOLK_LOOP override;
  const char* kind() const override { return "server"; }
  bool open_listener() TOLK_LOOP;
  int bind_pipe() TOLK_LOOP;
  bool bind_tcp() TOLK_LOOP;
  int open_inherited() TOLK_LOOP;
  int open_duplicate() TOLK_LOOP;
  void note_bound_address() TOLK_LOOP;
  void release_address() TOLK_LOOP;
  void remove_file(const std::string& path) TOLK_LOOP;
  bool failed(const char* step, int status) TOLK_LOOP;

  // accept.cpp
  static void on_connection_cb(uv_stream_t* listener, int status);
  static void on_turned_away(uv_handle_t* handle);
  static void forget(uv_handle_t* closed);
  void on_connection(int status) TOLK_LOOP;
  PeerStream& new_connection() TOLK_LOOP;
  int accept(PeerStream& connection) TOLK_LOOP;
  bool refused(PeerStream& connection) TOLK_LOOP;
  void take_connection(PeerStream& connection) TOLK_LOOP;
  void end_connection(PeerStream& connection, int status) TOLK_LOOP;
  void remove_connection(PeerStream& connection, int status) TOLK_LOOP;
  void close_connection(PeerStream& connection) TOLK_LOOP;
  void turn_away() TOLK_LOOP;

  // descriptor_shortage.cpp
  static bool is_shortage(int status);
  static void on_listener_closed(uv_handle_t* listener);
  static void on_pause_over(uv_timer_t* timer);
  void on_no_descriptor() TOLK_LOOP;
  void pause_listening() TOLK_LOOP;
  int listen_again() TOLK_LOOP;

  // close.cpp
  static void on_drained(uv_shutdown_t* request, int status);
  static void on_drain_limit(uv_timer_t* timer);
  void carry_out_ending() TOLK_LOOP override;
  void on_broken_off() TOLK_LOOP override;
  void close_async_here() TOLK_LOOP;
  void drain(PeerStream& answered) TOLK_LOOP;
  void on_drained_end(PeerStream& stream, int status) TOLK_LOOP;

  ServerEvents& side_;
  const Endpoint where_;
  bool is_tcp_;  // an inherited socket says it before the session is live
  StreamHandle listener_ TOLK_GUARDED_BY(loop_role);
  platform::PipeNameLock name_lock_ TOLK_GUARDED_BY(loop_role);
  platform::InheritedSocket inherited_ TOLK_GUARDED_BY(loop_role);
  // All that were accepted and not forgotten; the open ones, in the order of accept; the open ones
  // by id.
  std::vector<std::unique_ptr<PeerStream>> all_ TOLK_GUARDED_BY(loop_role);
  std::vector<PeerStream*> open_ TOLK_GUARDED_BY(loop_role);
  std::unordered_map<int, PeerStream*> open_by_id_ TOLK_GUARDED_BY(loop_role);
  // For a connection that there is no memory for. It is accepted and closed: as long as it waited,
  // libuv would not look at the next one.
  StreamHandle turned_away_ TOLK_GUARDED_BY(loop_role);
  bool turning_away_ TOLK_GUARDED_BY(loop_role) = false;
  int waiting_count_ TOLK_GUARDED_BY(loop_role) = 0;  // for the same
  // What the listener was bound to; one that opens again takes the same.
  sockaddr_storage bound_address_ TOLK_GUARDED_BY(loop_role){};
  std::string bound_path_ TOLK_GUARDED_BY(loop_role);
  uv_timer_t listening_pause_ TOLK_GUARDED_BY(loop_role){};
  bool listening_ended_ TOLK_GUARDED_BY(loop_role) = false;
  std::uint64_t no_descriptor_at_ TOLK_GUARDED_BY(loop_role) = 0;  // the loop's time
  int no_descriptor_count_ TOLK_GUARDED_BY(loop_role) = 0;         // at that time
  uv_timer_t drain_limit_ TOLK_GUARDED_BY(loop_role){};
  bool peer_has_ended_ TOLK_GUARDED_BY(loop_role) = false;  // the one that is drained
};

}  // namespace tolk
