// Shutdown: from a host thread, from the loop thread (a hook, a client's request), and through the
// wake-up.
#include <chrono>
#include <optional>
#include <utility>

#include "params/content.h"
#include "server/core.h"
#include "transport/frame_writer.h"
#include "transport/names.h"
#include "transport/pause_point.h"

namespace tolk {
namespace {

// A hook that waits for something of the caller's may not hold a close up for ever.
constexpr std::chrono::milliseconds kStopLimit{1000};
constexpr unsigned kCloseAsyncPauseMs = 200;
constexpr unsigned kAnswerLimitMs = 200;

}  // namespace

// Any thread.

void ServerCore::close(Connection* answered) {
  logger.formatted("Server Closing!\n");
  if (!isok() || stopped_.exchange(true)) return;
  TOLK_PAUSE_POINT("server_close.before_release");
  methods.refuse();
  if (!custom_release) {
    methods.release_all(MethodRegistry::Custody::library);
    logger.drop_doomed_sink();
  }
  TOLK_PAUSE_POINT("server_close.released");
  const auto current = session();
  if (current->on_own_thread()) {
    current->stop_for_close(answered);
  } else {
    current->request_stop(ServerSession::Stop::for_close);
    TOLK_PAUSE_POINT("server_close.requested");
    current->wait_for(LoopSession::Milestone::stopped, kStopLimit);
  }
  TOLK_PAUSE_POINT("server_close.stopped");
  running = false;
  logger.formatted("Server Closed!\n");
}

// Only a pipe server has the wake-up for it: on TCP nobody hears the request.
bool ServerCore::closeasync() {
  if (!isok()) {
    logger.formatted("server closeasync\n");
    return true;
  }
  const auto current = session();
  if (!current->is_tcp()) current->request_stop(ServerSession::Stop::for_closeasync);
  TOLK_PAUSE_POINT("closeasync.requested");
  uv_sleep(kCloseAsyncPauseMs);
  if (isok()) logger.formatted("bad close\n");
  return true;
}

// Finds work only if the close before it came while a start was under way. A start whose session
// does not hear it yet abandons the core itself.
void ServerCore::abandon() {
  destroyed_ = true;
  if (const auto current = session()) current->request_stop(ServerSession::Stop::abandoned);
}

void ServerSession::request_stop(Stop how) {
  Stop nobody = Stop::none;
  stop_request_.compare_exchange_strong(nobody, how);
  post_ready();
}

// Loop.

void ServerSession::stop_as_requested() {
  check_loop_thread();
  const Stop how = stop_request_;
  if (how == Stop::for_close) return stop_for_close(nullptr);
  // On purpose: who destroys a pipe server gets its handlers back.
  if (how != Stop::abandoned || !is_tcp()) return stop_for_closeasync();
  core_.close();
  if (!stopping()) stop_for_close(nullptr);  // another thread is inside a close
}

// Connections in the order of their accept, then the listener, then what is left.
void ServerSession::stop_for_close(Connection* answered) {
  check_loop_thread();
  TOLK_PAUSE_POINT("server_stop.heard");
  begin_stop();
  TOLK_PAUSE_POINT("server_stop.refusing");
  drops_replies_ = true;
  for (Connection* connection : connections_) {
    if (connection != answered) close_handle(&connection->handle);
  }
  connections_.clear();
  TOLK_PAUSE_POINT("server_stop.connections_closing");
  close_handle(&listener_.handle);
  name_lock_.release();
  if (answered == nullptr) {
    close_all_handles();
  } else {
    keep_for_answer();
  }
  TOLK_PAUSE_POINT("server_stop.before_stopped");
  stop_loop();
  reach(Milestone::stopped);
}

// Closing the connection now would take the answer back if it is still queued.
void ServerSession::keep_for_answer() {
  close_handle(wake_up());
  if (sweep_started_) close_handle(reinterpret_cast<uv_handle_t*>(&sweep_));
  const bool timed = uv_timer_init(loop(), &answer_limit_) == 0;
  answer_limit_.data = this;
  if (!timed || uv_timer_start(&answer_limit_, on_answer_limit, kAnswerLimitMs, 0) != 0) {
    close_all_handles();
  }
}

void ServerSession::on_answer_limit(uv_timer_t* timer) {
  auto* const session = static_cast<ServerSession*>(timer->data);
  session->check_loop_thread();
  session->close_all_handles();
}

void ServerSession::on_answer_written(uv_write_t* request, int status) {
  ServerSession& session = static_cast<Connection*>(request->handle->data)->session;
  session.check_loop_thread();
  write_server_cb(request, status);
  if (session.stopping()) session.close_all_handles();
}

void ServerSession::answer_close_request(Connection& connection, const Envelope& envelope) {
  TolkParams yes;
  yes.AddBool(true);
  Frame answer = server_reply_frame(TolkParamsAccess::take_bytes(yes), envelope.call_id.value_or(0),
                                    std::nullopt);
  const int status = write_frame(&connection.stream, std::move(answer), on_answer_written);
  core_.close(status < 0 ? nullptr : &connection);
}

// The close handler of the wake-up. It keeps the handlers, but none is called any more.
void ServerSession::stop_for_closeasync() {
  check_loop_thread();
  core_.logger.formatted("Server Closing!\n");
  TOLK_PAUSE_POINT("closeasync.heard");
  begin_stop();
  close_all_handles();
  name_lock_.release();
  TOLK_PAUSE_POINT("closeasync.handles_closing");
  core_.end_by_closeasync();
  core_.logger.formatted("Server Closed!\n");
  stop_loop();
  reach(Milestone::stopped);
}

void ServerCore::end_by_closeasync() {
  methods.refuse();
  stopped_ = true;
  running = false;
}

}  // namespace tolk
