// How a server ends, and what that prints, calls and releases. The steps of the session in between
// are in sessions/close.cpp.
#include <chrono>

#include "server/server_side.h"

namespace tolk {
namespace {

// A hook that waits for the thread that closes does not hold the close up forever.
constexpr std::chrono::milliseconds kCloseLimit{1000};
constexpr unsigned kCloseAsyncPauseMs = 200;

}  // namespace

// Any thread.

void ServerSide::close(PeerStream* answered) {
  logger.formatted("Server Closing!\n");
  const auto current = running_session();
  if (!current) return;
  // After closeasync() the loop thread carries that out; the handlers are released all the same.
  const bool asked = current->enter(Phase::close_asked);
  if (!asked && current->phase() != Phase::closeasync_asked) return;  // another thread closes it
  methods.refuse();
  if (!custom_release) {
    methods.release_all(MethodRegistry::Keeper::library);
    logger.drop_deleted_sink();
  }
  if (current->on_own_thread()) {
    enter_loop();
    current->close_here(answered);
  } else {
    current->wake_for_end();
    current->wait_until_ended(kCloseLimit);
    current->enter(Phase::closed);  // no effect if the loop thread has entered it already
  }
  logger.formatted("Server Closed!\n");
}

// Only a pipe server has the wake-up for it: on TCP nothing hears the request.
void ServerSide::closeasync() {
  const auto current = running_session();
  if (!current) return logger.formatted("server closeasync\n");
  if (!current->is_tcp()) {
    current->enter(Phase::closeasync_asked);
    current->wake_for_end();
  }
  uv_sleep(kCloseAsyncPauseMs);
  if (isok()) logger.formatted("bad close\n");
}

// DestroyServer has called close or closeasync. That has no effect during a start, or while a hook
// holds up the loop thread.
void ServerSide::abandon() {
  destroyed_ = true;
  if (!of_this_process()) return;
  const auto current = session();
  if (current && !is_pipe && current->phase() == Phase::live) close();
  methods.refuse();
  logger.end_sink();
  if (!current) return;
  if (is_pipe) current->enter(Phase::closeasync_asked);
  current->wake_for_end();
}

// Loop: closeasync.

// The handlers are the host's again; none is called any more. Refused before isok() turns false: a
// start that sees that must see too that the server has been closed.
void ServerSide::on_closing_async() {
  logger.formatted("Server Closing!\n");
  methods.refuse();
}

void ServerSide::on_closed_async() { logger.formatted("Server Closed!\n"); }

}  // namespace tolk
