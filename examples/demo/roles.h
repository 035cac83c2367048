// The roles that a process of the demo can have. Each reads one command a line from its standard
// input, reports each step, and then reports that the command is done. It exits at the end of its
// input.
#pragma once

#include <cstddef>
#include <iostream>
#include <string>
#include <utility>

#include "report.h"

namespace demo {

// "pipe", "tcp4" or "tcp6", and the name of the pipe or the port.
struct Address {
  std::string transport;
  std::string name;

  const char* host() const { return transport == "tcp6" ? "::1" : "127.0.0.1"; }
};

// Commands: start, stop.
int server_role(const Address& first);
// Commands: connect, connect_refused, calls, crowd, roll_call, file, close, connect_gone.
int client_role(const std::string& name, const Address& server, std::size_t file_bytes);
// A server of another version, on plain sockets. Commands: start, answer.
int old_server_role();

// Reads commands until the input ends; `run(command)` returns the text that goes with "done".
template <class Run>
int obey(Run run) {
  std::string command;
  while (std::getline(std::cin, command)) {
    Event done;
    done.kind = Event::Kind::done;
    done.result = run(command);
    send(std::move(done));
  }
  return 0;
}

}  // namespace demo
