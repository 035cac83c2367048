#include "bench/calls/bare_socket.h"

#include <sys/socket.h>

#include <cstring>
#include <list>
#include <thread>
#include <utility>
#include <vector>

namespace bench {
namespace {

// A frame that is sent again and again with another mark.
struct Caller {
  Caller(Socket socket, std::size_t frame_bytes)
      : frames(std::move(socket)), frame(make_frame(frame_bytes)) {}

  FrameSocket frames;
  std::string frame;
};

class BareCalls final : public Contestant {
 public:
  BareCalls(Transport transport, const std::string& name, std::size_t callers, FrameBytes bytes)
      : bytes_(bytes) {
    for (std::size_t i = 0; i < callers; ++i) {
      callers_.emplace_back(connect_to(transport, name), bytes.call);
    }
  }

  bool exchange(std::size_t caller, std::uint32_t stamp) override {
    Caller& own = callers_[caller];
    put_mark(own.frame, {stamp, 0, static_cast<std::uint32_t>(bytes_.reply)});
    if (!own.frames.write(own.frame)) return false;
    const std::string_view payload = own.frames.read();
    return payload.size() + 4 == bytes_.reply && mark_of(payload).stamp == stamp;
  }

 private:
  const FrameBytes bytes_;
  std::vector<Caller> callers_;
};

class BarePosts final : public Contestant {
 public:
  BarePosts(Transport transport, const std::string& name, std::size_t count, FrameBytes bytes)
      : count_(count), bytes_(bytes), caller_(connect_to(transport, name), bytes.call) {}

  std::size_t calls_each() const override { return count_; }

  bool exchange(std::size_t, std::uint32_t stamp) override {
    put_mark(caller_.frame, {stamp, 0, static_cast<std::uint32_t>(bytes_.reply)});
    bool right = true;
    std::thread reader([&] {
      for (std::size_t i = 0; i < count_ && right; ++i) {
        right = mark_of(caller_.frames.read()).stamp == stamp;
      }
    });
    bool written = true;
    for (std::size_t i = 0; i < count_ && written; ++i) {
      written = caller_.frames.write(caller_.frame);
    }
    reader.join();
    return right && written;
  }

 private:
  const std::size_t count_;
  const FrameBytes bytes_;
  Caller caller_;
};

// One thread for each connection.
class BareServer final : public PeerServer {
 public:
  explicit BareServer(Transport transport)
      : listener_(listen_somewhere(transport, name_)), acceptor_([this] { accept_all(); }) {}

  ~BareServer() override {
    listener_.end();
    acceptor_.join();
    for (Peer& peer : peers_) {
      peer.frames.socket().end();
      peer.thread.join();
    }
  }

  std::string name() const override { return name_; }

 private:
  struct Peer {
    explicit Peer(Socket socket) : frames(std::move(socket)) {}

    FrameSocket frames;
    std::thread thread;
  };

  void accept_all() {
    for (Socket socket = accept_one(listener_); socket.get() >= 0; socket = accept_one(listener_)) {
      // Idle while another contestant has its turn: no limit here.
      const timeval none{};
      setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
      Peer& peer = peers_.emplace_back(std::move(socket));
      peer.thread = std::thread([&peer] { answer_all(peer.frames); });
    }
  }

  static void answer_all(FrameSocket& frames) {
    std::string reply;
    for (std::string_view call = frames.read(); !call.empty(); call = frames.read()) {
      const Mark mark = mark_of(call);
      if (reply.size() != mark.reply_bytes) reply = make_frame(mark.reply_bytes);
      put_mark(reply, mark);
      if (!frames.write(reply)) return;
    }
  }

  std::string name_;
  Socket listener_;
  std::list<Peer> peers_;  // the acceptor's, until it has ended
  std::thread acceptor_;
};

}  // namespace

std::string_view FrameSocket::read() {
  for (;;) {
    const std::string_view waiting(buffer_.data() + begin_, end_ - begin_);
    const std::size_t whole = frame_bytes(waiting);
    if (whole != 0 && whole <= waiting.size()) {
      begin_ += whole;
      return waiting.substr(4, whole - 4);
    }
    if (begin_ != 0) std::memmove(buffer_.data(), waiting.data(), waiting.size());
    begin_ = 0;
    end_ = waiting.size();
    if (whole > buffer_.size()) buffer_.resize(whole);
    const ssize_t count = recv(socket_.get(), buffer_.data() + end_, buffer_.size() - end_, 0);
    if (count <= 0) return {};
    end_ += static_cast<std::size_t>(count);
  }
}

std::unique_ptr<Contestant> bare_calls(Transport transport, const std::string& name,
                                       std::size_t callers, FrameBytes bytes) {
  return std::make_unique<BareCalls>(transport, name, callers, bytes);
}

std::unique_ptr<Contestant> bare_posts(Transport transport, const std::string& name,
                                       std::size_t count, FrameBytes bytes) {
  return std::make_unique<BarePosts>(transport, name, count, bytes);
}

std::unique_ptr<PeerServer> start_bare_server(Transport transport) {
  return std::make_unique<BareServer>(transport);
}

}  // namespace bench
