#include "tests/stress/byte_proxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace tolk::stress {
namespace {

constexpr std::size_t kMostPieces = 20000;  // more than that is not read from the other end

sockaddr_in loopback(const test::Address& address) {
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(static_cast<std::uint16_t>(std::atoi(address.port.c_str())));
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return at;
}

void make_prompt(int descriptor) {
  const int yes = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
}

}  // namespace

ByteProxy::ByteProxy(const test::Address& target, Random random)
    : target_(target),
      address_(test::fresh_address(test::Transport::tcp4)),
      random_(random),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in at = loopback(address_);
  const int yes = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0 ||
      listen(listener_, SOMAXCONN) != 0) {
    std::abort();
  }
  thread_ = std::thread([this] { run(); });
}

ByteProxy::~ByteProxy() {
  done_ = true;
  thread_.join();
  close(listener_);
  for (const int client : waiting_) close(client);
  for (const auto& link : links_) close_link(*link, false);
}

void ByteProxy::run() {
  while (!done_) {
    wait_for_work();
    accept_one();
    connect_waiting();
    std::erase_if(links_, [this](const auto& link) {
      read_some(*link, link->there);
      read_some(*link, link->back);
      if (write_due(*link, link->there) && write_due(*link, link->back)) return false;
      close_link(*link, link->end == End::reset);
      return true;
    });
  }
}

// A millisecond at most: pieces may be due.
void ByteProxy::wait_for_work() {
  std::vector<pollfd> all{{listener_, POLLIN, 0}};
  for (const auto& link : links_) {
    for (const Direction* direction : {&link->there, &link->back}) {
      if (!direction->ended) all.push_back({direction->from, POLLIN, 0});
    }
  }
  poll(all.data(), all.size(), 1);
}

void ByteProxy::accept_one() {
  pollfd one{listener_, POLLIN, 0};
  if (poll(&one, 1, 0) <= 0) return;
  const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) return;
  make_prompt(client);
  if (waiting_.empty()) waiting_since_ = Clock::now();
  waiting_.push_back(client);
}

// Those that have come within a few milliseconds go on in any order.
void ByteProxy::connect_waiting() {
  if (waiting_.empty() || Clock::now() - waiting_since_ < std::chrono::milliseconds(5)) return;
  std::vector<int> order = waiting_;
  std::shuffle(order.begin(), order.end(), random_.engine());
  if (order != waiting_) ++figures_.reordered;
  waiting_.clear();
  for (const int client : order) {
    if (auto link = new_link(client)) links_.push_back(std::move(link));
  }
}

std::unique_ptr<ByteProxy::Link> ByteProxy::new_link(int client) {
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in to = loopback(target_);
  if (connect(server, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
    close(server);
    close(client);
    return nullptr;
  }
  make_prompt(server);
  constexpr std::array kPieces{1, 3, 40, 1400, 65536};
  constexpr std::array kDelays{0, 0, 300, 5000};
  constexpr std::array kEnds{End::by_peers, End::by_peers, End::half_close, End::close, End::reset};
  auto link = std::make_unique<Link>();
  link->there.from = link->back.to = client;
  link->there.to = link->back.from = server;
  link->largest_piece = kPieces.at(static_cast<std::size_t>(random_.between(0, 4)));
  link->longest_delay_us = kDelays.at(static_cast<std::size_t>(random_.between(0, 3)));
  link->end = kEnds.at(static_cast<std::size_t>(random_.between(0, 4)));
  // Many end within the first few messages, some in the middle of a large one.
  link->bytes_until_end = random_.one_in(3) ? random_.between(1, 600) : random_.between(1, 300000);
  ++figures_.connections;
  return link;
}

void ByteProxy::read_some(Link& link, Direction& direction) {
  if (direction.ended || direction.pieces.size() > kMostPieces) return;
  std::array<char, 65536> some;
  const ssize_t count = recv(direction.from, some.data(), some.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    direction.ended = true;
    return;
  }
  if (direction.dropped) return;
  auto due = Clock::now() + std::chrono::microseconds(random_.between(0, link.longest_delay_us));
  if (!direction.pieces.empty()) due = std::max(due, direction.pieces.back().due);
  const std::string_view bytes(some.data(), static_cast<std::size_t>(count));
  for (std::string& piece : direction.cuts.cut(bytes, [&] { return next_piece_size(link); })) {
    direction.pieces.push_back({std::move(piece), due});
  }
}

// A piece is a system call: a link that has seen enough small ones goes on with larger ones.
int ByteProxy::next_piece_size(Link& link) {
  constexpr int kSmallPieces = 2000;
  constexpr int kEthernet = 1400;
  const bool is_tired = ++link.pieces > kSmallPieces;
  return random_.between(1,
                         is_tired ? std::max(link.largest_piece, kEthernet) : link.largest_piece);
}

// False when the link is over.
bool ByteProxy::write_due(Link& link, Direction& direction) {
  const auto now = Clock::now();
  while (!direction.pieces.empty() && direction.pieces.front().due <= now) {
    Piece& piece = direction.pieces.front();
    const ssize_t sent = send(direction.to, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (sent < 0) return false;
    figures_.bytes += sent;
    ++figures_.pieces;
    piece.bytes.erase(0, static_cast<std::size_t>(sent));
    if (!piece.bytes.empty()) return true;
    direction.pieces.pop_front();
    if (!count_down(link, sent)) return false;
    if (link.end == End::half_close && link.bytes_until_end <= 0 && !direction.shut) {
      ++figures_.half_closed;
      link.end = End::by_peers;
      direction.dropped = true;
      direction.pieces.clear();
      shutdown(direction.to, SHUT_WR);
      direction.shut = true;
    }
  }
  if (direction.ended && direction.pieces.empty() && !direction.shut) {
    shutdown(direction.to, SHUT_WR);
    direction.shut = true;
  }
  return !(link.there.ended && link.back.ended && link.there.pieces.empty() &&
           link.back.pieces.empty());
}

// False when the link's own end has come.
bool ByteProxy::count_down(Link& link, long bytes) {
  link.bytes_until_end -= bytes;
  if (link.bytes_until_end > 0) return true;
  if (link.end == End::close) ++figures_.closed;
  if (link.end == End::reset) ++figures_.reset;
  return link.end == End::by_peers || link.end == End::half_close;
}

void ByteProxy::close_link(Link& link, bool with_reset) {
  for (const int descriptor : {link.there.from, link.there.to}) {
    const linger at_once{1, 0};
    if (with_reset) setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(descriptor);
  }
}

}  // namespace tolk::stress
