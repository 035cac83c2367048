// How a session ends. [host] and [loop] name the thread; "the side" is client/ or server/.
//
// A host closes its client:
//   [host] close() enters close_asked, wakes the loop thread and waits for ended.
//   [loop] The side prints. Phase closed: the host still sees a connected client, so that only one
//          close runs, but nothing begins any more. Queued posts are refused, handles close.
// A client loses its server:
//   [loop] The side prints and calls the hooks; the client is still connected. Phase lost: it is
//          not. Queued posts are refused, handles close, all waiting calls wake. Calls that the
//          server had queued still begin.
// Either way:
//   [loop] The loop runs until its handles are closed; it does not wait for handlers. The side
//          waits 10 ms, wakes all calls and releases the handlers. Phase ended: close(), connect
//          and DestroyClient go on. The loop runs until no worker needs it, and is closed.
//
// A host closes its server:
//   [host] close() enters close_asked, releases the handlers, wakes the loop thread and waits for
//          ended, a second at most; then it enters closed itself, whatever the loop thread does.
//   [loop] Queued posts are refused; connections close in the order of their accept, then the
//          listener, then the rest. Phase closed, last of all: isok() is false when the address is
//          free. The end is as above, without the 10 ms; handlers are gone already.
// A host calls closeasync():
//   [host] It enters closeasync_asked, wakes the loop thread and sleeps 200 ms.
//   [loop] The side prints and refuses handlers from here on. Posts, handles and phase as above.
// A client asks with "s_c_close_server":
//   [loop] The side answers and calls close() here, which does not wait. The connection that asked
//          stays open: its writing side is shut down after the reply, and its input is read and
//          dropped until it ends, 200 ms at most. Closed with unread input, it would be reset, and
//          the reply lost.
//
// DestroyClient and DestroyServer close first. The side then ends what a start under way may still
// bring up. An attempt that fails goes from starting to ended. A loop thread that breaks off for
// lack of memory does the same at the end of its thread: finish_loop.
#include <cassert>

#include "platform/guarded.h"
#include "sessions/client_session.h"
#include "sessions/server_session.h"

namespace tolk {
namespace {

constexpr unsigned kDrainLimitMs = 200;

void close_unless_kept(uv_handle_t* handle, void* kept) {
  enter_loop();
  if (handle != kept) close_handle(handle);
}

void note_handle(uv_handle_t*, void* found) { *static_cast<bool*>(found) = true; }

}  // namespace

// All sessions.

void Session::close_all_handles(uv_handle_t* kept) {
  if (loop_open_) uv_walk(&loop_, close_unless_kept, kept);
}

bool Session::has_handles() {
  bool found = false;
  if (loop_open_) uv_walk(&loop_, note_handle, &found);
  return found;
}

void Session::run_until_handles_closed() {
  queue_.drain();
  while (has_handles()) {
    uv_run(&loop_, UV_RUN_ONCE);
    queue_.drain();
  }
}

void Session::finish() {
  enter(Phase::ended);
  linger_and_close_loop();
}

void Session::linger_and_close_loop() {
  if (!loop_open_) return;
  uv_run(&loop_, UV_RUN_DEFAULT);
  uv_loop_close(&loop_);
  loop_open_ = false;
}

// A session that has ended has nothing left to do here. One that had no memory to go on, or that a
// host thread listened for and never ran, still has all of it.
void Session::finish_loop() {
  adopt_this_thread();
  if (phase() != Phase::ended) {
    on_broken_off();
    close_queue();
    close_all_handles();
    run_until_handles_closed();
    finish();
  } else {
    linger_and_close_loop();
  }
  leave_thread();
}

// A client.

void ClientSession::carry_out_ending() {
  if (phase() != Phase::close_asked) return;
  side_.on_closing();
  enter(Phase::closed);
  close_queue();
  close_all_handles();
  side_.on_closed();
  stop_loop();
}

void ClientSession::on_stream_end(PeerStream&, int) {
  if (!takes_messages()) return;
  side_.on_server_gone(connection_id());
  [[maybe_unused]] const bool entered = enter(Phase::lost);
  assert(entered);
  close_queue();
  close_all_handles();
  side_.on_lost();
  stop_loop();
}

void ClientSession::on_broken_off() {
  if (phase() == Phase::starting) return;
  enter(Phase::lost);
  side_.on_broken_off();
}

// A server.

// The phase is closed already when the host's close() has given up waiting for this thread.
void ServerSession::carry_out_ending() {
  if (phase() == Phase::closeasync_asked) {
    close_async_here();
  } else {
    close_here(nullptr);
  }
}

// Connections in the order of their accept, then the listener, then what is left.
void ServerSession::close_here(PeerStream* answered) {
  side_.on_closing();
  close_queue();
  for (const auto& connection : all_) connection->mute();
  for (PeerStream* connection : open_) {
    if (connection != answered) connection->close();
  }
  open_.clear();
  close_handle(&listener_.handle);
  release_address();
  if (answered == nullptr) {
    close_all_handles();
  } else {
    drain(*answered);
  }
  stop_loop();
  enter(Phase::closed);
  side_.on_closed();
}

void ServerSession::drain(PeerStream& answered) {
  close_all_handles(&answered.handle().handle);
  drain_limit_.data = this;
  if (uv_timer_init(loop(), &drain_limit_) != 0 ||
      uv_timer_start(&drain_limit_, on_drain_limit, kDrainLimitMs, 0) != 0 ||
      answered.shut_down_writing(on_drained) != 0) {
    close_all_handles();
  }
}

// The reply is out. On a local pipe nothing can take it back any more; on TCP a reset could.
void ServerSession::on_drained(uv_shutdown_t* request, int status) {
  auto& stream = *static_cast<PeerStream*>(request->handle->data);
  auto& session = static_cast<ServerSession&>(stream.owner());
  session.check_loop_thread();
  if (status < 0 || !session.is_tcp() || session.peer_has_ended_) session.close_all_handles();
}

void ServerSession::on_drained_end(PeerStream& stream, int status) {
  const bool reply_is_out = uv_stream_get_write_queue_size(&stream.handle().stream) == 0;
  if (status != UV_EOF || reply_is_out) return close_all_handles();
  peer_has_ended_ = true;
}

void ServerSession::on_drain_limit(uv_timer_t* timer) {
  auto* const session = static_cast<ServerSession*>(timer->data);
  session->check_loop_thread();
  session->close_all_handles();
}

void ServerSession::close_async_here() {
  side_.on_closing_async();
  close_queue();
  close_all_handles();
  release_address();
  enter(Phase::closed);
  side_.on_closed_async();
  stop_loop();
}

void ServerSession::on_broken_off() {
  if (phase() != Phase::starting) side_.on_broken_off();
  enter(Phase::close_asked);
  enter(Phase::closed);
}

}  // namespace tolk
