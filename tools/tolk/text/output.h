// What the command writes: data to standard output, everything else to standard error.
//
// Thread: any; each call writes its text in one piece.
// Failure: data that cannot be written is a Failure; text that standard error does not take is
// lost.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/tolk/command/common_options.h"
#include "tools/tolk/command/failure.h"

namespace tolk::tool {

// Colours by what they are for. The texts are empty if there are no colours.
struct Colors {
  std::string_view error, hint, name, number, text, dim, off;
};

class Output {
 public:
  // The only one of the process.
  static Output& get();

  // Decides on colours.
  void set_up(const CommonOptions& options);

  // Writes data as it is: the caller adds line ends.
  void data(std::string_view bytes);
  // Writes a line for people, unless --quiet is given. This function and the next two escape
  // control characters, which may come from a peer.
  void note(std::string_view line);
  // Writes a line for people if --verbose is given.
  void detail(std::string_view line);
  // Writes what went wrong and what to try, whatever the options.
  void failure(std::string_view text, std::string_view hint);

  // Replaces the progress line. Does nothing without a terminal, and with --quiet.
  void progress(std::string_view line);
  // Removes the progress line.
  void end_progress();
  // Leaves it where it is: what follows begins on another line.
  void keep_progress();
  // Whether progress is shown. If not, its line need not be made.
  bool shows_progress() const { return progress_; }

  // Whether data goes to a terminal.
  bool data_is_terminal() const;
  // The columns of the terminal at standard error; 80 if they are not known.
  int columns() const;
  // The columns for data: those of the terminal, otherwise those of COLUMNS, otherwise 0: any
  // number.
  int data_columns() const;
  // The colours of data, and of text for standard error.
  const Colors& data_colors() const { return data_colors_; }
  const Colors& note_colors() const { return note_colors_; }

  // Ends the process at once, after the text that is being written. Nothing is destroyed.
  [[noreturn]] void leave(Exit code);

 private:
  Output() = default;

  bool write_error(std::string_view text);

  bool quiet_ = false;
  bool verbose_ = false;
  bool progress_ = false;
  bool line_shown_ = false;  // a progress line is on the terminal
  Colors data_colors_;
  Colors note_colors_;
};

}  // namespace tolk::tool
