// Closing: the host's side, the loop thread's, and the release of what the connection used.
#include "client/core.h"
#include "transport/pause_point.h"
#include "transport/wait_list.h"

namespace tolk {

// Host.

void ClientCore::close() {
  logger.formatted("Client Closing!\n");
  if (!isok()) {
    logger.formatted("client closeasync\n");
    return;
  }
  const auto current = session();
  TOLK_PAUSE_POINT("close.before_request");
  current->request_close();
  TOLK_PAUSE_POINT("close.requested");
  current->wait_for(LoopSession::Milestone::ended);
  TOLK_PAUSE_POINT("close.ended");
  // So it is when a hook or a handler's destructor closes, on the loop thread that can't wait for
  // itself.
  if (isok()) logger.formatted("bad close\n");
  logger.formatted("Client Closed!\n");
}

void ClientCore::abandon() {
  destroyed_ = true;
  const auto current = session();
  if (!current) return;
  TOLK_PAUSE_POINT("destroy.before_request");
  current->request_close();
  TOLK_PAUSE_POINT("destroy.requested");
  current->wait_for(LoopSession::Milestone::ended);
}

// The close of a client whose loop has no thread of its own. No operation makes one, so a connected
// client takes the usual road.
void ClientCore::closeClient() {
  ClearMem();
  if (isok()) close();
}

void ClientCore::ClearMem() {
  client_waits().wake_all();
  methods.release_all(custom_release ? MethodRegistry::Custody::host
                                     : MethodRegistry::Custody::library);
}

// Any thread.

void ClientSession::request_close() { post_ready(); }

// Loop.

void ClientSession::close_by_host() {
  check_loop_thread();
  core_.logger.formatted("Client Closing!\n");
  TOLK_PAUSE_POINT("close.heard");
  begin_stop();
  TOLK_PAUSE_POINT("close.refusing");
  close_all_handles();
  TOLK_PAUSE_POINT("close.handles_closing");
  core_.logger.formatted("Client Closed!\n");
  stop_loop();
}

}  // namespace tolk
