// How a client ends, and what that prints, calls and releases. The steps of the session in between
// are in sessions/close.cpp.
#include "client/client_side.h"
#include "platform/guarded.h"
#include "platform/standard_output.h"
#include "transport/reserved_names.h"

namespace tolk {
namespace {

constexpr unsigned kEndPauseMs = 10;

}  // namespace

// Host.

void ClientSide::close() {
  logger.formatted("Client Closing!\n");
  const auto current = connected_session();
  if (!current) return logger.formatted("client closeasync\n");
  current->ask_for_close();
  current->wait_until_ended();
  // Still true when a hook or the destructor of a handler closes: the loop thread cannot wait for
  // itself.
  if (isok()) logger.formatted("bad close\n");
  logger.formatted("Client Closed!\n");
}

void ClientSide::abandon() {
  destroyed_ = true;
  const auto current = of_this_process() ? session() : nullptr;
  if (!current) return;
  current->ask_for_close();
  current->wait_until_ended();
}

// The close of a client whose loop has no thread of its own. No operation makes one, so a connected
// client is closed as usual.
void ClientSide::closeClient() {
  ClearMem();
  if (isok()) close();
}

void ClientSide::ClearMem() {
  client_waits().wake_all();
  methods.release_all(custom_release ? MethodRegistry::Keeper::host
                                     : MethodRegistry::Keeper::library);
}

// Loop: the host's close.

void ClientSide::on_closing() { logger.formatted("Client Closing!\n"); }

void ClientSide::on_closed() { logger.formatted("Client Closed!\n"); }

// Loop: a lost server.

void ClientSide::on_server_gone(int id) {
  logger.formatted("Server Closed: %d\n", id);
  guarded([&] {
    enter_loop();
    call_closed_hooks(id);
  });
}

void ClientSide::call_closed_hooks(int id) {
  if (const MethodRef hook = methods.acquire(kHookClosed)) {
    platform::print_line("close server event!");
    logger.run_guarded(kHookClosed, [&] { hook->callback(id, nullptr, nullptr); });
  }
  // The table is empty after a loss: the name then appears without a handler.
  if (const MethodRef hook = methods.acquire_or_insert(kHookBuiltinClosed)) {
    logger.run_guarded(kHookBuiltinClosed, [&] { hook->callback(id, nullptr, nullptr); });
  }
}

// A large call that still saw the client connected has registered by now, or registers under the
// lock that the second step takes.
void ClientSide::on_lost() {
  status_override_ = StatusOverride::none;
  client_waits().wake_all();
  large_wait().post_and_forget();
}

// Loop: every end.

void ClientSide::on_run_out(const Endpoint& where) {
  if (where.is_tcp()) platform::print_line("run out");
  uv_sleep(kEndPauseMs);
  ClearMem();
  status_override_ = StatusOverride::none;
}

void ClientSide::on_broken_off() { on_lost(); }

}  // namespace tolk
