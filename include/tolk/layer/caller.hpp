/// @file
/// Who calls a handler.
#pragma once

#include <tolk/layer/peer.hpp>

namespace tolk {
inline namespace v1 {

/// Who calls a handler, and the way back to them. A handler takes it as a parameter of its own,
/// wherever it likes; it is not among the arguments of the call.
///
/// Thread: a value; `call` and `post` from any thread. A caller can be kept after the handler has
/// returned. Failure: when the connection has ended, `call` and `post` say so.
class Caller {
 public:
  /// @cond internal
  Caller(int id, std::string_view method, std::weak_ptr<detail::Peer> back)
      : id_(id), method_(method), back_(std::move(back)) {}
  /// @endcond

  /// On a server the client's id, as Server::call takes it. On a client the id of its connection.
  int id() const noexcept { return id_; }
  /// The name of the method that is being called.
  const std::string& method() const noexcept { return method_; }

  /// Calls a method of the caller. As Client::call.
  /// While it waits, the handler keeps one of the process's four workers busy.
  template <class T = void, class... Args>
  Result<T> call(std::string_view method, const Args&... args) const {
    const auto peer = back_.lock();
    if (!peer) return ended(method);
    return detail::call<T>(*peer, id_, method, args...);
  }

  /// Calls a method of the caller without waiting. As Client::post.
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
