// Connecting, and what a connected client writes.
#include "sessions/client_session.h"

#include <cassert>
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
  if (connect() && go_live()) {
    run_loop();
    run_until_handles_closed();
    side_.on_run_out(where_);
  } else {
    close_queue();
    close_all_handles();
    run_until_handles_closed();
  }
  finish();
}

// Runs the loop until the attempt is decided. An error without a callback decides it too.
bool ClientSession::connect() {
  if (failed(open_loop(), SetupStep::loop)) return false;
  if (failed(stream_.init(where_.is_tcp()), SetupStep::stream)) return false;
  if (start_connecting() != 0) return false;
  while (!connect_status_ && uv_loop_alive(loop())) uv_run(loop(), UV_RUN_ONCE);
  return connect_status_.value_or(UV_ECANCELED) >= 0 && server_is_trusted();
}

bool ClientSession::failed(int status, SetupStep step) {
  if (status == 0) return false;
  side_.on_setup_failed(where_, step);
  return true;
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
  const int parsed = where_.parse_address(&address);
  if (failed(parsed, SetupStep::address)) return parsed;
  const int started = uv_tcp_connect(&request_, &stream_.handle().tcp,
                                     reinterpret_cast<const sockaddr*>(&address), on_connect);
  failed(started, SetupStep::connect);
  return started;
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
bool ClientSession::go_live() {
  if (where_.is_tcp()) uv_tcp_nodelay(&stream_.handle().tcp, 1);
  if (open_queue() != 0 || stream_.start_reading() != 0) return false;
  if (!side_.on_connected(loop(), where_)) return false;
  [[maybe_unused]] const bool entered = enter(Phase::live);
  assert(entered);
  return true;
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
