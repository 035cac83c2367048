// Where a local pipe of a given name is, and who may listen there.
//
// On Windows a pipe lives in the system's own name space. Elsewhere it is a socket file in a
// directory that is private to the user, and a lock file beside it says whether a server is alive:
//
//   server                                   client
//   pipe_address(name)                       pipe_address(name)
//   PipeNameLock::acquire(path)              connect
//   bind, restrict_to_owner(path), listen
//   ... close the listening handle, which removes the socket file ...
//   PipeNameLock::release()
//
// Thread: any; one lock is used by one thread at a time. Owner: whoever holds the PipeNameLock.
// Failure: 0, or one of libuv's negative error codes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tolk::platform {

struct PipeAddress {
  std::string path;  // empty when there is an error
  int error = 0;
};

// The address of the pipe called `name`. Makes the private directory if there is none; refuses one
// that others own or can enter (UV_EACCES), a name that does not fit in a socket address
// (UV_ENAMETOOLONG), and a name that would leave the directory (UV_EINVAL).
PipeAddress pipe_address(std::string_view name);

// Lets no other user connect to the socket file at `path`. Call it between bind and listen.
int restrict_to_owner(const std::string& path);

// A server's claim on a pipe name. It ends with the object, or with the process however that dies,
// unless a child that the process forked is still alive.
class PipeNameLock {
 public:
  PipeNameLock() = default;
  ~PipeNameLock() { release(); }
  PipeNameLock(const PipeNameLock&) = delete;
  PipeNameLock& operator=(const PipeNameLock&) = delete;

  // Claims the pipe at `path` (from pipe_address) and removes a file that a dead server left there.
  // UV_EADDRINUSE: a living server has it; its file is not touched. UV_EACCES: a file of the name
  // is another user's; it is not touched either. Releases an earlier claim.
  int acquire(const std::string& path);

  // Ends the claim. Does nothing when there is none, or in a forked child: the claim is its
  // parent's.
  void release();

 private:
  std::string lock_path_;
  int descriptor_ = -1;
  std::uint32_t generation_ = 0;  // of the process that made the claim
};

}  // namespace tolk::platform
