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

// A line is one insertion, so that output of the host does not come before its newline.
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

// The writer and the queue.
class StandardOutput {
 public:
  void put(Manner manner, std::string_view text);
  // Call it at the end of the process, which also ends the thread that writes.
  void write_rest();

 private:
  using Lock = std::unique_lock<std::mutex>;
  using Pieces = std::list<Piece>;

  // Gives the role back, also if the thread is cancelled inside a write.
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
  bool wait_for_the_role(Lock& lock);

  bool begin();
  bool enqueue(Manner manner, std::string_view text);
  void write_pieces();
  bool take_piece(Pieces& piece, bool is_first);

  std::mutex mutex_;
  std::condition_variable role_is_free_;
  std::thread::id writer_;  // by default no thread
  int takers_ = 0;          // threads that wait for the role
  Pieces queue_;
  std::size_t queued_bytes_ = 0;
  const std::uint32_t generation_ = generation();
};

void StandardOutput::put(Manner manner, std::string_view text) {
  if (begin()) {
    const WriterRole role(*this);
    write(manner, text);
    write_pieces();
  } else if (guarded_or(false, [&] { return enqueue(manner, text); })) {
    const WriterRole role(*this);
    write_pieces();
  }
}

void StandardOutput::write_rest() {
  if (generation_ != generation()) return;  // its writer does not exist any more
  {
    Lock lock(mutex_);
    if (is_writer() || !wait_for_the_role(lock)) return;
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

// Returns false if that takes too long: the writer may wait for this thread.
bool StandardOutput::wait_for_the_role(Lock& lock) {
  struct Taker {
    explicit Taker(int& count) : count_(count) { ++count_; }
    ~Taker() { --count_; }
    int& count_;
  };
  const Taker counted(takers_);
  return role_is_free_.wait_for(lock, kPatience, [&] { return writer_ == std::thread::id(); });
}

// Returns true if the caller is now the writer. The queue is then empty.
bool StandardOutput::begin() {
  const Lock lock(mutex_);
  return queue_.empty() && take_role();
}

// Returns true if the caller is now the writer. Its text is then the last in the queue.
bool StandardOutput::enqueue(Manner manner, std::string_view text) {
  Pieces piece;
  piece.push_back({manner, std::string(text)});
  Lock lock(mutex_);
  const bool is_full = queued_bytes_ >= kMaxQueuedBytes;
  if (is_full && (is_writer() || !wait_for_the_role(lock))) return false;
  queued_bytes_ += text.size();
  queue_.splice(queue_.end(), piece);
  return take_role();
}

void StandardOutput::write_pieces() {
  Pieces piece;
  for (bool is_first = true; take_piece(piece, is_first); is_first = false) {
    write(piece.front().manner, piece.front().text);
    piece.clear();
  }
}

// Returns false if the caller is not the writer any more. The writer gives the role to a thread
// that waits for it: otherwise a loop thread would write for as long as other threads print. Each
// writer writes at least one piece, so that the queue gets shorter.
bool StandardOutput::take_piece(Pieces& piece, bool is_first) {
  const Lock lock(mutex_);
  if (queue_.empty() || (takers_ > 0 && !is_first)) {
    end_role();
    return false;
  }
  piece.splice(piece.begin(), queue_, queue_.begin());
  queued_bytes_ -= piece.front().text.size();
  return true;
}

StandardOutput& standard_output() {
  static NeverDestroyed<StandardOutput> output;
  return *output;
}

struct AtExit {
  ~AtExit() {
    guarded([] { standard_output().write_rest(); });
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
