// One connection attempt of a client and the connection that comes of it.
//
// Thread: the loop thread, but for what LoopSession lets others do.
// Owner: the core and the loop thread; the core outlives the session's thread.
// Failure: a failed attempt prints its lines, closes what it opened and ends the session.
#pragma once

#include <uv.h>

#include <memory>
#include <string_view>

#include "transport/call_road.h"
#include "transport/endpoint.h"
#include "transport/envelope.h"
#include "transport/frame_reader.h"
#include "transport/incoming_call.h"

namespace tolk {

class ClientCore;

class ClientSession final : public FrameRoad {
 public:
  // Period of the time-out sweep and the delay of the first one.
  static constexpr unsigned kSweepStepMs = 100;
  static constexpr unsigned kFirstSweepMs = 500;

  ClientSession(ClientCore& core, Endpoint where);

  void body();
  bool deliver(int peer, Frame frame) override;
  // The host's close, on the loop thread.
  void close_by_host();
  // What hooks and handlers see as their id: the address of the stream's handle, cut to 32 bits.
  int connection_id() const;
  // No memory to answer the server with: the connection can't go on.
  void end_unanswered();
  uv_stream_t* stream() { return &stream_.stream; }
  // Any thread, like the waits: asks the loop thread to close.
  void request_close();

 private:
  static void on_connect(uv_connect_t* request, int status);
  static void onReadCb(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer);
  static void sendmsg_timeout_cb(uv_timer_t* timer);

  bool connect() TOLK_REQUIRES(this);
  int init_stream() TOLK_REQUIRES(this);
  int start_connecting() TOLK_REQUIRES(this);
  int start_connecting_tcp() TOLK_REQUIRES(this);
  bool server_is_trusted() const TOLK_REQUIRES(this);
  bool go_live() TOLK_REQUIRES(this);
  bool start_sweep() TOLK_REQUIRES(this);
  bool tcp4_step_failed(int status, const char* line) const;
  void end_failed() TOLK_REQUIRES(this);
  void run_connected() TOLK_REQUIRES(this);

  void onRead(ssize_t count, const char* bytes);
  void server_closed();
  void run_closed_hooks();
  void DoQueueWork(std::string_view payload);
  void take_reply(const Envelope& envelope, std::string_view payload);
  bool is_tcp() const { return where_.transport != Transport::pipe; }

  ClientCore& core_;
  const Endpoint where_;
  union {
    uv_handle_t handle;
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp;
  } stream_ TOLK_GUARDED_BY(this){};
  uv_connect_t request_ TOLK_GUARDED_BY(this){};
  uv_timer_t sweep_ TOLK_GUARDED_BY(this){};
  bool decided_ TOLK_GUARDED_BY(this) = false;
  bool connected_ TOLK_GUARDED_BY(this) = false;
  FrameReader reader_ TOLK_GUARDED_BY(this);
};

}  // namespace tolk
