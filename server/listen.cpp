// Starting: the host's side, listening and accepting.
#include <algorithm>
#include <atomic>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "platform/number.h"
#include "platform/peer_user.h"
#include "platform/thread.h"
#include "server/core.h"
#include "transport/call_handler.h"
#include "transport/invoke_guarded.h"
#include "transport/names.h"
#include "transport/pause_point.h"
#include "transport/read_buffer.h"

namespace tolk {
namespace {

// Accepted clients of all servers of the process.
constinit std::atomic<int> accepted_count{0};

}  // namespace

// Host.

bool ServerCore::start(Endpoint where) {
  const auto current = session();
  if (current && current->on_own_thread() && !current->stopping()) return isok();
  const std::lock_guard<std::mutex> one_start(lifecycle_);
  if (isok()) return true;
  if (stopped_) return false;
  is_pipe = true;  // on purpose for TCP too, until its listen begins
  port = platform::parse_int(where.name.c_str());
  where.name = std::to_string(port);
  const auto session = std::make_shared<ServerSession>(*this, std::move(where));
  *session_.lock() = session;
  if (session->start_thread(shared_from_this(), [raw = session.get()] { raw->body(); })) {
    session->wait_for(LoopSession::Milestone::decided);
    TOLK_PAUSE_POINT("start.decided");
  }
  if (destroyed_) abandon();
  return isok();
}

bool ServerCore::listen(Endpoint where) {
  // From a hook of the session that is just starting: its start holds the lock.
  const auto current = session();
  if (current && current->on_own_thread() && !current->stopping()) return false;
  const std::lock_guard<std::mutex> one_start(lifecycle_);
  if (isok() || stopped_) return false;
  const auto session = std::make_shared<ServerSession>(*this, std::move(where));
  *session_.lock() = session;
  session->adopt_this_thread();
  return session->listen();
}

bool ServerCore::run() {
  const auto current = running_session();
  if (current && current->on_own_thread()) current->serve();
  return true;
}

// Loop.

ServerSession::ServerSession(ServerCore& core, Endpoint where)
    : core_(core), where_(std::move(where)) {
  auto stopping = [this] { stop_as_requested(); };
  make_ready(std::make_unique<FunctionTask<decltype(stopping)>>(std::move(stopping)));
}

// A thread of the host's may have listened and never run the loop.
ServerSession::~ServerSession() { abandon_loop(); }

void ServerSession::body() {
  check_loop_thread();
  const bool listening = listen();
  reach(Milestone::decided);
  if (listening) serve();
}

void ServerSession::serve() {
  check_loop_thread();
  if (std::exchange(serving_, true)) return;
  const platform::BrokenPipeBlocked broken_pipes_are_errors;  // also on a thread of the host's
  const LoopThreadScope runs_a_loop;
  run_loop();
  TOLK_PAUSE_POINT("server_loop.after_run");
  run_until_handles_closed();
  TOLK_PAUSE_POINT("server_loop.before_ended");
  reach(Milestone::ended);
  TOLK_PAUSE_POINT("server_loop.before_linger");
  linger_and_close_loop();
  leave_thread();
}

bool ServerSession::listen() {
  if (is_tcp()) {
    core_.logger.formatted("Tcp %s port:%s\n", kVersionText, where_.name.c_str());
    core_.is_pipe = false;
  } else {
    core_.logger.formatted("Pipe %s port:%s\n", kVersionText, where_.name.c_str());
  }
  if (open_loop() != 0 || uv_timer_init(loop(), &listening_pause_) != 0 || !open_listener() ||
      open_hand_off() != 0) {
    end_failed();
    return false;
  }
  TOLK_PAUSE_POINT("start.before_hook");
  run_createport_hook();
  TOLK_PAUSE_POINT("start.before_running");
  core_.running = true;
  TOLK_PAUSE_POINT("start.running");
  return true;
}

bool ServerSession::open_listener() {
  core_.port = platform::parse_int(where_.name.c_str());
  if (is_tcp()) {
    sockaddr_storage address{};
    if (init_tcp() != 0 || parse_address(&address) != 0) return false;
    const auto* const any = reinterpret_cast<const sockaddr*>(&address);
    if (failed("Bind", uv_tcp_bind(&listener_.tcp, any, 0))) return false;
    bound_address_ = address;
    int size = sizeof bound_address_;  // with the port that the system chose for port 0
    uv_tcp_getsockname(&listener_.tcp, reinterpret_cast<sockaddr*>(&bound_address_), &size);
  } else if (failed("Bind", bind_pipe())) {
    return false;
  }
  listener_.handle.data = this;
  return !failed("Listen", uv_listen(&listener_.stream, kBacklog, on_connection_cb));
}

bool ServerSession::failed(const char* step, int status) {
  if (status == 0) return false;
  core_.logger.formatted("%s error: %s\n", step, uv_err_name(status));
  return true;
}

int ServerSession::bind_pipe() {
  const platform::PipeAddress address = platform::pipe_address(where_.name);
  if (address.error != 0) return address.error;
  const int locked = name_lock_.acquire(address.path);
  if (locked != 0) return locked;
  remove_file(address.path);  // of a server that died; the lock says that none lives
  const int made = uv_pipe_init(loop(), &listener_.pipe, 0);
  if (made != 0) return made;
  bound_path_ = address.path;
  const int bound = uv_pipe_bind(&listener_.pipe, address.path.c_str());
  return bound != 0 ? bound : platform::restrict_to_owner(address.path);
}

// On purpose: starting on TCP removes a file in the current directory that is named like the port.
int ServerSession::init_tcp() {
  remove_file(where_.name);
  return uv_tcp_init(loop(), &listener_.tcp);
}

void ServerSession::remove_file(const std::string& path) {
  uv_fs_t request;
  uv_fs_unlink(loop(), &request, path.c_str(), nullptr);
  uv_fs_req_cleanup(&request);
}

int ServerSession::parse_address(sockaddr_storage* address) const {
  const int port = core_.port;
  return where_.transport == Transport::tcp4
             ? uv_ip4_addr(where_.host.c_str(), port, reinterpret_cast<sockaddr_in*>(address))
             : uv_ip6_addr(where_.host.c_str(), port, reinterpret_cast<sockaddr_in6*>(address));
}

void ServerSession::end_failed() {
  begin_stop();
  close_all_handles();
  run_until_handles_closed();
  name_lock_.release();
  linger_and_close_loop();
  reach(Milestone::ended);
}

void ServerSession::run_createport_hook() {
  const MethodRef hook = core_.methods.acquire(kHookCreatePort);
  if (!hook) return;
  call_handler(core_.logger, kHookCreatePort, [&] {
    TolkParams port;
    port.AddString(where_.name.c_str());
    port.ToParams();
    hook->callback(0, &port, nullptr);
  });
}

// Accepting.

void ServerSession::on_connection_cb(uv_stream_t* listener, int status) {
  auto* const session = static_cast<ServerSession*>(listener->data);
  invoke_guarded([&] { session->on_connection(status); },
                 [&](const char*) { session->turn_away(); });
}

void ServerSession::on_connection(int status) {
  check_loop_thread();
  if (status < 0) {
    core_.logger.plain("New client connection error...\n");
    if (is_shortage(status)) on_no_descriptor();
    return;
  }
  if (stopping()) return;
  Connection& connection = new_connection();
  TOLK_PAUSE_POINT("accept.before_hook");
  // What needs memory comes first: a connection that was accepted can't be put back.
  const std::size_t count = connections_.size();
  if (count == connections_.capacity()) connections_.reserve(2 * count + 1);
  connection_by_id_[connection.id()] = &connection;
  int accepted = 0;
  if (!is_tcp()) {
    // Before the hook: what the host is not to deal with, it does not hear of.
    accepted = accept(connection);
    if (accepted == 0 && refused(connection)) return;
  }
  // On purpose before the accept where nobody has to be looked at, and even when that fails.
  call_hook(kHookConnect, connection.id());
  if (stopping()) return;  // the hook has closed the server
  TOLK_PAUSE_POINT("accept.after_hook");
  if (is_tcp()) accepted = accept(connection);
  if (accepted != 0) {
    connection_by_id_.erase(connection.id());
    core_.logger.plain("Accept error... .\n");
    return;
  }
  take_connection(connection);
}

void ServerSession::take_connection(Connection& connection) {
  connections_.push_back(&connection);
  TOLK_PAUSE_POINT("accept.before_reading");
  log_accepted(connection);
  const int status = uv_read_start(&connection.stream, allocBufferCb, onReadCb);
  if (status != 0 && !stopping()) end_guarded(connection, status);  // a log sink may have closed
}

void ServerSession::turn_away() {
  check_loop_thread();
  if (stopping()) return;
  if (turning_away_) {
    ++waiting_count_;
    return;
  }
  if (init_stream(&turned_away_.handle) != 0) return pause_listening();
  turned_away_.handle.data = this;
  turning_away_ = true;
  uv_accept(&listener_.stream, &turned_away_.stream);
  uv_close(&turned_away_.handle, on_turned_away);
}

void ServerSession::on_turned_away(uv_handle_t* handle) {
  auto* const session = static_cast<ServerSession*>(handle->data);
  session->check_loop_thread();
  session->turning_away_ = false;
  if (session->waiting_count_ == 0) return;
  --session->waiting_count_;
  session->turn_away();
}

// Whether it is another user's. Nothing of theirs is read; the connection is forgotten, since no
// one has learnt its id.
bool ServerSession::refused(Connection& connection) {
  platform::PeerUser client;  // nobody's: so it stays when there is no memory to ask
  invoke_guarded([&] { client = platform::peer_user(&connection.pipe); });
  if (client.trusted) return false;
  connection_by_id_.erase(connection.id());
  uv_close(&connection.handle, forget);
  // Last: a log sink may close the server, and with it all handles that are open.
  core_.logger.plain("Client refused: %s\n", client.name.c_str());
  return true;
}

void ServerSession::forget(uv_handle_t* handle) {
  const auto* const refused = static_cast<Connection*>(handle->data);
  refused->session.check_loop_thread();
  auto& all = refused->session.all_;
  // From the back: it came last, or nearly so.
  const auto found = std::find_if(all.rbegin(), all.rend(),
                                  [&](const auto& kept) { return kept.get() == refused; });
  all.erase(std::next(found).base());
}

// A client id is never 0 and names one open connection.
Connection& ServerSession::new_connection() {
  do {
    all_.push_back(std::make_unique<Connection>(*this));
  } while (all_.back()->id() == 0 || connection_by_id_.contains(all_.back()->id()));
  return *all_.back();
}

int ServerSession::init_stream(uv_handle_t* handle) {
  return is_tcp() ? uv_tcp_init(loop(), reinterpret_cast<uv_tcp_t*>(handle))
                  : uv_pipe_init(loop(), reinterpret_cast<uv_pipe_t*>(handle), 0);
}

int ServerSession::accept(Connection& connection) {
  const int made = init_stream(&connection.handle);
  if (made != 0) {
    turn_away();
    return made;
  }
  const int status = uv_accept(&listener_.stream, &connection.stream);
  if (status != 0) close_handle(&connection.handle);
  if (status == 0 && is_tcp()) uv_tcp_nodelay(&connection.tcp, 1);
  return status;
}

// On purpose: the line of a pipe server ends without the number of connections.
void ServerSession::log_accepted(const Connection& connection) {
  const int before = accepted_count.fetch_add(1);
  if (is_tcp()) {
    core_.logger.formatted("Accept success: %d client id: %d all count:%d \n", before,
                           connection.id(), static_cast<int>(connections_.size()));
  } else {
    core_.logger.formatted("Accept success: %d client id: %d all count: \n", before,
                           connection.id());
  }
}

void ServerSession::call_hook(const char* name, int client_id) {
  const MethodRef hook = core_.methods.acquire(name);
  if (!hook) return;
  call_handler(core_.logger, name, [&] { hook->callback(client_id, nullptr, nullptr); });
}

}  // namespace tolk
