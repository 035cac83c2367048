// What the command takes of the system as every program does: its words, its standard streams,
// files by their names. Texts are UTF-8 and bytes stay as they are, whatever the system makes of
// them otherwise.
//
// Thread: any; `set_up_streams` before any other thread writes. Owner: who gets a descriptor or a
// file closes it. Failure: errno, as said below.
#pragma once

#include <cstdio>
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

// A copy that processes started by this one do not get; -1 if that fails.
int private_copy(int descriptor);
// Descriptor `to` leads where `from` leads.
void redirect(int from, int to);
// A descriptor that takes everything and keeps nothing; -1 if that fails.
int open_nothing();
void close_descriptor(int descriptor);

// Whether people read what is written there. Then colours and moves of the cursor work.
bool is_terminal(int descriptor);
// Of a terminal; 0 if that is not known.
int columns_of(int descriptor);

// 0, or an errno.
int write_all(int descriptor, std::string_view bytes);

// Like fopen, with the modes "r" and "w": the bytes as they are.
std::FILE* open_file(const std::string& name, char mode);

}  // namespace tolk::tool
