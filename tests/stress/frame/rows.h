// The rows of the matrix: what is done to hosts and peers, one function each.
#pragma once

#include <string>
#include <vector>

#include "tests/stress/frame/run.h"

namespace tolk::stress {

struct Row {
  int number;
  const char* what;
  void (*run)(Run& run);
  int limit_s;  // of the long form: then the watchdog ends it
};

void kill_processes(Run& run);           // kills.cpp
void race_closes(Run& run);              // races.cpp
void answer_late(Run& run);              // late_replies.cpp
void connect_hostile_peers(Run& run);    // hostile_peers.cpp
void send_slowly(Run& run);              // slow_senders.cpp
void run_out_of_descriptors(Run& run);   // descriptors.cpp
void post_to_who_never_reads(Run& run);  // never_reads.cpp
void connect_often(Run& run);            // connects.cpp
void keep_idle_connections(Run& run);    // idle.cpp
void wrap_the_tick(Run& run);            // wrapped_tick.cpp
void interrupt_and_fork(Run& run);       // signals.cpp
void call_through_a_proxy(Run& run);     // through_proxy.cpp
void mix_everything(Run& run);           // mixed.cpp
void race_c_ends(Run& run);              // c_races.cpp
void kill_c_peers(Run& run);             // c_kills.cpp

const std::vector<Row>& rows();

// Runs a row in a separate process; false if it failed, died or took too long.
bool run_guarded(const Row& row, const Options& options);

// Another process of a row: this program again, with a role and its arguments.
using Role = int (*)(const std::vector<std::string>& arguments);
int run_echo_server(const std::vector<std::string>& arguments);       // echo_server.cpp
int run_calling_client(const std::vector<std::string>& arguments);    // kills_client.cpp
int run_proxied_client(const std::vector<std::string>& arguments);    // through_proxy.cpp
int run_restless_client(const std::vector<std::string>& arguments);   // restless_client.cpp
int run_list_descriptors(const std::vector<std::string>& arguments);  // signals.cpp
int run_c_peer(const std::vector<std::string>& arguments);            // c_kills.cpp
Role role_named(const std::string& name);

}  // namespace tolk::stress
