#include <windows.h>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/system/pipe_names.h"
#include "tools/tolk/system/wide_windows.h"

namespace tolk::tool {

std::vector<std::string> files_in_pipe_directory() {
  std::vector<std::string> files;
  WIN32_FIND_DATAW entry;
  const HANDLE all = FindFirstFileW(LR"(\\.\pipe\*)", &entry);
  if (all == INVALID_HANDLE_VALUE) {
    if (GetLastError() == ERROR_FILE_NOT_FOUND) return files;
    // Wine up to 8.0 is such a system.
    throw Failure(Exit::failed, R"(\\.\pipe: the system does not list the names of pipes)",
                  "tolk ping with the address of the server");
  }
  do {
    files.push_back(narrow(entry.cFileName));
  } while (FindNextFileW(all, &entry) != 0);
  FindClose(all);
  return files;
}

}  // namespace tolk::tool
