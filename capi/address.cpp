#include "capi/address.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

namespace tolk {
namespace {

using Kind = Endpoint::Kind;

constexpr int kMostPort = 65535;
constexpr std::size_t kMostNameBytes = 64;

AddressParse wrong(const char* why) { return {std::nullopt, why}; }

AddressParse found(Kind kind, std::string_view host, std::string_view name) {
  return {Address{{kind, std::string(host), std::string(name)}, std::nullopt}};
}

// Takes `prefix` off the front of `text`.
bool take(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

bool is_digit(char character) { return character >= '0' && character <= '9'; }

bool is_digits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), is_digit);
}

// Digits alone, and no more than `most`.
std::optional<int> number_from(std::string_view text, int most) {
  int number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (!is_digits(text) || parsed.ec != std::errc() || number > most) return std::nullopt;
  return number;
}

// A name is a file's name elsewhere: it must not lead to another folder.
bool is_pipe_name(std::string_view name) {
  const auto allowed = [](char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           is_digit(character) || character == '.' || character == '_' || character == '-';
  };
  return !name.empty() && name.size() <= kMostNameBytes && name.front() != '.' &&
         std::all_of(name.begin(), name.end(), allowed);
}

AddressParse pipe_from(std::string_view name) {
  if (is_pipe_name(name)) return found(Kind::pipe, "", name);
  return wrong("the name of a pipe has 1 to 64 letters, digits, _, - and points, no point first");
}

AddressParse tcp_from(Kind kind, std::string_view rest, AddressUse use) {
  const std::size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos) return wrong("the port is missing");
  const auto port = number_from(rest.substr(colon + 1), kMostPort);
  if (!port || (*port == 0 && use == AddressUse::connect)) {
    return wrong("a port is a number from 1 to 65535; a server may also have 0");
  }
  std::string_view host = rest.substr(0, colon);
  const bool is_ip6 = kind == Kind::tcp6;
  if (host == "localhost") {
    host = is_ip6 ? "::1" : "127.0.0.1";
  } else if (is_ip6) {
    if (!take(host, "[") || !host.ends_with(']')) {
      return wrong("an IPv6 address stands in brackets: tcp6:[::1]:5000");
    }
    host.remove_suffix(1);
  }
  AddressParse parse = found(kind, host, std::to_string(*port));
  sockaddr_storage ignored{};
  if (parse.address->endpoint.parse_address(&ignored) == 0) return parse;
  return wrong(is_ip6 ? "the host is not an IPv6 address such as ::1, or localhost"
                      : "the host is not an IPv4 address such as 127.0.0.1, or localhost");
}

AddressParse descriptor_from(std::string_view text, AddressUse use) {
  if (use == AddressUse::connect) return wrong("only a server takes a descriptor");
  const auto number = number_from(text, INT32_MAX);
  if (!number) return wrong("a descriptor is a number");
  return {Address{{}, number}};
}

}  // namespace

std::string Address::text() const {
  if (descriptor) return "fd:" + std::to_string(*descriptor);
  switch (endpoint.kind) {
    case Kind::pipe:
      break;
    case Kind::tcp4:
      return "tcp4:" + endpoint.host + ":" + endpoint.name;
    case Kind::tcp6:
      return "tcp6:[" + endpoint.host + "]:" + endpoint.name;
  }
  return "pipe:" + endpoint.name;
}

AddressParse parse_address(std::string_view text, AddressUse use) {
  if (text.find('\0') != std::string_view::npos) return wrong("an address has no zero byte");
  if (take(text, "pipe:")) return pipe_from(text);
  if (take(text, "tcp4:")) return tcp_from(Kind::tcp4, text, use);
  if (take(text, "tcp6:")) return tcp_from(Kind::tcp6, text, use);
  if (take(text, "fd:")) return descriptor_from(text, use);
  if (is_digits(text)) return pipe_from(text);
  return wrong("an address is pipe:NAME, tcp4:HOST:PORT, tcp6:[HOST]:PORT or a number");
}

}  // namespace tolk
