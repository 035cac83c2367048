#include <windows.h>

#include "tools/tolk/command.h"
#include "tools/tolk/pipe_names.h"
#include "tools/tolk/wide_windows.h"

namespace tolk::tool {
std::string pipe_directory() { return R"(\\.\pipe)"; }

std::vector<std::string> pipes_of_all() {
  std::vector<std::string> pipes;
  WIN32_FIND_DATAW entry;
  const HANDLE all = FindFirstFileW(LR"(\\.\pipe\*)", &entry);
  if (all == INVALID_HANDLE_VALUE) {
    if (GetLastError() == ERROR_FILE_NOT_FOUND) return pipes;
    // Wine up to 8.0 is such a system.
    throw Failure(Exit::failed, pipe_directory() + ": the system does not tell the names of pipes",
                  "tolk ping with the address of the server");
  }
  do {
    pipes.push_back(narrow(entry.cFileName));
  } while (FindNextFileW(all, &entry) != 0);
  FindClose(all);
  return pipes;
}

}  // namespace tolk::tool
