#include "tests/e2e/support/raw_peer.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tolk::test {
namespace {

using Clock = std::chrono::steady_clock;

// What is left of a limit that began with this.
class Deadline {
 public:
  explicit Deadline(Milliseconds limit) : end_(Clock::now() + limit) {}
  Milliseconds left() const {
    return std::max(std::chrono::duration_cast<Milliseconds>(end_ - Clock::now()), Milliseconds(0));
  }
  bool is_over() const { return Clock::now() >= end_; }

 private:
  const Clock::time_point end_;
};

// Answers the version request of a new connection.
Greeting answering_version(BlockWriter values) {
  return [values = std::move(values)](RawSocket& client) {
    const auto question = client.read_message();
    if (question) client.send_frame(reply_payload(*question, values));
  };
}

}  // namespace

// RawSocket

RawSocket RawSocket::connect_to(const Address& address) { return RawSocket(open_channel(address)); }

bool RawSocket::send(std::string_view bytes, Milliseconds limit) {
  const Deadline deadline(limit);
  while (!bytes.empty()) {
    if (!is_open()) return false;
    const auto sent = channel_->write_some(bytes, deadline.left());
    if (sent == 0U || (!sent && deadline.is_over())) return false;
    bytes.remove_prefix(sent.value_or(0));
  }
  return true;
}

std::optional<std::string> RawSocket::read(std::size_t count, Milliseconds limit) {
  const Deadline deadline(limit);
  std::string bytes(count, '\0');
  std::size_t have = 0;
  while (have < count) {
    if (!is_open()) return std::nullopt;
    const auto got = channel_->read_some(bytes.data() + have, count - have, deadline.left());
    if (got == 0U || (!got && deadline.is_over())) return std::nullopt;
    have += got.value_or(0);
  }
  return bytes;
}

std::optional<std::string> RawSocket::read_frame(Milliseconds limit) {
  const auto head = read(4, limit);
  if (!head) return std::nullopt;
  return read(word_at(*head), limit);
}

std::optional<Message> RawSocket::read_message(Milliseconds limit) {
  return test::read_message(read_frame(limit));
}

std::optional<std::string> RawSocket::read_until_end(Milliseconds limit) {
  const Deadline deadline(limit);
  std::string bytes;
  std::array<char, 65536> some{};
  while (is_open()) {
    const auto got = channel_->read_some(some.data(), some.size(), deadline.left());
    if (got == 0U) return bytes;
    if (!got && deadline.is_over()) return std::nullopt;
    bytes.append(some.data(), got.value_or(0));
  }
  return std::nullopt;
}

bool RawSocket::is_quiet(Milliseconds limit) { return is_open() && !channel_->is_readable(limit); }

void RawSocket::reset() {
  channel_->close_with_reset();
  close();
}

// RawListener

RawListener::RawListener(const Address& address) : acceptor_(open_acceptor(address)) {}

RawSocket RawListener::accept(Milliseconds limit) { return RawSocket(acceptor_->accept(limit)); }

// RawClient

RawClient::RawClient(const Address& address, bool greet) : socket(RawSocket::connect_to(address)) {
  if (!greet) return;
  const auto answer = call("s_c_version", 1, version_arguments());
  const Scalar* const verdict = answer ? answer->at(0) : nullptr;
  greeted_ = verdict != nullptr && *verdict == Scalar(true);
}

std::optional<Message> RawClient::call(std::string_view name, int call_id,
                                       const std::optional<std::string>& arguments,
                                       const std::optional<std::string>& token) {
  socket.send_frame(call_payload(name, call_id, arguments, token));
  return socket.read_message();
}

bool RawClient::post(std::string_view name, int call_id,
                     const std::optional<std::string>& arguments) {
  return socket.send_frame(call_payload(name, call_id, arguments));
}

// RawServer

Greeting accepting() {
  return answering_version(BlockWriter().add(true).keyed("VERSION", std::string(kVersion)));
}
Greeting refusing() {
  return answering_version(BlockWriter().add(false).keyed("VERSION", std::string(kVersion)));
}
Greeting silent() {
  return [](RawSocket&) {};
}
Greeting hanging_up() {
  return [](RawSocket& client) { client.close(); };
}
Greeting replying(BlockWriter values) { return answering_version(std::move(values)); }

RawServer::RawServer(const Address& address, Greeting greeting)
    : listener_(address), greeting_(std::move(greeting)), thread_([this] { serve(); }) {}

void RawServer::serve() {
  while (stop_.value() == 0) {
    RawSocket client = listener_.accept(Milliseconds(10));
    if (!client.is_open()) continue;
    greeting_(client);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      connections_.push_back(std::move(client));
    }
    greeted_.add();
    came_.notify_all();
  }
}

RawSocket RawServer::take(Milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!came_.wait_for(lock, limit, [&] { return !connections_.empty(); })) return {};
  RawSocket first = std::move(connections_.front());
  connections_.pop_front();
  return first;
}

void RawServer::stop() {
  stop_.add();
  if (thread_.joinable()) thread_.join();
  listener_.stop();
  connections_.clear();
}

}  // namespace tolk::test
