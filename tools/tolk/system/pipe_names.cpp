#include "tools/tolk/system/pipe_names.h"

#include <algorithm>
#include <tuple>

#include "platform/pipe_name.h"

namespace tolk::tool {
namespace {

// What the paths of all pipes begin with; empty if there is no directory for them.
std::string common_path() { return platform::pipe_address("").path; }

std::size_t directory_size(const std::string& path) {
  return std::min(path.find_last_of("/\\"), path.size());
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
  const std::string path = common_path();
  return path.substr(0, directory_size(path));
}

std::vector<std::string> pipe_names() {
  std::vector<std::string> names;
  const std::string path = common_path();
  if (path.empty()) return names;
  const std::string prefix = path.substr(directory_size(path) + 1);
  for (const std::string& file : files_in_pipe_directory()) {
    if (file.starts_with(prefix)) names.push_back(file.substr(prefix.size()));
  }
  std::sort(names.begin(), names.end(), before);
  return names;
}

}  // namespace tolk::tool
