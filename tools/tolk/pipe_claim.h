// Pipes, for what listens at one or connects to one without the library: a socket file in a
// directory that is private to the user, and beside it a lock file, which says whether a server is
// alive (docs/decisions/0007-pipe-addresses.md). On Windows a name that is the system's to guard.
//
// Thread: any. Failure: a Failure that says what is wrong with the directory or the name.
#pragma once

#include <string>

namespace tolk::tool {

// The path of the pipe of that number. Makes the directory when there is none.
std::string pipe_path(int number);

// A server's claim on a pipe's number. It ends with the object or with the process.
class PipeClaim {
 public:
  // Removes the file that a dead server left. A living one's number is refused.
  explicit PipeClaim(int number);
  ~PipeClaim();
  PipeClaim(const PipeClaim&) = delete;
  PipeClaim& operator=(const PipeClaim&) = delete;

  const std::string& path() const { return path_; }
  // Once something listens there: nobody but the user may connect.
  void close_to_others() const;

 private:
  const std::string path_;
  [[maybe_unused]] int descriptor_ = -1;  // of the lock file; Windows needs none
};

}  // namespace tolk::tool
