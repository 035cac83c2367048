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

// Whether there is such a program; in PATH if the name has no slash.
bool is_program(const std::string& name);

// The command that has the shell run a line.
std::vector<std::string> shell_command(const std::string& line);

// Runs the command and returns what it prints to standard output. The command has failed if it ends
// with another code than 0; the text of the failure then is what it prints to standard error. A
// command that runs longer than `limit` is ended.
std::string output_of(const std::vector<std::string>& command, std::string_view input,
                      std::chrono::milliseconds limit);

// Ends the running commands; no other one can begin afterwards.
void end_children();

}  // namespace tolk::tool
