// One connection attempt of a client and the connection that comes of it.
//
// Thread: the loop thread, except what Session offers to others and ask_for_close.
// Owner: the side and the loop thread.
// Failure: a failed attempt closes what it opened and ends the session.
#pragma once

#include <uv.h>

#include <optional>
#include <string>

#include "sessions/events.h"
#include "sessions/session.h"

namespace tolk {

class ClientSession final : public Session {
 public:
  ClientSession(ClientEvents& side, Endpoint where);

  ClientEvents& side() override { return side_; }
  bool deliver(int peer, Frame frame) TOLK_LOOP override;
  bool begins_calls() const override;
  void on_stream_end(PeerStream& stream, int status) TOLK_LOOP override;

  // Any thread: asks the loop thread to close.
  void ask_for_close();
  // What hooks and handlers see as their id.
  int connection_id() const { return stream_.id(); }
  PeerStream& stream() { return stream_; }

 private:
  static void on_connect(uv_connect_t* request, int status);
  static void on_connect_limit(uv_timer_t* timer);

  void body() TOLK_LOOP override;
  const char* kind() const override { return "client"; }
  // 0, or why the attempt failed.
  int attempt() TOLK_LOOP;
  int connect() TOLK_LOOP;
  int limit_connecting() TOLK_LOOP;
  int failed(int status, ClientEvents::SetupStep step) TOLK_LOOP;
  int start_connecting() TOLK_LOOP;
  int start_connecting_tcp() TOLK_LOOP;
  bool server_is_trusted() TOLK_LOOP;
  int go_live() TOLK_LOOP;

  // In close.cpp.
  void carry_out_ending() TOLK_LOOP override;
  void on_broken_off() TOLK_LOOP override;

  ClientEvents& side_;
  const Endpoint where_;
  PeerStream stream_;
  uv_connect_t request_ TOLK_GUARDED_BY(loop_role){};
  uv_timer_t connect_limit_ TOLK_GUARDED_BY(loop_role){};
  std::optional<int> connect_status_ TOLK_GUARDED_BY(loop_role);
};

}  // namespace tolk
