/// @file
/// The caller of a handler.
#pragma once

#include <tolk/layer/peer.hpp>

namespace tolk {
inline namespace v1 {

/// The caller of a handler. A handler takes it as an extra parameter in any position; the caller
/// does not pass it as an argument.
///
/// Thread: a value; `call` and `post` are safe on any thread. A handler may keep it after it
/// returns. Failure: `call` and `post` return an Error after the connection has ended.
class Caller {
 public:
  /// @cond internal
  Caller(int id, std::string_view method, std::weak_ptr<detail::Peer> back)
      : id_(id), method_(method), back_(std::move(back)) {}
  /// @endcond

  /// On a server, the client's id for Server::call. On a client, the id of its connection.
  int id() const noexcept { return id_; }
  /// The name of the called method.
  const std::string& method() const noexcept { return method_; }

  /// Calls a method of the caller, like Client::call. The handler occupies one of the four workers
  /// of the process while it waits.
  template <class T = void, class... Args>
  Result<T> call(std::string_view method, const Args&... args) const {
    const auto peer = back_.lock();
    if (!peer) return ended(method);
    return detail::call<T>(*peer, id_, method, args...);
  }

  /// Posts a call to the caller, like Client::post.
  template <class... Args>
  Result<void> post(std::string_view method, const Args&... args) const {
    const auto peer = back_.lock();
    if (!peer) return ended(method);
    return detail::post(*peer, id_, method, args...);
  }

 private:
  static Error ended(std::string_view method) {
    return {Errc::not_connected, method, "", "not connected: this end was closed"};
  }

  int id_;
  std::string method_;
  std::weak_ptr<detail::Peer> back_;
};

}  // namespace v1
}  // namespace tolk
