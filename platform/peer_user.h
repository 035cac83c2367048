// Which user is at the other end of a local pipe, and whether this process talks to it.
//
// A pipe is for one user. The directory and the mode of its socket file keep others away; this is
// the second lock, for a directory that somebody has opened since, or a file that was put there.
//
// Thread: the loop thread of the pipe. Owner: none.
// Failure: whom the system can't name is not trusted.
#pragma once

#include <uv.h>

#include <string>

namespace tolk::platform {

struct PeerUser {
  bool trusted = false;
  std::string name;  // of one who is not: "user 1000", or why it is not known
};

// `pipe` is connected. On Windows everybody is trusted: there the pipe itself knows who may open
// it.
PeerUser peer_user(const uv_pipe_t* pipe);

// The rule: a process talks to processes of its own user and of the system's administrator.
bool is_trusted_user(unsigned peer, unsigned own);

}  // namespace tolk::platform
