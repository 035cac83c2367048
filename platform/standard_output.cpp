#include "platform/standard_output.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <iostream>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "platform/guarded.h"
#include "platform/never_destroyed.h"
#include "platform/process.h"

namespace tolk::platform {
namespace {

enum class Manner { text, line, lines, desync };

struct Piece {
  Manner manner;
  std::string text;
};

void write_lines(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n') + 1);
    // Unformatted: a width that the host set is for the host's own text.
    std::cout.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
    text.remove_prefix(line.size());
  }
}

// One insertion a line, so that the host's own output does not come before its newline.
void write(Manner manner, std::string_view text) {
  guarded([&] {
    switch (manner) {
      case Manner::text:
        std::cout << text;
        break;
      case Manner::line:
        std::cout << text << std::flush;
        break;
      case Manner::lines:
        write_lines(text);
        break;
      case Manner::desync:
        std::ios_base::sync_with_stdio(false);
        break;
    }
  });
}

// Who writes, and what others left to that thread.
class StandardOutput {
 public:
  void put(Manner manner, std::string_view text);
  // At the end of the process: the writer may end with it at any moment.
  void write_what_is_left();

 private:
  using Lock = std::unique_lock<std::mutex>;
  using Pieces = std::list<Piece>;

  // Gives the role back also when the writer is cancelled inside a write.
  class WriterRole {
   public:
    explicit WriterRole(StandardOutput& output) : output_(output) {}
    ~WriterRole() {
      const Lock lock(output_.mutex_);
      if (output_.is_writer()) output_.end_role();
    }
    WriterRole(const WriterRole&) = delete;
    WriterRole& operator=(const WriterRole&) = delete;

   private:
    StandardOutput& output_;
  };

  // With the lock:
  bool is_writer() const { return writer_ == std::this_thread::get_id(); }
  bool take_role();
  void end_role();
  bool wait_until_nobody_writes(Lock& lock);

  bool begin_with_own();
  bool begin_after_leaving(Manner manner, std::string_view text);
  void write_pieces();
  bool take_piece(Pieces& piece, bool is_first);

  std::mutex mutex_;
  std::condition_variable role_is_free_;
  std::thread::id writer_;  // nobody by default
  int takers_ = 0;          // threads that wait for the role
  Pieces left_;
  std::size_t bytes_left_ = 0;
  const std::uint32_t generation_ = generation();
};

void StandardOutput::put(Manner manner, std::string_view text) {
  if (begin_with_own()) {
    const WriterRole role(*this);
    write(manner, text);
    write_pieces();
  } else if (guarded_or(false, [&] { return begin_after_leaving(manner, text); })) {
    const WriterRole role(*this);
    write_pieces();
  }
}

void StandardOutput::write_what_is_left() {
  if (generation_ != generation()) return;  // the threads that were here are not
  {
    Lock lock(mutex_);
    if (is_writer() || !wait_until_nobody_writes(lock)) return;
    take_role();
  }
  const WriterRole role(*this);
  write_pieces();
}

bool StandardOutput::take_role() {
  if (writer_ != std::thread::id()) return false;
  writer_ = std::this_thread::get_id();
  return true;
}

void StandardOutput::end_role() {
  writer_ = std::thread::id();
  if (takers_ > 0) role_is_free_.notify_one();
}

// False when that takes too long: the writer may wait for the caller.
bool StandardOutput::wait_until_nobody_writes(Lock& lock) {
  struct Taker {
    explicit Taker(int& count) : count_(count) { ++count_; }
    ~Taker() { --count_; }
    int& count_;
  };
  const Taker counted(takers_);
  return role_is_free_.wait_for(lock, kPatience, [&] { return writer_ == std::thread::id(); });
}

// True: the caller is the writer, and nothing comes before its own text.
bool StandardOutput::begin_with_own() {
  const Lock lock(mutex_);
  return left_.empty() && take_role();
}

// True: the caller is the writer, and its text is the last of the pieces.
bool StandardOutput::begin_after_leaving(Manner manner, std::string_view text) {
  Pieces piece;
  piece.push_back({manner, std::string(text)});
  Lock lock(mutex_);
  const bool is_full = bytes_left_ >= kMostBytesLeft;
  if (is_full && (is_writer() || !wait_until_nobody_writes(lock))) return false;
  bytes_left_ += text.size();
  left_.splice(left_.end(), piece);
  return take_role();
}

void StandardOutput::write_pieces() {
  Pieces piece;
  for (bool is_first = true; take_piece(piece, is_first); is_first = false) {
    write(piece.front().manner, piece.front().text);
    piece.clear();
  }
}

// False: the caller is the writer no more. It hands the role to a thread that waits for it, or a
// thread of a loop would go on writing for as long as others print. Each writer writes at least one
// piece, so that threads that take the role in turn get on.
bool StandardOutput::take_piece(Pieces& piece, bool is_first) {
  const Lock lock(mutex_);
  if (left_.empty() || (takers_ > 0 && !is_first)) {
    end_role();
    return false;
  }
  piece.splice(piece.begin(), left_, left_.begin());
  bytes_left_ -= piece.front().text.size();
  return true;
}

StandardOutput& standard_output() {
  static NeverDestroyed<StandardOutput> output;
  return *output;
}

struct AtExit {
  ~AtExit() {
    guarded([] { standard_output().write_what_is_left(); });
  }
};
const AtExit at_exit;

}  // namespace

void print(std::string_view text) { standard_output().put(Manner::text, text); }

void print_line(std::string_view text) {
  std::array<char, 256> line{};
  if (text.size() < line.size()) {
    *std::copy(text.begin(), text.end(), line.begin()) = '\n';
    return standard_output().put(Manner::line, {line.data(), text.size() + 1});
  }
  guarded([&] { standard_output().put(Manner::line, std::string(text) + '\n'); });
}

void print_lines(std::string_view text) { standard_output().put(Manner::lines, text); }

void desync_standard_output() { standard_output().put(Manner::desync, {}); }

}  // namespace tolk::platform
