// The names of the local pipes that this user's servers have, dead ones among them.
//
// A server's socket is the file `echo.sock.NAME` in the user's private directory: /run/user/UID if
// that is a directory of the user's, closed to others, /tmp/tolk-UID otherwise.
// Thread: any. Failure: a directory that can not be read has no names.
#pragma once

#include <string>
#include <vector>

namespace tolk::tool {

// Where the sockets are; empty where nobody has made the directory yet.
std::string pipe_directory();
// Numbers first, by their size.
std::vector<std::string> pipe_names();

}  // namespace tolk::tool
