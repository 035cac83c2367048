// Connecting: the host's side of an attempt, the loop thread's, and the version check.
#include <string>
#include <utility>

#include "client/core.h"
#include "platform/number.h"
#include "platform/peer_user.h"
#include "platform/pipe_name.h"
#include "platform/standard_output.h"
#include "transport/invoke_guarded.h"
#include "transport/names.h"
#include "transport/pause_point.h"
#include "transport/read_buffer.h"

namespace tolk {
namespace {

constexpr std::uint32_t kHandshakeLimitMs = 10000;
constexpr unsigned kEndPauseMs = 10;

const char* label(Transport transport) {
  switch (transport) {
    case Transport::pipe:
      return "Pipe";
    case Transport::tcp4:
      return "Tcp4";
    case Transport::tcp6:
      break;
  }
  return "Tcp6";
}

}  // namespace

// Host.

bool ClientCore::connect(Endpoint where) {
  const auto earlier = session();
  if (earlier && earlier->on_own_thread()) return isok();
  const std::lock_guard<std::mutex> one_attempt(lifecycle_);
  if (isok()) return true;
  TOLK_PAUSE_POINT("connect.has_turn");
  if (const auto last = session()) last->wait_for(LoopSession::Milestone::ended);
  return attempt(std::move(where));
}

bool ClientCore::attempt(Endpoint where) {
  const std::string shown = where.name;
  const auto session = std::make_shared<ClientSession>(*this, std::move(where));
  *session_.lock() = session;
  if (session->start_thread(shared_from_this(), [raw = session.get()] { raw->body(); })) {
    session->wait_for(LoopSession::Milestone::decided);
  }
  TOLK_PAUSE_POINT("connect.decided");
  if (!isok()) {
    logger.formatted("cant connect: %s \n", shown.c_str());
    return isok();
  }
  logger.formatted("connected: %s \n", shown.c_str());
  bool accepted = false;
  invoke_guarded([&] { accepted = CheckServer(); });  // without memory nobody knows
  if (!accepted) {
    logger.formatted("Check Server Version Error!\n");
    close();
    return false;
  }
  TOLK_PAUSE_POINT("connect.greeted");
  if (destroyed_) close();
  return isok();
}

bool ClientCore::CheckServer() {
  TolkParams version;
  version.AddKeyValueString(kKeyVersion, kVersionText);
  TolkParams* const reply = SendMsg(kMethodVersion, &version, 0, kHandshakeLimitMs);
  if (reply == nullptr) {
    logger.formatted("Check Server Version: timeout\n");
    return false;
  }
  const TolkValue* const theirs = reply->GetMap(kKeyVersion);
  const std::string shown(theirs != nullptr && theirs->IsString() ? theirs->GetString() : "");
  const TolkValue* const verdict = reply->GetValue(0);
  const bool accepted = verdict != nullptr && verdict->IsBool() && verdict->GetBool();
  logger.formatted("Check Server Version: \nserver %s\nclient %s \n", shown.c_str(), kVersionText);
  return accepted;
}

// Loop.

ClientSession::ClientSession(ClientCore& core, Endpoint where)
    : core_(core), where_(std::move(where)) {
  auto closing = [this] { close_by_host(); };
  make_ready(std::make_unique<FunctionTask<decltype(closing)>>(std::move(closing)));
}

void ClientSession::body() {
  check_loop_thread();
  core_.logger.formatted("%s: %s\n", label(where_.transport), kVersionText);
  if (!connect() || !go_live()) return end_failed();
  run_connected();
}

// Runs the loop until the attempt is decided. An error without a callback decides it too.
bool ClientSession::connect() {
  if (tcp4_step_failed(open_loop(), "uv_loop_init error")) return false;
  if (tcp4_step_failed(init_stream(), "uv_tcp_init error")) return false;
  if (start_connecting() != 0) return false;
  while (!decided_ && uv_loop_alive(loop())) uv_run(loop(), UV_RUN_ONCE);
  return connected_;
}

// On purpose: only the IPv4 transport tells which step of the setup failed.
bool ClientSession::tcp4_step_failed(int status, const char* line) const {
  if (status == 0) return false;
  if (where_.transport == Transport::tcp4) platform::print_line(line);
  return true;
}

int ClientSession::init_stream() {
  return is_tcp() ? uv_tcp_init(loop(), &stream_.tcp) : uv_pipe_init(loop(), &stream_.pipe, 0);
}

int ClientSession::start_connecting() {
  stream_.handle.data = this;
  request_.data = this;
  if (is_tcp()) return start_connecting_tcp();
  const platform::PipeAddress address = platform::pipe_address(where_.name);
  if (address.error != 0) return address.error;
  uv_pipe_connect(&request_, &stream_.pipe, address.path.c_str(), on_connect);
  return 0;
}

// A text that is no address ends the attempt: libuv would leave 0.0.0.0 in its place, which reaches
// whoever listens on this machine.
int ClientSession::start_connecting_tcp() {
  sockaddr_storage address{};
  const int port = platform::parse_int(where_.name.c_str());
  const int parsed =
      where_.transport == Transport::tcp4
          ? uv_ip4_addr(where_.host.c_str(), port, reinterpret_cast<sockaddr_in*>(&address))
          : uv_ip6_addr(where_.host.c_str(), port, reinterpret_cast<sockaddr_in6*>(&address));
  if (tcp4_step_failed(parsed, "uv_ip4_addr error")) return parsed;
  const int started = uv_tcp_connect(&request_, &stream_.tcp,
                                     reinterpret_cast<const sockaddr*>(&address), on_connect);
  tcp4_step_failed(started, "uv_tcp_connect error");
  return started;
}

void ClientSession::on_connect(uv_connect_t* request, int status) {
  auto* const session = static_cast<ClientSession*>(request->data);
  session->check_loop_thread();
  session->decided_ = true;
  session->connected_ = status >= 0 && session->server_is_trusted();
}

// Before a byte of the server's is read, and before it gets one of ours.
bool ClientSession::server_is_trusted() const {
  if (is_tcp()) return true;
  const platform::PeerUser server = platform::peer_user(&stream_.pipe);
  if (!server.trusted) core_.logger.plain("Server refused: %s\n", server.name.c_str());
  return server.trusted;
}

// Everything that a caller may use is set up before anybody can see the client as connected.
bool ClientSession::go_live() {
  if (is_tcp()) uv_tcp_nodelay(&stream_.tcp, 1);
  if (open_hand_off() != 0) return false;
  if (uv_read_start(stream(), allocBufferCb, onReadCb) != 0) return false;
  if (!start_sweep()) return false;
  TOLK_PAUSE_POINT("loop.before_online");
  core_.connected = true;
  TOLK_PAUSE_POINT("loop.before_ready");
  if (is_tcp()) platform::print_line("run");
  reach(Milestone::decided);
  return true;
}

bool ClientSession::start_sweep() {
  if (core_.sweep_started) return true;
  if (uv_timer_init(loop(), &sweep_) != 0) return false;
  if (uv_timer_start(&sweep_, sendmsg_timeout_cb, kFirstSweepMs, kSweepStepMs) != 0) return false;
  core_.sweep_started = true;
  return true;
}

void ClientSession::end_failed() {
  begin_stop();
  close_all_handles();
  run_until_handles_closed();
  linger_and_close_loop();
  reach(Milestone::ended);
}

void ClientSession::run_connected() {
  run_loop();
  TOLK_PAUSE_POINT("loop.after_run");
  run_until_handles_closed();
  if (is_tcp()) platform::print_line("run out");
  uv_sleep(kEndPauseMs);
  TOLK_PAUSE_POINT("loop.before_clearmem");
  core_.ClearMem();
  TOLK_PAUSE_POINT("loop.after_clearmem");
  core_.connected = false;
  TOLK_PAUSE_POINT("loop.before_ended");
  reach(Milestone::ended);
  TOLK_PAUSE_POINT("loop.before_linger");
  linger_and_close_loop();
}

void ClientSession::sendmsg_timeout_cb(uv_timer_t*) { client_waits().sweep(); }

}  // namespace tolk
