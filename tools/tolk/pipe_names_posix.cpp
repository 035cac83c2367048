#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tools/tolk/pipe_names.h"

namespace tolk::tool {
namespace {

bool is_private(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

}  // namespace

std::string pipe_directory() {
  const std::string uid = std::to_string(geteuid());
  for (const std::string& path : {"/run/user/" + uid, "/tmp/tolk-" + uid}) {
    if (is_private(path)) return path;
  }
  return {};
}

std::vector<std::string> pipes_of_all() {
  std::vector<std::string> pipes;
  std::error_code error;  // a directory that goes away meanwhile has no names
  for (const auto& entry : std::filesystem::directory_iterator(pipe_directory(), error)) {
    if (entry.is_socket(error)) pipes.push_back(entry.path().filename().string());
  }
  return pipes;
}

}  // namespace tolk::tool
