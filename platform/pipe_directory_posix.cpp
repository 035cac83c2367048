#include <sys/stat.h>
#include <uv.h>

#include <cerrno>

#include "platform/pipe_directory.h"

namespace tolk::platform {
namespace {

// Returns 0 if `path` is a directory of `uid` that is closed to all other users.
int check_private(const std::string& path, unsigned uid) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return uv_translate_sys_error(errno);
  if (!S_ISDIR(status.st_mode)) return UV_ENOTDIR;
  const bool closed_to_others = (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
  return status.st_uid == uid && closed_to_others ? 0 : UV_EACCES;
}

}  // namespace

PipeDirectory pipe_directory(const std::string& runtime_root, const std::string& temp_root,
                             unsigned uid) {
  std::string runtime = runtime_root + "/" + std::to_string(uid);
  if (check_private(runtime, uid) == 0) return {std::move(runtime), 0};

  std::string own = temp_root + "/tolk-" + std::to_string(uid);
  // The check comes after mkdir: it finds a directory that another user made before.
  if (mkdir(own.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    return {{}, uv_translate_sys_error(errno)};
  }
  const int error = check_private(own, uid);
  if (error != 0) return {{}, error};
  return {std::move(own), 0};
}

}  // namespace tolk::platform
