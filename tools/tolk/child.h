// Runs a command with a text on its standard input and collects what it prints.
//
// Thread: any, several at a time. Owner: each run waits for its process. Failure: ChildFailed with
// a text that names the command.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tolk::tool {

struct ChildFailed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Whether there is such a program, in PATH if the name has no slash.
bool is_program(const std::string& name);

// What the command printed to its standard output. One that ends with another code than 0 has
// failed, with what it printed to standard error. One that takes longer than `limit` is ended.
std::string output_of(const std::vector<std::string>& command, std::string_view input,
                      std::chrono::milliseconds limit);

// Ends the commands that run, and lets no other one begin.
void end_children();

}  // namespace tolk::tool
