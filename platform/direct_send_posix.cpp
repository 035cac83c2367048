#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>

#include "platform/direct_send.h"

namespace tolk::platform {
namespace {

constexpr std::size_t kMostBuffers = 8;

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
  std::array<iovec, kMostBuffers> parts{};
  msghdr message{};
  message.msg_iov = parts.data();
  for (const uv_buf_t& buffer : buffers) {
    if (message.msg_iovlen == parts.size()) break;
    parts[message.msg_iovlen++] = {buffer.base, buffer.len};
  }
  ssize_t sent = 0;
  do {
    sent = ::sendmsg(descriptor, &message, kFlags);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

}  // namespace tolk::platform
