// Binding, listening and serving.
#include <array>
#include <cassert>
#include <string>
#include <utility>

#include "platform/thread.h"
#include "sessions/server_session.h"

namespace tolk {
namespace {

constexpr std::size_t kMostPathBytes = 512;

}  // namespace

ServerSession::ServerSession(ServerEvents& side, Endpoint where)
    : side_(side), where_(std::move(where)), is_tcp_(where_.is_tcp()) {}

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
  const auto opened = [this](int status) {
    enter_loop();
    if (status != 0) side_.on_loop_failed(status);
    return status == 0;
  };
  if (!opened(open_loop()) || uv_timer_init(loop(), &listening_pause_) != 0 || !open_listener() ||
      !opened(open_queue()) || !side_.on_listening(loop(), where_)) {
    close_queue();
    close_all_handles();
    run_until_handles_closed();
    release_address();
    finish();
    return false;
  }
  [[maybe_unused]] const bool entered = enter(Phase::live);
  assert(entered);
  return true;
}

bool ServerSession::open_listener() {
  if (where_.inherited) {
    if (failed("Bind", open_inherited())) return false;
  } else if (is_tcp()) {
    if (!bind_tcp()) return false;
  } else if (failed("Bind", bind_pipe())) {
    return false;
  }
  return !failed("Listen", uv_listen(&listener_.stream, kBacklog, on_connection_cb));
}

// On purpose without a word when there is no such address.
bool ServerSession::bind_tcp() {
  // On purpose: starting on TCP removes a file in the current directory that is named like the
  // port.
  if (side_.removes_port_file()) remove_file(where_.name);
  sockaddr_storage address{};
  if (listener_.init(loop(), true, this) != 0 || where_.parse_address(&address) != 0) return false;
  const auto* const any = reinterpret_cast<const sockaddr*>(&address);
  if (failed("Bind", uv_tcp_bind(&listener_.tcp, any, 0))) return false;
  bound_address_ = address;
  note_bound_address();
  return true;
}

// With the port that the system chose for port 0.
void ServerSession::note_bound_address() {
  int size = sizeof bound_address_;
  uv_tcp_getsockname(&listener_.tcp, reinterpret_cast<sockaddr*>(&bound_address_), &size);
}

int ServerSession::open_inherited() {
  const int taken = inherited_.take(*where_.inherited);
  if (taken != 0) return taken;
  is_tcp_ = inherited_.is_tcp();
  const int made = listener_.init(loop(), is_tcp_, this);
  if (made != 0) return made;
  const int opened = open_duplicate();
  if (opened != 0) return opened;
  if (is_tcp_) {
    note_bound_address();
  } else {
    bound_path_.resize(kMostPathBytes);
    std::size_t size = bound_path_.size();
    if (uv_pipe_getsockname(&listener_.pipe, bound_path_.data(), &size) != 0) size = 0;
    bound_path_.resize(size);
  }
  return 0;
}

// A listener that closes, for good or for a pause, leaves the socket itself open.
int ServerSession::open_duplicate() {
  const int descriptor = inherited_.duplicate();
  if (descriptor < 0) return descriptor;
  const int status = is_tcp_ ? uv_tcp_open(&listener_.tcp, static_cast<uv_os_sock_t>(descriptor))
                             : uv_pipe_open(&listener_.pipe, descriptor);
  if (status != 0) platform::InheritedSocket::close(descriptor);
  return status;
}

Endpoint ServerSession::bound_address() const {
  if (!is_tcp_) return {Endpoint::Kind::pipe, "", where_.inherited ? bound_path_ : where_.name};
  std::array<char, INET6_ADDRSTRLEN> host{};
  if (bound_address_.ss_family == AF_INET6) {
    const auto& address = reinterpret_cast<const sockaddr_in6&>(bound_address_);
    uv_ip6_name(&address, host.data(), host.size());
    return {Endpoint::Kind::tcp6, host.data(), std::to_string(ntohs(address.sin6_port))};
  }
  const auto& address = reinterpret_cast<const sockaddr_in&>(bound_address_);
  uv_ip4_name(&address, host.data(), host.size());
  return {Endpoint::Kind::tcp4, host.data(), std::to_string(ntohs(address.sin_port))};
}

void ServerSession::stop_listening() {
  listening_ended_ = true;
  uv_timer_stop(&listening_pause_);
  close_handle(&listener_.handle);
  release_address();
}

// After the listener, which removes the file of a pipe.
void ServerSession::release_address() {
  name_lock_.release();
  inherited_.close();
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
