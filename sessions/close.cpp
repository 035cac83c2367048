// How a session ends: every way, each on one page.
//
// A client                         host's close()      the server went
//   phase on the way there         close_asked         live, or close_asked
//   the side prints, calls hooks   on_closing          on_server_gone (isok() still true)
//   phase                          closed              lost (isok() is false)
//   queued posts are refused, the handles begin to close
//   the side                       on_closed           on_lost: all waiting calls wake
//   queued calls of the server     never begin         begin until the handlers are released
//   the loop runs until all handles are closed; work under way is not waited for
//   the side                       on_run_out: 10 ms, wakes all calls, releases the handlers
//   phase ended                    close(), connect and DestroyClient go on
//   the loop runs until no worker runs for it, is closed, and the thread drops the session
//
// A server                         close()                       closeasync()
//   host thread                    close_asked: the side prints  closeasync_asked
//                                  and releases the handlers
//   loop thread                    close_here                    close_async_here
//   the side prints                –                             on_closing_async
//   queued posts are refused; connections, listener, then all other handles begin to close
//   phase closed                   isok() is false
//   the side                       close() prints and returns    on_closed_async: handlers are
//                                                                the host's again
//   all handles closed, phase ended, workers, as above
//
// A client's request to close ("s_c_close_server") is close() on the loop thread. The connection
// that asked stays open: its writing side is shut down behind the reply, and what it sends is read
// and dropped until it ends, 200 ms at most. Closed with unread input, it would be reset, and the
// reply lost with it.
//
// Destroying an object is its close, and then the side's own end (see client/close.cpp and
// server/close.cpp).
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
  while (has_handles()) uv_run(&loop_, UV_RUN_ONCE);
}

void Session::end() {
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
    end();
  } else {
    linger_and_close_loop();
  }
  leave_thread();
}

// A client.

void ClientSession::end_as_asked() {
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
void ServerSession::end_as_asked() {
  if (phase() == Phase::closeasync_asked) {
    close_async_here();
  } else {
    close_here(nullptr);
  }
}

// Connections in the order of their accept, then the listener, then what is left.
void ServerSession::close_here(PeerStream* answered) {
  close_queue();
  for (const auto& connection : all_) connection->mute();
  for (PeerStream* connection : open_) {
    if (connection != answered) connection->close();
  }
  open_.clear();
  close_handle(&listener_.handle);
  name_lock_.release();
  if (answered == nullptr) {
    close_all_handles();
  } else {
    drain(*answered);
  }
  stop_loop();
  enter(Phase::closed);
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
  name_lock_.release();
  enter(Phase::closed);
  side_.on_closed_async();
  stop_loop();
}

void ServerSession::on_broken_off() {
  enter(Phase::close_asked);
  enter(Phase::closed);
}

}  // namespace tolk
