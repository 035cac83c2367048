// The address of a local pipe, and the claim of a server on its name.
//
// On Windows a pipe is in the name space of the system. Elsewhere it is a socket file in a
// directory that is private to the user, and a lock file beside it says whether a server is alive:
//
//   server                                   client
//   pipe_address(name)                       pipe_address(name)
//   PipeNameLock::acquire(path)              connect
//   bind, restrict_to_owner(path), listen
//   ... close the listening handle, which removes the socket file ...
//   PipeNameLock::release()
//
// Thread: any; one thread at a time uses a lock. Owner: the server owns its PipeNameLock.
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

// The address of the pipe `name`. Makes the private directory if there is none. Refuses a directory
// that other users own or can enter (UV_EACCES), a name that does not fit in a socket address
// (UV_ENAMETOOLONG), and a name that would leave the directory (UV_EINVAL).
PipeAddress pipe_address(std::string_view name);

// Lets no other user connect to the socket file at `path`. Call it between bind and listen.
int restrict_to_owner(const std::string& path);

// The claim of a server on a pipe name. It ends with the object, and also with the process, unless
// a child that the process forked is still alive.
class PipeNameLock {
 public:
  PipeNameLock() = default;
  ~PipeNameLock() { release(); }
  PipeNameLock(const PipeNameLock&) = delete;
  PipeNameLock& operator=(const PipeNameLock&) = delete;

  // Releases an earlier claim, claims the pipe at `path` (from pipe_address) and removes a file
  // that a dead server left there. UV_EADDRINUSE: a server that is alive has the name; its file
  // stays. UV_EACCES: a file of that name belongs to another user; it stays too.
  int acquire(const std::string& path);

  // Ends the claim, if there is one. In a forked child the files stay: the claim is its parent's.
  void release();

 private:
  std::string lock_path_;
  int descriptor_ = -1;
  std::uint32_t generation_ = 0;  // of the process that made the claim
};

}  // namespace tolk::platform
