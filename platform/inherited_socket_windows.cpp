#include <uv.h>

#include "platform/inherited_socket.h"

namespace tolk::platform {

int InheritedSocket::take(int) { return UV_ENOTSUP; }

int InheritedSocket::duplicate() const { return UV_ENOTSUP; }

void InheritedSocket::close(int) {}

void InheritedSocket::close() {}

}  // namespace tolk::platform
