// A listening socket that the process got from the one that started it, as a descriptor.
//
// A loop's handle closes its descriptor when it stops listening, for good or for a pause. So the
// handle gets a second descriptor of the same socket, and clients wait while there is no handle.
//
// Thread: one at a time. Owner: the descriptor, from a successful `take` on.
// Failure: 0, or one of libuv's negative error codes. Windows has no such descriptors: UV_ENOTSUP.
#pragma once

namespace tolk::platform {

class InheritedSocket {
 public:
  InheritedSocket() = default;
  ~InheritedSocket() { close(); }
  InheritedSocket(const InheritedSocket&) = delete;
  InheritedSocket& operator=(const InheritedSocket&) = delete;

  // Refuses what is not a listening stream socket, local or TCP. Children do not inherit it again.
  int take(int descriptor);
  bool is_tcp() const { return is_tcp_; }
  // Another descriptor of the socket, which is the caller's.
  int duplicate() const;
  // Of a duplicate that found no user.
  static void close(int descriptor);
  // Has no effect when there is no socket.
  void close();

 private:
  int descriptor_ = -1;
  bool is_tcp_ = false;
};

}  // namespace tolk::platform
