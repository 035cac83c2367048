// Accepting when the process has no descriptor left.
//
// libuv keeps one in reserve: it closes it, accepts, hangs up, and opens it again. When another
// thread of the host takes the number meanwhile, the reserve is gone; libuv then asks to accept the
// same connection again and again without returning to its loop, and nobody is served: not even a
// client that leaves, whose descriptor would be the way out.
//
//   loop thread                              another thread of the host
//   accept: no descriptor
//   close the reserve
//                                            open a file: takes its number
//   accept: no descriptor
//   open the reserve: no descriptor
//   accept: no descriptor, forever
//
// So the listener is closed, which ends the asking, and opened again as soon as there is a
// descriptor for it. Clients that connect meanwhile are refused.
#include "platform/pipe_name.h"
#include "sessions/server_session.h"

namespace tolk {
namespace {

constexpr unsigned kNoDescriptorPauseMs = 10;
constexpr int kAttemptsOfOneTurn = 5;

}  // namespace

bool ServerSession::is_shortage(int status) {
  return status == UV_EMFILE || status == UV_ENFILE || status == UV_ENOBUFS || status == UV_ENOMEM;
}

void ServerSession::on_no_descriptor() {
  // Another thread may give one back at any moment; and without a pause this would take a
  // processor.
  uv_sleep(kNoDescriptorPauseMs);
  // The loop's time stands still until libuv returns to it.
  if (no_descriptor_at_ != uv_now(loop())) no_descriptor_count_ = 0;
  no_descriptor_at_ = uv_now(loop());
  if (++no_descriptor_count_ >= kAttemptsOfOneTurn && takes_messages()) pause_listening();
}

void ServerSession::pause_listening() {
  if (uv_is_closing(&listener_.handle)) return;
  listening_pause_.data = this;
  uv_close(&listener_.handle, on_listener_closed);
}

void ServerSession::on_listener_closed(uv_handle_t* listener) {
  auto* const session = static_cast<ServerSession*>(listener->data);
  session->check_loop_thread();
  if (!session->takes_messages() || session->listening_ended_) return;
  uv_timer_start(&session->listening_pause_, on_pause_over, kNoDescriptorPauseMs, 0);
}

void ServerSession::on_pause_over(uv_timer_t* timer) {
  auto* const session = static_cast<ServerSession*>(timer->data);
  session->check_loop_thread();
  if (!session->takes_messages()) return;
  uv_handle_t* const listener = &session->listener_.handle;
  if (session->listener_.init(session->loop(), session->is_tcp(), session) != 0) {
    uv_timer_start(timer, on_pause_over, kNoDescriptorPauseMs, 0);
    return;
  }
  if (session->listen_again() != 0) uv_close(listener, on_listener_closed);
}

// The name of a pipe is still claimed; its file went with the listener that was closed. At an
// inherited socket clients have waited.
int ServerSession::listen_again() {
  int status = 0;
  if (where_.inherited) {
    status = open_duplicate();
  } else if (is_tcp()) {
    status = uv_tcp_bind(&listener_.tcp, reinterpret_cast<const sockaddr*>(&bound_address_), 0);
  } else {
    status = uv_pipe_bind(&listener_.pipe, bound_path_.c_str());
    if (status == 0) status = platform::restrict_to_owner(bound_path_);
  }
  return status != 0 ? status : uv_listen(&listener_.stream, kBacklog, on_connection_cb);
}

}  // namespace tolk
