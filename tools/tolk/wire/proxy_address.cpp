#include "tools/tolk/wire/proxy_address.h"

#include <uv.h>

#include <cstdlib>
#include <string_view>
#include <tolk/tolk.hpp>

#include "tools/tolk/command/failure.h"

namespace tolk::tool {
namespace {

Failure not_an_address(const std::string& text) {
  return failure_of(Error(Errc::bad_address, "", text,
                          "an address is pipe:NAME, tcp4:HOST:PORT, tcp6:[HOST]:PORT or a number"),
                    "monitor");
}

bool is_valid(const ProxyAddress& address) {
  if (address.transport == Transport::pipe) return !address.name.empty();
  const int port = address.port();
  if (port < 1 || port > 65535 || std::to_string(port) != address.name) return false;
  sockaddr_in four{};
  sockaddr_in6 six{};
  return address.transport == Transport::tcp4 ? uv_ip4_addr(address.host.c_str(), port, &four) == 0
                                              : uv_ip6_addr(address.host.c_str(), port, &six) == 0;
}

}  // namespace

int ProxyAddress::port() const { return std::atoi(name.c_str()); }

ProxyAddress proxy_address(const std::string& text) {
  ProxyAddress address;
  address.text = Address(text).text();
  const std::string_view whole = address.text;
  const std::string_view rest = whole.substr(std::min<std::size_t>(5, whole.size()));
  const std::size_t colon = rest.rfind(':');
  if (whole.starts_with("pipe:")) {
    address.name = rest;
  } else if ((whole.starts_with("tcp4:") || whole.starts_with("tcp6:")) &&
             colon != std::string_view::npos) {
    address.transport = whole.starts_with("tcp4:") ? Transport::tcp4 : Transport::tcp6;
    std::string_view host = rest.substr(0, colon);
    if (host == "localhost") host = address.transport == Transport::tcp4 ? "127.0.0.1" : "[::1]";
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    address.host = host;
    address.name = rest.substr(colon + 1);
  }
  if (!is_valid(address)) throw not_an_address(text);
  return address;
}

}  // namespace tolk::tool
