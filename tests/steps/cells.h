// The matrix of steps: each step at which a thread can be held, what gets a thread there, and what
// happens while it is held.
//
// Thread: one round of one cell at a time in a process.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "tests/steps/matrix.h"
#include "tests/steps/world.h"

namespace tolk::test {

// What gets a thread to the step.
enum class Activity {
  call,         // SendMsgFast, with and without a timeout
  turn_call,    // SendMsg
  post,         // PostMsg
  large_call,   // SendMsgEx
  server_call,  // the server's SendMsg
  server_post,  // the server's PostMsg
  connect,
  close,               // the client's
  destroy,             // the client's
  server_close,        // from a host thread
  server_close_async,  // on a pipe
  start,
  lost,  // the connection ends
};

// What happens meanwhile.
enum class Event { peer_dies, close, destroy, server_close, server_destroy };

struct Step {
  const char* point;
  Activity activity;
};

struct Cell {
  Step step;
  Event event;
  Transport transport;
};

const std::vector<Step>& all_steps();
// Without those that make no sense: destroying what is being destroyed.
std::vector<Cell> all_cells();
std::string name_of(const Cell& cell);

// Plays the cell once.
Report play(const Cell& cell, std::mt19937& random, Bystander& bystander);

}  // namespace tolk::test
