// An address in its parts, as the proxy needs it for its own sockets.
//
// Thread: values. Failure: proxy_address throws a Failure for a text that is not an address.
#pragma once

#include <string>

namespace tolk::tool {

enum class Transport { pipe, tcp4, tcp6 };

struct ProxyAddress {
  Transport transport = Transport::pipe;
  std::string host;  // numeric; empty for a pipe
  std::string name;  // of a pipe, or the port
  std::string text;

  // Of TCP; for a pipe the number that it is named after, or 0.
  int port() const;
};

ProxyAddress proxy_address(const std::string& text);

}  // namespace tolk::tool
