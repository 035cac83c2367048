#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/peer_user.h"

namespace tolk::platform {
namespace {

// Finds the effective user of the peer, and its process where the system knows that, as they were
// when the peer listened or connected. Returns 0 or an errno.
int user_at(int descriptor, uid_t* user, std::int64_t* process) {
#if defined(__linux__)
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return errno;
  *user = peer.uid;
  *process = peer.pid;
#else
  *process = 0;
  gid_t group = 0;
  if (getpeereid(descriptor, user, &group) != 0) return errno;
#endif
  return 0;
}

}  // namespace

bool is_trusted_user(unsigned peer, unsigned own) { return peer == own || peer == 0; }

PeerUser peer_user(const uv_pipe_t* pipe) {
  uv_os_fd_t descriptor = -1;
  PeerUser peer;
  uid_t user = 0;
  int error = uv_fileno(reinterpret_cast<const uv_handle_t*>(pipe), &descriptor);
  if (error == 0) error = uv_translate_sys_error(user_at(descriptor, &user, &peer.process));
  if (error != 0) {
    peer.name = uv_err_name(error);
    return peer;
  }
  peer.user = std::to_string(user);
  peer.trusted = is_trusted_user(user, geteuid());
  if (!peer.trusted) peer.name = "user " + peer.user;
  return peer;
}

}  // namespace tolk::platform
