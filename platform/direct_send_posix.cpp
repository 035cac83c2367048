#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>

#include "platform/direct_send.h"

namespace tolk::platform {
namespace {

// As libuv itself does it.
static_assert(sizeof(uv_buf_t) == sizeof(iovec) &&
              offsetof(uv_buf_t, base) == offsetof(iovec, iov_base) &&
              offsetof(uv_buf_t, len) == offsetof(iovec, iov_len));

#if defined(MSG_NOSIGNAL)
constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
#else
constexpr int kFlags = MSG_DONTWAIT;  // libuv sets SO_NOSIGPIPE where there is no such flag
#endif

}  // namespace

int descriptor_for_direct_send(const uv_stream_t* stream) {
  uv_os_fd_t descriptor = kNoDescriptor;
  const int status = uv_fileno(reinterpret_cast<const uv_handle_t*>(stream), &descriptor);
  return status == 0 ? descriptor : kNoDescriptor;
}

std::size_t direct_send(int descriptor, std::span<const uv_buf_t> buffers) {
  msghdr message{};
  message.msg_iov = reinterpret_cast<iovec*>(const_cast<uv_buf_t*>(buffers.data()));
  message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(buffers.size());
  ssize_t sent = 0;
  do {
    sent = ::sendmsg(descriptor, &message, kFlags);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

}  // namespace tolk::platform
