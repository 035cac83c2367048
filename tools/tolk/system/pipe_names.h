// The names of the local pipes of this user's servers. A server that was killed leaves its name.
//
// Thread: any. Failure: a directory that cannot be read has no names; a Failure if the system does
// not list pipes.
#pragma once

#include <string>
#include <vector>

namespace tolk::tool {

// Where the pipes are. Created if it does not exist; empty if the library would refuse it.
std::string pipe_directory();

// All sockets or pipes there, whichever program made them.
std::vector<std::string> files_in_pipe_directory();

// The names of servers' pipes. Numbers come first, in ascending order.
std::vector<std::string> pipe_names();

}  // namespace tolk::tool
