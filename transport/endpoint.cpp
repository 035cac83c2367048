#include "transport/endpoint.h"

#include "platform/number.h"

namespace tolk {

int Endpoint::port() const { return platform::parse_int(name.c_str()); }

int Endpoint::parse_address(sockaddr_storage* address) const {
  return kind == Kind::tcp4
             ? uv_ip4_addr(host.c_str(), port(), reinterpret_cast<sockaddr_in*>(address))
             : uv_ip6_addr(host.c_str(), port(), reinterpret_cast<sockaddr_in6*>(address));
}

}  // namespace tolk
