#include "tests/steps/cells.h"

#include <array>

namespace tolk::test {

const std::vector<Step>& all_steps() {
  using enum Activity;
  static const std::vector<Step> steps{
      {"wait.listed", call},
      {"queue.before_post", call},
      {"queue.posted", call},
      {"queue.before_task", call},
      {"queue.after_task", call},
      {"worker.before_handler", call},
      {"worker.answered", call},
      {"result.before_store", call},
      {"result.stored", call},
      {"wait.before_wake", call},
      {"wait.woken", call},
      {"call.woken", call},

      {"wait.listed", turn_call},

      {"queue.before_post", post},
      {"queue.posted", post},
      {"queue.before_task", post},
      {"queue.after_task", post},

      {"large_call.before_register", large_call},
      {"large_call.registered", large_call},
      {"queue.posted", large_call},
      {"worker.before_handler", large_call},
      {"result.stored", large_call},
      {"call.woken", large_call},

      {"wait.listed", server_call},
      {"queue.before_post", server_call},
      {"queue.posted", server_call},
      {"queue.before_task", server_call},
      {"queue.after_task", server_call},
      {"worker.before_handler", server_call},
      {"worker.answered", server_call},
      {"result.before_store", server_call},
      {"result.stored", server_call},
      {"wait.before_wake", server_call},
      {"wait.woken", server_call},
      {"call.woken", server_call},

      {"queue.before_post", server_post},
      {"queue.posted", server_post},
      {"queue.before_task", server_post},
      {"queue.after_task", server_post},

      {"client.before.live", connect},
      {"client.after.live", connect},
      {"wait.listed", connect},
      {"queue.posted", connect},
      {"worker.before_handler", connect},
      {"call.woken", connect},

      {"client.before.close_asked", close},
      {"client.after.close_asked", close},
      {"client.before.closed", close},
      {"client.after.closed", close},
      {"queue.before_refusals", close},
      {"client.before.ended", close},
      {"client.after.ended", close},

      {"client.before.close_asked", destroy},
      {"client.after.close_asked", destroy},

      {"client.before.lost", lost},
      {"client.after.lost", lost},
      {"queue.before_refusals", lost},
      {"client.before.ended", lost},
      {"client.after.ended", lost},

      {"server.before.close_asked", server_close},
      {"server.after.close_asked", server_close},
      {"queue.before_refusals", server_close},
      {"server.before.closed", server_close},
      {"server.after.closed", server_close},
      {"server.before.ended", server_close},
      {"server.after.ended", server_close},

      {"server.before.closeasync_asked", server_close_async},
      {"server.after.closeasync_asked", server_close_async},
      {"queue.before_refusals", server_close_async},
      {"server.before.closed", server_close_async},
      {"server.after.closed", server_close_async},

      {"server.before.live", start},
      {"server.after.live", start},
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

std::vector<MatrixCell> matrix_cells() {
  std::vector<MatrixCell> all;
  for (const Cell& cell : all_cells()) {
    all.push_back({name_of(cell), [cell]() -> PlayRound {
                     const auto bystander = std::make_shared<Bystander>(cell.transport);
                     return [=](std::mt19937& random) { return play(cell, random, *bystander); };
                   }});
  }
  return all;
}

}  // namespace tolk::test
