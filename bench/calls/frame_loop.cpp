#include "bench/calls/frame_loop.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "bench/calls/traffic.h"

namespace bench {
namespace {

constexpr std::size_t kReadBytes = 65536;

Socket opened(int descriptor) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "epoll");
  return Socket(descriptor);
}

}  // namespace

FrameLoop::FrameLoop(OnFrame on_frame)
    : on_frame_(std::move(on_frame)),
      poll_(opened(epoll_create1(EPOLL_CLOEXEC))),
      wake_up_(opened(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      read_buffer_(kReadBytes, '\0') {
  watch(wake_up_.get(), EPOLLIN);
  thread_ = std::thread([this] { run(); });
}

FrameLoop::~FrameLoop() {
  {
    const std::lock_guard<std::mutex> lock(lock_);
    ending_ = true;
  }
  wake();
  thread_.join();
}

int FrameLoop::add(Socket socket) {
  const int descriptor = socket.get();
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
  {
    const std::lock_guard<std::mutex> lock(lock_);
    connections_[descriptor].socket = std::move(socket);
  }
  watch(descriptor, EPOLLIN);
  return descriptor;
}

void FrameLoop::accept_from(Socket listener) {
  listener_ = std::move(listener);
  watch(listener_.get(), EPOLLIN);
}

void FrameLoop::send(int connection, std::string frame) {
  bool first = false;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    first = line_.empty();
    line_.push_back({connection, std::move(frame)});
  }
  if (first) wake();  // one wake-up serves all that is queued
}

void FrameLoop::watch(int descriptor, unsigned events, bool again) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  epoll_ctl(poll_.get(), again ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, descriptor, &event);
}

void FrameLoop::wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(wake_up_.get(), &one, sizeof one);
}

FrameLoop::Connection* FrameLoop::find(int descriptor) {
  const std::lock_guard<std::mutex> lock(lock_);
  const auto at = connections_.find(descriptor);
  return at == connections_.end() ? nullptr : &at->second;
}

void FrameLoop::run() {
  std::array<epoll_event, 64> events;
  for (;;) {
    const int count =
        epoll_wait(poll_.get(), events.data(), static_cast<int>(events.size()), /*no limit*/ -1);
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      const int descriptor = event.data.fd;
      if (descriptor == wake_up_.get()) {
        send_waiting();
        const std::lock_guard<std::mutex> lock(lock_);
        if (ending_) return;
      } else if (descriptor == listener_.get()) {
        if (Socket socket = accept_one(listener_); socket.get() >= 0) add(std::move(socket));
      } else {
        if ((event.events & EPOLLOUT) != 0) {
          if (Connection* const connection = find(descriptor)) write_some(*connection, {});
        }
        if ((event.events & ~unsigned{EPOLLOUT}) != 0) read_some(descriptor);
      }
    }
  }
}

void FrameLoop::send_waiting() {
  std::uint64_t wakes = 0;
  [[maybe_unused]] const ssize_t taken = ::read(wake_up_.get(), &wakes, sizeof wakes);
  std::vector<Outgoing> line;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    line.swap(line_);
  }
  for (const Outgoing& one : line) {
    if (Connection* const connection = find(one.connection)) write_some(*connection, one.frame);
  }
}

// What the system does not take waits for the socket to become writable.
void FrameLoop::write_some(Connection& connection, std::string_view bytes) {
  const bool was_waiting = !connection.out.empty();
  std::string_view rest = bytes;
  if (was_waiting) {
    connection.out.append(bytes);
    rest = connection.out;
  }
  while (!rest.empty()) {
    const ssize_t count = ::send(connection.socket.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count <= 0) break;
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
  if (was_waiting) {
    connection.out.erase(0, connection.out.size() - rest.size());
  } else {
    connection.out.assign(rest);
  }
  if (was_waiting == connection.out.empty()) {
    watch(connection.socket.get(), EPOLLIN | (was_waiting ? 0U : unsigned{EPOLLOUT}), true);
  }
}

void FrameLoop::read_some(int descriptor) {
  Connection* const connection = find(descriptor);
  if (connection == nullptr) return;
  const ssize_t count = recv(descriptor, read_buffer_.data(), read_buffer_.size(), 0);
  if (count < 0 && errno == EAGAIN) return;
  if (count <= 0) {
    const std::lock_guard<std::mutex> lock(lock_);
    connections_.erase(descriptor);
    return;
  }
  connection->in.append(read_buffer_.data(), static_cast<std::size_t>(count));
  hand_on(descriptor, *connection);
}

void FrameLoop::hand_on(int descriptor, Connection& connection) {
  std::string_view rest = connection.in;
  for (std::size_t whole = frame_bytes(rest); whole != 0 && whole <= rest.size();
       whole = frame_bytes(rest)) {
    on_frame_(descriptor, rest.substr(4, whole - 4));
    rest.remove_prefix(whole);
  }
  connection.in.erase(0, connection.in.size() - rest.size());
}

}  // namespace bench
