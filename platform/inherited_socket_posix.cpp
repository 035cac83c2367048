#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <cerrno>
#include <utility>

#include "platform/inherited_socket.h"

namespace tolk::platform {
namespace {

// One of the socket's numbers. Returns 0 or an error of libuv's.
int read_option(int descriptor, int option, int* value) {
  socklen_t size = sizeof *value;
  if (getsockopt(descriptor, SOL_SOCKET, option, value, &size) == 0) return 0;
  return uv_translate_sys_error(errno);
}

int family_of(int descriptor, int* family) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return uv_translate_sys_error(errno);
  }
  *family = address.ss_family;
  return 0;
}

}  // namespace

int InheritedSocket::take(int descriptor) {
  int type = 0;
  int listens = 0;
  int family = 0;
  int error = read_option(descriptor, SO_TYPE, &type);
  if (error == 0) error = read_option(descriptor, SO_ACCEPTCONN, &listens);
  if (error == 0) error = family_of(descriptor, &family);
  if (error != 0) return error;
  if (type != SOCK_STREAM || listens == 0) return UV_EINVAL;
  const bool is_local = family == AF_UNIX;
  if (!is_local && family != AF_INET && family != AF_INET6) return UV_EAFNOSUPPORT;
  fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  descriptor_ = descriptor;
  is_tcp_ = !is_local;
  return 0;
}

int InheritedSocket::duplicate() const {
  const int duplicate = fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
  return duplicate >= 0 ? duplicate : uv_translate_sys_error(errno);
}

void InheritedSocket::close(int descriptor) { ::close(descriptor); }

void InheritedSocket::close() {
  if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
}

}  // namespace tolk::platform
