// The directory that socket files are in. Not on Windows.
//
// Thread: any. Owner: none. Failure: `error`, one of libuv's negative codes.
#pragma once

#include <string>

namespace tolk::platform {

struct PipeDirectory {
  std::string path;  // empty when there is an error
  int error = 0;
};

// `runtime_root`/<uid> if it is a directory that `uid` owns and nobody else can enter; otherwise
// `temp_root`/tolk-<uid>, which is made if nothing is there and refused unless it is the same kind
// of directory. Symbolic links are not followed: what is a link is not a directory.
PipeDirectory pipe_directory(const std::string& runtime_root, const std::string& temp_root,
                             unsigned uid);

}  // namespace tolk::platform
