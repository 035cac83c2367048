// The matrix of steps of the C interface: each step at which a thread can be held, what gets a
// thread there, and what happens while it is held.
//
// Thread: one round of one cell at a time in a process.
#pragma once

#include <string>
#include <vector>

#include "tests/steps/c_world.h"
#include "tests/steps/matrix.h"

namespace tolk::test {

// What gets a thread to the step.
enum class CActivity {
  call,          // tolk_client_call
  server_call,   // tolk_server_call
  post,          // tolk_client_post
  outcome,       // a call with `done`, of a method that is not there
  answer_later,  // a request that is answered by a host thread
  time_out,      // a call with a short limit
  send_data,     // a call with a source, to a method with a sink
  get_data,      // a call with a sink, of a method with a source
  connect,       // of a second client
  client_close,
  client_free,
  server_close,
  server_free,
  lost,  // the connection ends
};

// What happens meanwhile.
enum class CEvent {
  peer_dies,
  disconnect,  // the server ends the connection
  client_close,
  client_free,
  server_close,
  server_free,
  limit,   // that of the call passes
  cancel,  // of the call
};

struct CCell {
  const char* point;
  CActivity activity;
  CEvent event;
  Transport transport;
  CPair::RunsOn runs_on = CPair::RunsOn::workers;
};

// Without those that make no sense: using what is being freed.
std::vector<CCell> all_c_cells();
std::string name_of(const CCell& cell);

// Plays the cell once.
Report play(const CCell& cell, std::mt19937& random, CPair& bystander);

}  // namespace tolk::test
