// Where the command writes: data to standard output, everything else to standard error.
//
// The library prints lines of its own to standard output, so the process's descriptor 1 is pointed
// elsewhere before the library is used: at standard error when they are wanted, at nothing
// otherwise. Data goes to a copy of the real one, which only this knows.
// Thread: any; each call writes its text as a whole, never between the parts of another's.
// Failure: data that can not be written is a Failure; what standard error does not take is lost.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/tolk/command.h"

namespace tolk::tool {

// Colours by what they are for. The texts are empty where there is no colour.
struct Colors {
  std::string_view error, hint, name, number, text, dim, off;
};

class Output {
 public:
  // The process's only one.
  static Output& get();

  // Takes standard output from the library, and decides on colours. Before the library is used.
  void set_up(const Options& options);

  // Data, as it is: the caller brings the line ends.
  void data(std::string_view bytes);
  // A line for people; not with --quiet. Control characters, which may be a peer's, are escaped in
  // this and the next two.
  void note(std::string_view line);
  // A line for people who asked for more with --verbose.
  void detail(std::string_view line);
  // What went wrong, and what to try. Always.
  void failure(std::string_view text, std::string_view hint);

  // Replaces the line of progress. Only on a terminal, and not with --quiet.
  void progress(std::string_view line);
  // Takes the line of progress away.
  void end_progress();
  // Whether progress is shown; otherwise nobody needs to make up its line.
  bool shows_progress() const { return progress_; }

  // Whether data goes to a terminal.
  bool data_is_terminal() const;
  // The columns of the terminal that standard error is; 80 if that is not known.
  int columns() const;
  // For data, and for what goes to standard error.
  const Colors& data_colors() const { return data_colors_; }
  const Colors& note_colors() const { return note_colors_; }

  // Ends the process at once, after what is being written. Nothing is destroyed.
  [[noreturn]] void leave(Exit code);

 private:
  Output();

  bool write_error(std::string_view text);

  int data_descriptor_;
  bool quiet_ = false;
  bool verbose_ = false;
  bool progress_ = false;
  bool line_shown_ = false;  // a line of progress stands there
  Colors data_colors_;
  Colors note_colors_;
};

}  // namespace tolk::tool
