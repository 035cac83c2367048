#include "tests/steps/relay.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace tolk::test {
namespace {

constexpr Milliseconds kAcceptStep{20};

// What there is from one to the other. False when one of them has gone.
bool pass_some(const RawSocket& from, RawSocket& to) {
  std::array<char, 65536> some;
  const ssize_t count = recv(from.descriptor(), some.data(), some.size(), MSG_DONTWAIT);
  if (count <= 0) return false;
  return to.send(std::string_view(some.data(), static_cast<std::size_t>(count)));
}

}  // namespace

Relay::Relay(const Address& front, Address back)
    : back_(std::move(back)),
      listener_(front),
      wake_up_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_([this] { work(); }) {}

Relay::~Relay() {
  cut(Ending::closed);
  ::close(wake_up_);
}

void Relay::cut(Ending ending) {
  if (!thread_.joinable()) return;
  cut_ = true;
  eventfd_write(wake_up_, 1);
  thread_.join();
  listener_.stop();
  for (RawSocket* side : {&client_, &server_}) {
    if (ending == Ending::reset && side->is_open()) side->reset();
    side->close();
  }
}

void Relay::work() {
  while (wanted() && !client_.is_open()) client_ = listener_.accept(kAcceptStep);
  if (!client_.is_open()) return;
  server_ = RawSocket::connect_to(back_);
  while (wanted() && server_.is_open() && pass_on()) {
  }
  if (!wanted()) return;
  // One side ended the connection: so does the relay.
  client_.end_sending();
  if (server_.is_open()) server_.end_sending();
}

// Waits for bytes and passes them on. False when a side has ended.
bool Relay::pass_on() {
  std::array<pollfd, 3> watched{{{client_.descriptor(), POLLIN, 0},
                                 {server_.descriptor(), POLLIN, 0},
                                 {wake_up_, POLLIN, 0}}};
  if (poll(watched.data(), watched.size(), -1) < 0) return true;
  if (!wanted()) return false;
  if (watched[0].revents != 0 && !pass_some(client_, server_)) return false;
  return watched[1].revents == 0 || pass_some(server_, client_);
}

}  // namespace tolk::test
