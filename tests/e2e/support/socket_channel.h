// Channels and listeners on sockets: TCP, and local pipes where a pipe is a socket.
#pragma once

#include <memory>

#include "tests/e2e/support/raw_channel.h"
#include "tests/e2e/support/sockets.h"

namespace tolk::test {

std::unique_ptr<RawChannel> connect_socket(const SocketAddress& address);
// Takes a socket that is connected; it is closed with the channel.
std::unique_ptr<RawChannel> adopt_socket(Socket connected);
std::unique_ptr<RawAcceptor> listen_on_socket(const SocketAddress& address);

}  // namespace tolk::test
