// The lower bound: blocking reads and writes, one socket for each caller, one thread at each end of
// it, nothing in between. No library that shares a connection among callers can reach it.
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "bench/calls/contestant.h"
#include "bench/calls/frame_format.h"

namespace bench {
namespace {

constexpr std::size_t kBufferBytes = 65536;

// Whole small frames leave in one write.
bool write_frame(const Socket& socket, FrameKind kind, std::string_view payload) {
  const FrameHeader header{static_cast<std::uint32_t>(payload.size()), kind, 0};
  char small[1024];
  std::memcpy(small, &header, sizeof header);
  if (payload.size() > sizeof small - sizeof header) {
    return write_all(socket, {small, sizeof header}) && write_all(socket, payload);
  }
  payload.copy(small + sizeof header, payload.size());
  return write_all(socket, {small, sizeof header + payload.size()});
}

class BareClient final : public Client {
 public:
  BareClient(const Place& place, std::size_t callers) {
    for (std::size_t i = 0; i < callers; ++i) sockets_.push_back(connect_to(place));
  }

  bool echo(std::size_t caller, const std::string& payload) override {
    thread_local std::string answer;
    answer.resize(payload.size());
    FrameHeader header;
    return write_frame(sockets_[caller], FrameKind::echo, payload) &&
           read_all(sockets_[caller], reinterpret_cast<char*>(&header), sizeof header) &&
           header.payload_bytes == payload.size() &&
           read_all(sockets_[caller], answer.data(), answer.size()) && answer == payload;
  }

  bool bulk(std::string_view bytes) override {
    FrameHeader header;
    return write_frame(sockets_[0], FrameKind::bulk, bytes) &&
           read_all(sockets_[0], reinterpret_cast<char*>(&header), sizeof header);
  }

  bool post(const std::string& payload) override {
    return write_frame(sockets_[0], FrameKind::post, payload);
  }

 private:
  std::vector<Socket> sockets_;
};

class Input {
 public:
  explicit Input(const Socket& socket) : socket_(socket), buffer_(kBufferBytes, '\0') {}

  bool read(char* bytes, std::size_t count) {
    while (count != 0) {
      if (begin_ == end_ && count >= kBufferBytes) return read_all(socket_, bytes, count);
      if (begin_ == end_ && !fill()) return false;
      const std::size_t part = std::min(count, end_ - begin_);
      std::memcpy(bytes, buffer_.data() + begin_, part);
      begin_ += part;
      bytes += part;
      count -= part;
    }
    return true;
  }

 private:
  bool fill() {
    const ssize_t count = recv(socket_.get(), buffer_.data(), buffer_.size(), 0);
    begin_ = 0;
    end_ = count > 0 ? static_cast<std::size_t>(count) : 0;
    return count > 0;
  }

  const Socket& socket_;
  std::string buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

void answer_all(const Socket& socket, Shared& shared) {
  Input input(socket);
  std::string payload;
  FrameHeader header;
  while (input.read(reinterpret_cast<char*>(&header), sizeof header)) {
    payload.resize(header.payload_bytes);
    if (!input.read(payload.data(), payload.size())) return;
    if (header.kind == FrameKind::post) {
      ++shared.handled;
    } else if (!write_frame(socket, header.kind,
                            header.kind == FrameKind::echo ? payload : std::string_view())) {
      return;
    }
  }
}

class BareSocket final : public Contestant {
 public:
  void serve(const Place& place, Shared& shared) override {
    const Socket listener = listen_at(place);
    shared.listening = true;
    for (;;) {
      std::thread([&shared, socket = accept_one(listener)] {
        answer_all(socket, shared);
      }).detach();
    }
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t callers) override {
    return std::make_unique<BareClient>(place, callers);
  }

  // Connecting alone, without a first answer.
  ConnectTimes connect_and_close(const Place& place) override {
    using Clock = std::chrono::steady_clock;
    using Microseconds = std::chrono::duration<double, std::micro>;
    const Clock::time_point begin = Clock::now();
    Socket socket = connect_to(place);
    const Clock::time_point connected = Clock::now();
    socket = Socket();
    return {Microseconds(connected - begin).count(),
            Microseconds(Clock::now() - connected).count()};
  }
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::BareSocket contestant;
  return bench::run_contestant(argc, argv, contestant);
}
