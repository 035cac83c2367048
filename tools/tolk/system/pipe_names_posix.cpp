#include <filesystem>

#include "tools/tolk/system/pipe_names.h"

namespace tolk::tool {

std::vector<std::string> files_in_pipe_directory() {
  std::vector<std::string> files;
  std::error_code error;  // a directory that is removed meanwhile has no files
  for (const auto& entry : std::filesystem::directory_iterator(pipe_directory(), error)) {
    if (entry.is_socket(error)) files.push_back(entry.path().filename().string());
  }
  return files;
}

}  // namespace tolk::tool
