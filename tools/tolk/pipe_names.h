// The names of the local pipes that this user's servers have, dead ones among them.
//
// A server's socket is the file `echo.sock.NAME` in the user's private directory: /run/user/UID if
// that is a directory of the user's, closed to others, /tmp/tolk-UID otherwise. On Windows it is a
// pipe of that name among the pipes of all users.
// Thread: any. Failure: a directory that can not be read has no names; a Failure where the system
// does not tell the names of pipes.
#pragma once

#include <string>
#include <vector>

namespace tolk::tool {

// Where the sockets are; empty where nobody has made the directory yet.
std::string pipe_directory();
// All sockets or pipes that are there, whoever made them for what.
std::vector<std::string> pipes_of_all();
// Numbers first, by their size.
std::vector<std::string> pipe_names();

}  // namespace tolk::tool
