// Starting: the host's side, and what a start prints and calls.
#include <string>
#include <utility>

#include "platform/process.h"
#include "server/server_side.h"
#include "transport/reserved_names.h"

namespace tolk {

// Host.

ServerSide::ServerSide() : process_(platform::generation()) {}

// In a forked child nothing waits, not even for a lock: the thread that held it is not there.
bool ServerSide::of_this_process() const { return process_ == platform::generation(); }

bool ServerSide::isok() const { return running_session() != nullptr; }

bool ServerSide::start(Endpoint where) {
  const auto current = session();
  if (current && current->on_own_thread() && current->phase() < Phase::closed) return isok();
  const std::lock_guard<std::mutex> one_start(lifecycle_);
  if (isok()) return true;
  if (methods.refuses()) return false;  // it has been closed
  is_pipe = true;                       // on purpose for TCP too, until its listen begins
  port = where.port();
  where.name = std::to_string(port);
  const auto session = std::make_shared<ServerSession>(*this, std::move(where));
  *session_.lock() = session;
  if (session->start_thread()) session->wait_until_decided();
  if (destroyed_) abandon();
  return isok();
}

bool ServerSide::listen(Endpoint where) {
  // From a hook of the session that is just starting: its start holds the lock.
  const auto current = session();
  if (current && current->on_own_thread() && current->phase() < Phase::closed) return false;
  const std::lock_guard<std::mutex> one_start(lifecycle_);
  if (isok() || methods.refuses()) return false;
  const auto session = std::make_shared<ServerSession>(*this, std::move(where));
  *session_.lock() = session;
  session->adopt_this_thread();
  const bool listening = session->listen();
  if (destroyed_) abandon();
  return listening;
}

void ServerSide::run() {
  const auto current = running_session();
  if (!current || !current->on_own_thread()) return;
  enter_loop();
  current->serve();
}

// Loop.

void ServerSide::on_starting(const Endpoint& where) {
  if (where.is_tcp()) {
    logger.formatted("Tcp %s port:%s\n", kVersionText, where.name.c_str());
    is_pipe = false;
  } else {
    logger.formatted("Pipe %s port:%s\n", kVersionText, where.name.c_str());
  }
  port = where.port();
}

void ServerSide::on_listen_failed(const char* step, int status) {
  logger.formatted("%s error: %s\n", step, uv_err_name(status));
}

bool ServerSide::on_listening(uv_loop_t* loop, const Endpoint& where) {
  if (!sweep_.init(loop)) return false;
  const MethodRef hook = methods.acquire(kHookCreatePort);
  if (!hook) return true;
  logger.run_guarded(kHookCreatePort, [&] {
    TolkParams text;
    text.AddString(where.name.c_str());
    text.ToParams();
    hook->callback(0, &text, nullptr);
  });
  return true;
}

}  // namespace tolk
