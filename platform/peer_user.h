// Which user is at the other end of a local pipe, and whether this process trusts that user.
//
// A pipe is for one user. The directory and the mode of its socket file keep other users out. This
// check is for a directory that was opened to others since, or a file that another user put there.
//
// Thread: the loop thread of the pipe. Owner: none.
// Failure: a user that the system cannot name is not trusted.
#pragma once

#include <uv.h>

#include <string>

namespace tolk::platform {

struct PeerUser {
  bool trusted = false;
  std::string name;  // of a user who is not trusted: "user 1000", or the error of the system
};

// `pipe` is connected. On Windows every user is trusted, since the system itself decides who may
// open a pipe.
PeerUser peer_user(const uv_pipe_t* pipe);

// The rule: a process trusts its own user and the system's administrator.
bool is_trusted_user(unsigned peer, unsigned own);

}  // namespace tolk::platform
