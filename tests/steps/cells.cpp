#include "tests/steps/cells.h"

#include <array>

namespace tolk::test {

const std::vector<Step>& all_steps() {
  using enum Activity;
  static const std::vector<Step> steps{
      {"call.has_turn", turn_call},
      {"call.after_connected", call},
      {"call.listed", call},
      {"call.before_handoff", call},
      {"handoff.before_write", call},
      {"handoff.written", call},
      {"call.before_wait", call},
      {"reply.before_store", call},
      {"reply.stored", call},
      {"call.woken_before_unlist", call},
      {"call.before_result", call},
      {"server_worker.before_handler", call},
      {"server_worker.answered", call},

      {"post.after_connected", post},
      {"post.before_handoff", post},
      {"handoff.before_write", post},
      {"handoff.written", post},
      {"post.before_wait", post},
      {"post.woken", post},

      {"ex.before_register", large_call},
      {"ex.registered", large_call},
      {"call.before_wait", large_call},
      {"ex.pieces_sent", large_call},
      {"ex.result_stored", large_call},
      {"ex.woken_before_unlist", large_call},

      {"server_call.after_running", server_call},
      {"call.listed", server_call},
      {"call.before_handoff", server_call},
      {"handoff.before_write", server_call},
      {"handoff.written", server_call},
      {"call.before_wait", server_call},
      {"client_worker.before_handler", server_call},
      {"client_worker.answered", server_call},
      {"server_reply.before_store", server_call},
      {"server_reply.stored", server_call},
      {"call.woken_before_unlist", server_call},
      {"server_call.before_result", server_call},
      {"server_post.after_running", server_post},
      {"post.before_handoff", server_post},
      {"post.woken", server_post},

      {"connect.has_turn", connect},
      {"loop.before_online", connect},
      {"loop.before_ready", connect},
      {"connect.decided", connect},
      {"accept.before_hook", connect},
      {"accept.after_hook", connect},
      {"accept.before_reading", connect},
      {"call.before_wait", connect},
      {"connect.greeted", connect},

      {"close.before_request", close},
      {"close.requested", close},
      {"close.heard", close},
      {"close.refusing", close},
      {"close.handles_closing", close},
      {"loop.after_run", close},
      {"loop.before_clearmem", close},
      {"loop.after_clearmem", close},
      {"loop.before_ended", close},
      {"loop.before_linger", close},
      {"close.ended", close},
      {"destroy.before_request", destroy},
      {"destroy.requested", destroy},

      {"lost.before_stop", lost},
      {"handoff.before_refusals", lost},
      {"lost.refusing", lost},
      {"lost.handles_closing", lost},
      {"lost.offline", lost},
      {"lost.woken", lost},
      {"loop.after_run", lost},
      {"loop.before_clearmem", lost},
      {"loop.after_clearmem", lost},
      {"loop.before_ended", lost},
      {"client_end.before_hook", lost},
      {"client_end.before_close", lost},

      {"server_close.before_release", server_close},
      {"server_close.released", server_close},
      {"server_close.requested", server_close},
      {"server_stop.heard", server_close},
      {"server_stop.refusing", server_close},
      {"server_stop.connections_closing", server_close},
      {"server_stop.before_stopped", server_close},
      {"server_close.stopped", server_close},
      {"server_loop.after_run", server_close},
      {"server_loop.before_ended", server_close},
      {"server_loop.before_linger", server_close},
      {"closeasync.requested", server_close_async},
      {"closeasync.heard", server_close_async},
      {"closeasync.handles_closing", server_close_async},

      {"start.before_hook", start},
      {"start.before_running", start},
      {"start.running", start},
      {"start.decided", start},
  };
  return steps;
}

namespace {

bool makes_sense(const Cell& cell) {
  const bool client_going = cell.step.activity == Activity::destroy;
  if (client_going && (cell.event == Event::close || cell.event == Event::destroy)) return false;
  if (cell.step.activity == Activity::server_close_async) return cell.transport == Transport::pipe;
  return true;
}

}  // namespace

std::vector<Cell> all_cells() {
  std::vector<Cell> cells;
  for (const Step& step : all_steps()) {
    for (const Event event : {Event::peer_dies, Event::close, Event::destroy, Event::server_close,
                              Event::server_destroy}) {
      for (const Transport transport : {Transport::pipe, Transport::tcp4}) {
        const Cell cell{step, event, transport};
        if (makes_sense(cell)) cells.push_back(cell);
      }
    }
  }
  return cells;
}

std::string name_of(const Cell& cell) {
  constexpr std::array kActivities{
      "call",    "turn call", "post",    "large call",   "server's call",      "server's post",
      "connect", "close",     "destroy", "server close", "server close async", "start",
      "lost"};
  constexpr std::array kEvents{"peer dies", "close", "destroy", "server close", "server destroy"};
  const auto index = [](auto value) { return static_cast<std::size_t>(value); };
  return std::string(cell.step.point) + " of " + kActivities[index(cell.step.activity)] + " x " +
         kEvents[index(cell.event)] + (cell.transport == Transport::pipe ? ", pipe" : ", tcp4");
}

}  // namespace tolk::test
