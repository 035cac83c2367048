#include "tests/steps/c_cells.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <initializer_list>
#include <memory>

namespace tolk::test {
namespace {

struct CStep {
  const char* point;
  CActivity activity;
};

using enum CActivity;
constexpr std::array kCSteps{
    CStep{"call.before_register", call},
    CStep{"call.before_register", server_call},
    CStep{"call.before_register", outcome},
    CStep{"call.before_register", send_data},
    CStep{"call.before_register", connect},

    CStep{"peer.before_send", call},
    CStep{"peer.sent", call},
    CStep{"request.received", call},
    CStep{"callback.listed", call},
    CStep{"callback.claimed", call},
    CStep{"callback.returned", call},
    CStep{"request.ending", call},
    CStep{"request.answered", call},
    CStep{"reply.received", call},

    CStep{"peer.before_send", server_call},
    CStep{"request.received", server_call},
    CStep{"request.ending", server_call},
    CStep{"reply.received", server_call},

    CStep{"peer.before_send", post},
    CStep{"peer.sent", post},
    CStep{"request.received", post},
    CStep{"callback.claimed", post},

    CStep{"reply.received", outcome},
    CStep{"callback.listed", outcome},
    CStep{"callback.claimed", outcome},
    CStep{"callback.returned", outcome},

    CStep{"request.ending", answer_later},
    CStep{"request.answered", answer_later},

    CStep{"limit.passed", time_out},
    CStep{"callback.claimed", time_out},

    CStep{"transfer.begun", send_data},
    CStep{"transfer.before_step", send_data},
    CStep{"piece.received", send_data},
    CStep{"transfer.ending", send_data},
    CStep{"request.ending", send_data},

    CStep{"transfer.before_step", get_data},
    CStep{"piece.received", get_data},
    CStep{"transfer.ending", get_data},

    CStep{"client.before.live", connect},
    CStep{"client.after.live", connect},
    CStep{"peer.before_send", connect},
    CStep{"callback.claimed", connect},

    CStep{"end.draining", client_close},
    CStep{"end.calls_closed", client_close},
    CStep{"peer.closed", client_close},
    CStep{"client.after.close_asked", client_close},
    CStep{"client.after.closed", client_close},
    CStep{"client.before.ended", client_close},

    CStep{"end.calls_closed", client_free},
    CStep{"end.before_callbacks", client_free},
    CStep{"callback.claimed", client_free},
    CStep{"client.after.ended", client_free},

    CStep{"end.draining", server_close},
    CStep{"end.calls_closed", server_close},
    CStep{"peer.closed", server_close},
    CStep{"server.after.close_asked", server_close},
    CStep{"server.after.closed", server_close},
    CStep{"server.before.ended", server_close},

    CStep{"end.calls_closed", server_free},
    CStep{"end.before_callbacks", server_free},
    CStep{"callback.claimed", server_free},
    CStep{"server.after.ended", server_free},

    CStep{"peer.closed", lost},
    CStep{"callback.claimed", lost},
    CStep{"client.after.lost", lost},
    CStep{"client.before.ended", lost},
};

// Those at which it matters that a thread of the host runs the callbacks.
constexpr std::array kStepsOfExecutors{
    CStep{"executor.before_call", call},
    CStep{"executor.before_call", post},
    CStep{"executor.before_call", outcome},
    CStep{"executor.before_call", time_out},
    CStep{"executor.before_call", send_data},
    CStep{"executor.before_call", get_data},
    CStep{"executor.before_call", connect},
    CStep{"executor.before_call", client_close},
    CStep{"executor.before_call", client_free},
    CStep{"executor.before_call", server_free},
    CStep{"executor.before_call", lost},

    CStep{"task.before_run", call},
    CStep{"task.before_run", server_call},
    CStep{"task.before_run", post},
    CStep{"task.before_run", outcome},
    CStep{"task.before_run", time_out},
    CStep{"task.before_run", send_data},
    CStep{"task.before_run", get_data},
    CStep{"task.before_run", connect},
    CStep{"task.before_run", client_close},
    CStep{"task.before_run", lost},

    CStep{"callback.listed", call},
    CStep{"callback.listed", outcome},
    CStep{"callback.claimed", call},
    CStep{"callback.claimed", post},
    CStep{"callback.claimed", outcome},
    CStep{"callback.claimed", time_out},
    CStep{"callback.claimed", client_free},
    CStep{"callback.claimed", server_free},
    CStep{"callback.claimed", lost},
    CStep{"callback.returned", call},
    CStep{"callback.returned", outcome},

    CStep{"request.ending", call},
    CStep{"request.answered", call},
    CStep{"request.ending", answer_later},
    CStep{"transfer.before_step", send_data},
    CStep{"transfer.ending", send_data},
    CStep{"transfer.before_step", get_data},
    CStep{"transfer.ending", get_data},

    CStep{"end.draining", client_close},
    CStep{"end.calls_closed", client_close},
    CStep{"end.before_callbacks", client_free},
    CStep{"end.draining", server_close},
    CStep{"end.calls_closed", server_close},
    CStep{"end.before_callbacks", server_free},
};

constexpr std::array kCEvents{CEvent::peer_dies,   CEvent::disconnect,   CEvent::client_close,
                              CEvent::client_free, CEvent::server_close, CEvent::server_free,
                              CEvent::limit,       CEvent::cancel};

bool is_one_of(CActivity activity, std::initializer_list<CActivity> some) {
  return std::find(some.begin(), some.end(), activity) != some.end();
}

// A free ends the use of its object.
bool makes_sense(const CCell& cell) {
  const CActivity activity = cell.activity;
  const bool uses_server = cell.event == CEvent::disconnect || cell.event == CEvent::server_close ||
                           cell.event == CEvent::server_free;
  const bool uses_client = cell.event == CEvent::client_close ||
                           cell.event == CEvent::client_free || cell.event == CEvent::cancel;
  if (activity == server_free && uses_server) return false;
  if (activity == client_free && uses_client) return false;
  if (cell.event == CEvent::limit)
    return is_one_of(activity, {call, server_call, outcome, answer_later, send_data, get_data});
  if (cell.event == CEvent::cancel)
    return is_one_of(activity, {outcome, answer_later, time_out, send_data, get_data});
  return true;
}

// Each cell over one of the transports: the next event over the other one.
template <class Steps>
void add_cells(std::vector<CCell>& cells, const Steps& steps, CPair::RunsOn runs_on) {
  for (const CStep& step : steps) {
    for (const CEvent event : kCEvents) {
      const bool is_pipe = (cells.size() + static_cast<std::size_t>(event)) % 2 == 0;
      const CCell cell{step.point, step.activity, event,
                       is_pipe ? Transport::pipe : Transport::tcp4, runs_on};
      if (makes_sense(cell)) cells.push_back(cell);
    }
  }
}

}  // namespace

std::vector<CCell> all_c_cells() {
  std::vector<CCell> cells;
  add_cells(cells, kCSteps, CPair::RunsOn::workers);
  add_cells(cells, kStepsOfExecutors, CPair::RunsOn::executor);
  return cells;
}

std::string name_of(const CCell& cell) {
  constexpr std::array kActivities{
      "call",         "server's call", "post",           "outcome",
      "answer later", "time out",      "data of a call", "data of an answer",
      "connect",      "client close",  "client free",    "server close",
      "server free",  "lost"};
  constexpr std::array kEvents{"peer dies",    "disconnect",  "client close", "client free",
                               "server close", "server free", "limit",        "cancel"};
  return std::string(cell.point) + " of " + kActivities[static_cast<std::size_t>(cell.activity)] +
         " x " + kEvents[static_cast<std::size_t>(cell.event)] +
         (cell.transport == Transport::pipe ? ", pipe" : ", tcp4") +
         (cell.runs_on == CPair::RunsOn::executor ? ", executor" : "");
}

std::vector<MatrixCell> matrix_cells() {
  std::vector<MatrixCell> all;
  for (const CCell& cell : all_c_cells()) {
    all.push_back({name_of(cell), [cell]() -> PlayRound {
                     const auto bystander = std::make_shared<CPair>(cell.transport);
                     if (!bystander->come_up()) std::abort();
                     return [=](std::mt19937& random) { return play(cell, random, *bystander); };
                   }});
  }
  return all;
}

}  // namespace tolk::test
