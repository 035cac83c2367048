// One end of a connection, as a capture names it.
//
// Thread: values. Failure: none.
#pragma once

#include <cstdint>
#include <string>

namespace tolk::tool {

// A numeric IPv4 or IPv6 address and a port. The ends of a pipe have neither: they get loopback
// addresses, and numbers that differ between connections.
struct HostAndPort {
  std::string host;
  std::uint32_t port = 0;
};

}  // namespace tolk::tool
