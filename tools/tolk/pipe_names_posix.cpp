#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "tools/tolk/pipe_names.h"

namespace tolk::tool {
namespace {

constexpr std::string_view kPrefix = "echo.sock.";

bool is_private(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

bool is_number(const std::string& name) {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

bool before(const std::string& a, const std::string& b) {
  const auto rank = [](const std::string& name) {
    const bool number = is_number(name);
    return std::tuple(!number, number ? name.size() : 0, name);
  };
  return rank(a) < rank(b);
}

}  // namespace

std::string pipe_directory() {
  const std::string uid = std::to_string(geteuid());
  for (const std::string& path : {"/run/user/" + uid, "/tmp/tolk-" + uid}) {
    if (is_private(path)) return path;
  }
  return {};
}

std::vector<std::string> pipe_names() {
  std::vector<std::string> names;
  std::error_code error;  // a directory that goes away meanwhile has no names
  for (const auto& entry : std::filesystem::directory_iterator(pipe_directory(), error)) {
    const std::string file = entry.path().filename().string();
    if (!file.starts_with(kPrefix) || !entry.is_socket(error)) continue;
    names.push_back(file.substr(kPrefix.size()));
  }
  std::sort(names.begin(), names.end(), before);
  return names;
}

}  // namespace tolk::tool
