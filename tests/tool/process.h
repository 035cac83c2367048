// The tolk command as a process: what it is given, what it shows, how it ends.
//
// Thread: the test's. Owner: a Process that still runs when it is destroyed is killed. Failure:
// what does not come within a limit fails the test.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tolk::test {

struct Given {
  bool out_is_terminal = false;
  bool err_is_terminal = false;  // the same terminal, if both are
  std::string input = {};
  std::vector<std::string> environment = {};  // NAME=VALUE
  std::string folder = {};                    // where it runs; here if empty
};

struct Ended {
  int code;         // 128 and the signal where one ended it
  std::string out;  // of a terminal too
  std::string err;
};

class Process {
 public:
  explicit Process(const std::vector<std::string>& words, const Given& given = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Waits until one of the streams has the text; fails the test if it never comes.
  void await(const std::string& text);
  // To the process and those that it has started.
  void signal(int number) const;
  // Types on the terminal.
  void type(const std::string& keys) const;
  Ended end();
  pid_t id() const { return process_; }

 private:
  struct Stream {
    int descriptor = -1;
    std::string text;
    bool ended = false;
    std::thread reader;
  };
  void read_all(Stream& stream);

  pid_t process_ = -1;
  int terminal_ = -1;
  std::mutex mutex_;
  std::condition_variable changed_;
  Stream out_;
  Stream err_;
};

// Runs `tolk` with these words to its end.
Ended tolk_command(std::vector<std::string> words, const Given& given = {});
// `tolk` and the words, for a Process.
std::vector<std::string> tolk_words(std::vector<std::string> words);

}  // namespace tolk::test
