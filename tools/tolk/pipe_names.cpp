#include "tools/tolk/pipe_names.h"

#include <algorithm>
#include <string_view>
#include <tuple>

namespace tolk::tool {
namespace {

constexpr std::string_view kPrefix = "echo.sock.";

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

std::vector<std::string> pipe_names() {
  std::vector<std::string> names;
  for (const std::string& pipe : pipes_of_all()) {
    if (pipe.starts_with(kPrefix)) names.push_back(pipe.substr(kPrefix.size()));
  }
  std::sort(names.begin(), names.end(), before);
  return names;
}

}  // namespace tolk::tool
