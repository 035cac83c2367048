// Binding, listening and serving.
#include <cassert>
#include <utility>

#include "platform/thread.h"
#include "sessions/server_session.h"

namespace tolk {

ServerSession::ServerSession(ServerEvents& side, Endpoint where)
    : side_(side), where_(std::move(where)) {}

// A host thread may have listened and never run the loop.
ServerSession::~ServerSession() { finish_loop(); }

void ServerSession::body() {
  if (listen()) serve();
}

void ServerSession::serve() {
  const platform::BrokenPipeBlocked broken_pipes_are_errors;  // also on a thread of the host
  if (!run_loop()) return;
  run_until_handles_closed();
  finish();
  leave_thread();
}

bool ServerSession::listen() {
  side_.on_starting(where_);
  if (open_loop() != 0 || uv_timer_init(loop(), &listening_pause_) != 0 || !open_listener() ||
      open_queue() != 0 || !side_.on_listening(loop(), where_)) {
    close_queue();
    close_all_handles();
    run_until_handles_closed();
    name_lock_.release();
    finish();
    return false;
  }
  [[maybe_unused]] const bool entered = enter(Phase::live);
  assert(entered);
  return true;
}

bool ServerSession::open_listener() {
  if (is_tcp()) {
    sockaddr_storage address{};
    if (init_tcp() != 0 || where_.parse_address(&address) != 0) return false;
    const auto* const any = reinterpret_cast<const sockaddr*>(&address);
    if (failed("Bind", uv_tcp_bind(&listener_.tcp, any, 0))) return false;
    bound_address_ = address;
    int size = sizeof bound_address_;  // with the port that the system chose for port 0
    uv_tcp_getsockname(&listener_.tcp, reinterpret_cast<sockaddr*>(&bound_address_), &size);
  } else if (failed("Bind", bind_pipe())) {
    return false;
  }
  return !failed("Listen", uv_listen(&listener_.stream, kBacklog, on_connection_cb));
}

bool ServerSession::failed(const char* step, int status) {
  if (status == 0) return false;
  side_.on_listen_failed(step, status);
  return true;
}

int ServerSession::bind_pipe() {
  const platform::PipeAddress address = platform::pipe_address(where_.name);
  if (address.error != 0) return address.error;
  const int locked = name_lock_.acquire(address.path);
  if (locked != 0) return locked;
  remove_file(address.path);  // of a server that died: the lock says that none lives
  const int made = listener_.init(loop(), false, this);
  if (made != 0) return made;
  bound_path_ = address.path;
  const int bound = uv_pipe_bind(&listener_.pipe, address.path.c_str());
  return bound != 0 ? bound : platform::restrict_to_owner(address.path);
}

// On purpose: starting on TCP removes a file in the current directory that is named like the port.
int ServerSession::init_tcp() {
  remove_file(where_.name);
  return listener_.init(loop(), true, this);
}

void ServerSession::remove_file(const std::string& path) {
  uv_fs_t request;
  uv_fs_unlink(loop(), &request, path.c_str(), nullptr);
  uv_fs_req_cleanup(&request);
}

// On purpose only to clients that have sent something: one that has been silent since its connect
// cannot be called.
bool ServerSession::deliver(int peer, Frame frame) {
  if (!side_.on_delivery()) return false;  // nobody would look after the timeout
  const auto at = open_by_id_.find(peer);
  if (at == open_by_id_.end() || !at->second->has_read()) return false;
  at->second->write(std::move(frame));
  return true;  // also when the stream refused it: the caller then waits for its timeout
}

}  // namespace tolk
