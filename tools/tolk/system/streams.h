// What every program takes from the system: the words of its command line, its standard streams,
// files by name. Texts are UTF-8 and bytes stay unchanged, whatever the system's own conventions.
//
// Thread: any; `set_up_streams` before any other thread writes. Owner: the caller closes the
// descriptors and files that it gets. Failure: errno, as said below.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tolk::tool {

inline constexpr int kStdin = 0;
inline constexpr int kStdout = 1;
inline constexpr int kStderr = 2;

// The words of the command line, without the program's name.
std::vector<std::string> command_line(int argc, const char* const* argv);

void set_up_streams();

// Whether the descriptor is a terminal, where colours and moves of the cursor work.
bool is_terminal(int descriptor);
// The columns of a terminal; 0 if they are not known.
int columns_of(int descriptor);

// 0, or an errno.
int write_all(int descriptor, std::string_view bytes);

struct CloseFile {
  void operator()(std::FILE* file) const {
    if (file != stdin) (void)std::fclose(file);
  }
};
using FileHandle = std::unique_ptr<std::FILE, CloseFile>;

// Like fopen, with the modes 'r' and 'w', but the bytes stay unchanged. Null and errno if that
// fails.
FileHandle open_file(const std::string& name, char mode);
// An empty file without a name, which goes with its handle.
FileHandle temporary_file();

}  // namespace tolk::tool
