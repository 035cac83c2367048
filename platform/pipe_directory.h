// The directory of the socket files. Windows has none.
//
// Thread: any. Owner: none. Failure: `error`, one of libuv's negative codes.
#pragma once

#include <string>

namespace tolk::platform {

struct PipeDirectory {
  std::string path;  // empty when there is an error
  int error = 0;
};

// Returns `runtime_root`/<uid> if it is a directory that `uid` owns and no other user can enter.
// Otherwise it returns `temp_root`/tolk-<uid>: it makes that directory if nothing is there, and
// refuses it unless it is private to `uid` as well. A symbolic link is refused.
PipeDirectory pipe_directory(const std::string& runtime_root, const std::string& temp_root,
                             unsigned uid);

}  // namespace tolk::platform
