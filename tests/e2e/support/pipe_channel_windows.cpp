// A local pipe is a named pipe of the system.
#include <windows.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <utility>

#include "tests/e2e/support/raw_channel.h"

namespace tolk::test {
namespace {

constexpr DWORD kBufferBytes = 65536;

// One read, write or accept that the system carries out on its own.
class Operation {
 public:
  Operation() { overlapped_.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr); }
  ~Operation() { CloseHandle(overlapped_.hEvent); }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  // For the call that starts it.
  OVERLAPPED* begin() {
    const HANDLE event = overlapped_.hEvent;
    overlapped_ = {};
    overlapped_.hEvent = event;
    ResetEvent(event);
    return &overlapped_;
  }
  bool is_over(Milliseconds limit) const {
    const auto most = std::max<std::int64_t>(limit.count(), 0);
    return WaitForSingleObject(overlapped_.hEvent, static_cast<DWORD>(most)) == WAIT_OBJECT_0;
  }
  // Once it is over: how many bytes, 0 when it failed.
  std::size_t outcome(HANDLE pipe) {
    DWORD count = 0;
    return GetOverlappedResult(pipe, &overlapped_, &count, TRUE) != 0 ? count : 0;
  }
  void cancel(HANDLE pipe) {
    CancelIoEx(pipe, &overlapped_);
    outcome(pipe);
  }

 private:
  OVERLAPPED overlapped_{};
};

bool is_under_way(BOOL succeeded) { return succeeded != 0 || GetLastError() == ERROR_IO_PENDING; }

// A read is begun when one is asked for; what it brings waits here until it is taken.
class PipeChannel final : public RawChannel {
 public:
  explicit PipeChannel(HANDLE pipe) : pipe_(pipe) {}
  ~PipeChannel() override {
    if (state_ == Reading::under_way) read_.cancel(pipe_);
    CloseHandle(pipe_);
  }
  PipeChannel(const PipeChannel&) = delete;
  PipeChannel& operator=(const PipeChannel&) = delete;

  std::optional<std::size_t> read_some(char* to, std::size_t most, Milliseconds limit) override {
    if (!is_readable(limit)) return std::nullopt;
    if (state_ == Reading::ended) return 0;
    const std::size_t count = std::min(most, came_ - taken_);
    std::memcpy(to, bytes_.data() + taken_, count);
    taken_ += count;
    if (taken_ == came_) state_ = Reading::idle;
    return count;
  }

  std::optional<std::size_t> write_some(std::string_view bytes, Milliseconds limit) override {
    const auto count = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), kBufferBytes));
    if (!is_under_way(WriteFile(pipe_, bytes.data(), count, nullptr, write_.begin()))) return 0;
    if (write_.is_over(limit)) return write_.outcome(pipe_);
    write_.cancel(pipe_);
    return std::nullopt;
  }

  bool is_readable(Milliseconds limit) override {
    if (state_ == Reading::idle) begin_reading();
    if (state_ == Reading::under_way && read_.is_over(limit)) end_reading();
    return state_ == Reading::done || state_ == Reading::ended;
  }

 private:
  enum class Reading { idle, under_way, done, ended };

  void begin_reading() {
    const bool begun =
        is_under_way(ReadFile(pipe_, bytes_.data(), kBufferBytes, nullptr, read_.begin()));
    state_ = begun ? Reading::under_way : Reading::ended;
  }
  void end_reading() {
    taken_ = 0;
    came_ = read_.outcome(pipe_);
    state_ = came_ > 0 ? Reading::done : Reading::ended;
  }

  const HANDLE pipe_;
  Operation read_;
  Operation write_;
  Reading state_ = Reading::idle;
  std::array<char, kBufferBytes> bytes_;
  std::size_t came_ = 0;
  std::size_t taken_ = 0;
};

// An end of a pipe that waits for its other one.
class PlaceForOne {
 public:
  explicit PlaceForOne(const std::string& path)
      : pipe_(CreateNamedPipeA(path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                               PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
                               PIPE_UNLIMITED_INSTANCES, kBufferBytes, kBufferBytes, 0, nullptr)) {
    EXPECT_NE(pipe_, INVALID_HANDLE_VALUE) << path;
    if (ConnectNamedPipe(pipe_, connect_.begin()) != 0) return;
    const DWORD error = GetLastError();
    taken_ = error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA;  // come, or gone again
    waiting_ = error == ERROR_IO_PENDING;
  }
  ~PlaceForOne() {
    if (pipe_ == INVALID_HANDLE_VALUE) return;
    if (waiting_) connect_.cancel(pipe_);
    CloseHandle(pipe_);
  }
  PlaceForOne(const PlaceForOne&) = delete;
  PlaceForOne& operator=(const PlaceForOne&) = delete;

  bool is_taken(Milliseconds limit) {
    if (waiting_ && connect_.is_over(limit)) {
      waiting_ = false;
      connect_.outcome(pipe_);
      taken_ = true;
    }
    return taken_;
  }
  std::unique_ptr<RawChannel> give() {
    return std::make_unique<PipeChannel>(std::exchange(pipe_, INVALID_HANDLE_VALUE));
  }

 private:
  HANDLE pipe_;
  Operation connect_;
  bool waiting_ = false;
  bool taken_ = false;
};

// Several may come before one is let in.
class PipeAcceptor final : public RawAcceptor {
 public:
  explicit PipeAcceptor(std::string path) : path_(std::move(path)) {
    for (int i = 0; i < kPlaces; ++i) add_place();
  }

  // The system gives the place that has waited longest.
  std::unique_ptr<RawChannel> accept(Milliseconds limit) override {
    const auto end = std::chrono::steady_clock::now() + limit;
    do {
      for (auto place = places_.begin(); place != places_.end(); ++place) {
        if (!(*place)->is_taken(Milliseconds(0))) continue;
        auto channel = (*place)->give();
        places_.erase(place);
        add_place();
        return channel;
      }
      places_.front()->is_taken(Milliseconds(1));
    } while (std::chrono::steady_clock::now() < end);
    return nullptr;
  }

 private:
  static constexpr int kPlaces = 8;

  void add_place() { places_.push_back(std::make_unique<PlaceForOne>(path_)); }

  const std::string path_;
  std::deque<std::unique_ptr<PlaceForOne>> places_;
};

}  // namespace

std::string pipe_path(const std::string& name) { return R"(\\?\pipe\echo.sock.)" + name; }

std::unique_ptr<RawChannel> open_pipe_channel(const std::string& name) {
  const std::string path = pipe_path(name);
  const auto end = std::chrono::steady_clock::now() + kLimit;
  do {
    const HANDLE pipe = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (pipe != INVALID_HANDLE_VALUE) return std::make_unique<PipeChannel>(pipe);
    // Busy: there is such a server, and it will listen again at once.
    if (GetLastError() != ERROR_PIPE_BUSY) return nullptr;
    WaitNamedPipeA(path.c_str(), 100);
  } while (std::chrono::steady_clock::now() < end);
  return nullptr;
}

std::unique_ptr<RawAcceptor> open_pipe_acceptor(const std::string& name) {
  return std::make_unique<PipeAcceptor>(pipe_path(name));
}

}  // namespace tolk::test
