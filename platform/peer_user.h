// Which user and process are at the other end of a local pipe, and whether this process trusts that
// user.
//
// A pipe is for one user. The directory and the mode of its socket file keep other users out. This
// check is for a directory that was opened to others since, or a file that another user put there.
//
// Thread: the loop thread of the pipe. Owner: none.
// Failure: a user that the system cannot name is not trusted. On Windows, where the system itself
// decides who may open a pipe, the texts are then empty.
#pragma once

#include <uv.h>

#include <cstdint>
#include <string>

namespace tolk::platform {

struct PeerUser {
  bool trusted = false;
  std::string name;  // of a user who is not trusted: "user 1000", or the error of the system
  std::string user;  // the user's number, on Windows the SID; empty if unknown
  // That listened or connected. Another one may have the end since. 0 if unknown.
  std::int64_t process = 0;
};

// `pipe` is connected. On Windows every user is trusted.
PeerUser peer_user(const uv_pipe_t* pipe);

// The rule: a process trusts its own user and the system's administrator.
bool is_trusted_user(unsigned peer, unsigned own);

}  // namespace tolk::platform
