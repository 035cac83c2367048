// Connecting, and what a connected client writes.
#include "sessions/client_session.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <utility>

#include "platform/peer_user.h"
#include "platform/pipe_name.h"

namespace tolk {

using SetupStep = ClientEvents::SetupStep;

ClientSession::ClientSession(ClientEvents& side, Endpoint where)
    : side_(side), where_(std::move(where)), stream_(*this) {}

void ClientSession::body() {
  check_loop_thread();
  side_.on_starting(where_);
  const int status = attempt();
  if (status == 0) {
    run_loop();
    run_until_handles_closed();
    side_.on_run_out(where_);
  } else {
    close_queue();
    close_all_handles();
    run_until_handles_closed();
    side_.on_attempt_failed(status);
  }
  finish();
}

int ClientSession::attempt() {
  const int status = connect();
  if (status != 0) return status;
  return server_is_trusted() ? go_live() : UV_EACCES;
}

// Runs the loop until the attempt is decided. An error without a callback decides it too.
int ClientSession::connect() {
  if (const int opened = failed(open_loop(), SetupStep::loop)) return opened;
  if (const int made = failed(stream_.init(where_.is_tcp()), SetupStep::stream)) return made;
  if (const int started = start_connecting()) return started;
  if (const int limited = limit_connecting()) return limited;
  while (!connect_status_ && uv_loop_alive(loop())) uv_run(loop(), UV_RUN_ONCE);
  if (connect_limit_.data != nullptr) close_handle(reinterpret_cast<uv_handle_t*>(&connect_limit_));
  return std::min(connect_status_.value_or(UV_ECANCELED), 0);
}

int ClientSession::limit_connecting() {
  const int limit_ms = side_.connect_limit_ms();
  if (limit_ms <= 0) return 0;
  const int made = uv_timer_init(loop(), &connect_limit_);
  if (made != 0) return made;
  connect_limit_.data = this;
  return uv_timer_start(&connect_limit_, on_connect_limit, static_cast<std::uint64_t>(limit_ms), 0);
}

// The connect request ends with the stream, after the attempt is decided.
void ClientSession::on_connect_limit(uv_timer_t* timer) {
  auto* const session = static_cast<ClientSession*>(timer->data);
  session->check_loop_thread();
  if (!session->connect_status_) session->connect_status_ = UV_ETIMEDOUT;
}

int ClientSession::failed(int status, SetupStep step) {
  if (status != 0) side_.on_setup_failed(where_, step);
  return status;
}

int ClientSession::start_connecting() {
  request_.data = this;
  if (where_.is_tcp()) return start_connecting_tcp();
  const platform::PipeAddress address = platform::pipe_address(where_.name);
  if (address.error != 0) return address.error;
  uv_pipe_connect(&request_, &stream_.handle().pipe, address.path.c_str(), on_connect);
  return 0;
}

int ClientSession::start_connecting_tcp() {
  sockaddr_storage address{};
  if (const int parsed = failed(where_.parse_address(&address), SetupStep::address)) return parsed;
  const int started = uv_tcp_connect(&request_, &stream_.handle().tcp,
                                     reinterpret_cast<const sockaddr*>(&address), on_connect);
  return failed(started, SetupStep::connect);
}

void ClientSession::on_connect(uv_connect_t* request, int status) {
  auto* const session = static_cast<ClientSession*>(request->data);
  session->check_loop_thread();
  session->connect_status_ = status;
}

// Before a byte of the server is read, and before it gets one of ours.
bool ClientSession::server_is_trusted() {
  if (where_.is_tcp()) return true;
  const platform::PeerUser server = platform::peer_user(&stream_.handle().pipe);
  if (!server.trusted) side_.on_server_refused(server.name);
  return server.trusted;
}

// Everything that a caller may use is set up before anybody can see the client as connected.
int ClientSession::go_live() {
  if (where_.is_tcp()) uv_tcp_nodelay(&stream_.handle().tcp, 1);
  if (const int opened = open_queue()) return opened;
  if (const int reading = stream_.start_reading()) return reading;
  if (!side_.on_connected(loop(), where_)) return UV_ECANCELED;
  [[maybe_unused]] const bool entered = enter(Phase::live);
  assert(entered);
  return 0;
}

bool ClientSession::deliver(int, Frame frame) {
  stream_.write(std::move(frame));
  return true;  // also when the stream refused it: the caller then waits for its timeout
}

bool ClientSession::begins_calls() const {
  const Phase now = phase();
  return now == Phase::live || now == Phase::close_asked ||
         (now == Phase::lost && side_.begins_calls_when_lost());
}

void ClientSession::ask_for_close() {
  enter(Phase::close_asked);
  wake_for_end();
}

}  // namespace tolk
