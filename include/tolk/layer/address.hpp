/// @file
/// The address of a server: a local pipe or a TCP port.
///
/// The text forms are `pipe:5000`, `tcp4:127.0.0.1:5000` and `tcp6:[::1]:5000`. A bare number is a
/// pipe.
/// Thread: values. Failure: the constructor of an invalid address throws tolk::Error
/// (Errc::bad_address), whose text says what is wrong.
#pragma once

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>
#include <tolk/layer/error.hpp>

namespace tolk {
inline namespace v1 {

/// A local pipe. With `using namespace tolk` and <unistd.h>, write `tolk::pipe`, because <unistd.h>
/// declares a function `pipe`.
struct pipe {
  int number = 0;  ///< 0 … 2147483647
};

/// A TCP port of an IPv4 address. Host names are not resolved.
struct tcp4 {
  std::string host;  ///< a numeric address: `"127.0.0.1"`
  int port = 0;      ///< 1 … 65535
};

/// A TCP port of an IPv6 address. Host names are not resolved.
struct tcp6 {
  std::string host;  ///< a numeric address without brackets: `"::1"`
  int port = 0;      ///< 1 … 65535
};

/// The transport between two processes.
enum class Transport { pipe, tcp4, tcp6 };

/// The address of a server.
class Address {
 public:
  /// A local pipe.
  Address(pipe where) : Address(Transport::pipe, "", where.number) {}
  /// A port of an IPv4 address.
  Address(const tcp4& where) : Address(Transport::tcp4, where.host, where.port) {}
  /// A port of an IPv6 address.
  Address(const tcp6& where) : Address(Transport::tcp6, where.host, where.port) {}
  /// The address that `text` names.
  Address(std::string_view text) : Address(parse(text)) {}
  /// The address that `text` names.
  Address(const std::string& text) : Address(parse(text)) {}
  /// The address that `text` names.
  Address(const char* text) : Address(parse(text)) {}

  /// Pipe, IPv4 or IPv6.
  Transport transport() const noexcept { return transport_; }
  /// The numeric address of the machine; empty for a pipe.
  const std::string& host() const noexcept { return host_; }
  /// The port, or the pipe's number.
  int number() const noexcept { return number_; }

  /// The text form of the address.
  std::string text() const {
    const std::string port = std::to_string(number_);
    if (transport_ == Transport::pipe) return "pipe:" + port;
    if (transport_ == Transport::tcp4) return "tcp4:" + host_ + ":" + port;
    return "tcp6:[" + host_ + "]:" + port;
  }

 private:
  Address(Transport transport, std::string_view host, int number)
      : transport_(transport), host_(host), number_(number) {
    if (transport == Transport::pipe) {
      if (number < 0) refuse(text(), "the number of a pipe is not negative");
      return;
    }
    if (number < 1 || number > kMostPort) refuse(text(), "a port is a number from 1 to 65535");
    const bool valid = transport == Transport::tcp4 ? is_ip4(host) : is_ip6(host);
    if (!valid) {
      refuse(text(), transport == Transport::tcp4
                         ? "the host is no IPv4 address such as 127.0.0.1; names are not looked up"
                         : "the host is no IPv6 address such as ::1; names are not looked up");
    }
  }

  static constexpr int kMostPort = 65535;

  [[noreturn]] static void refuse(std::string_view text, std::string_view why) {
    throw Error(Errc::bad_address, "", text, why);
  }

  static Address parse(std::string_view text) {
    if (text.starts_with("pipe:")) return pipe_from(text, text.substr(5));
    if (text.starts_with("tcp4:")) return host_from(text, Transport::tcp4);
    if (text.starts_with("tcp6:")) return host_from(text, Transport::tcp6);
    if (is_digits(text)) return pipe_from(text, text);
    refuse(text, "an address is pipe:NUMBER, tcp4:HOST:PORT, tcp6:[HOST]:PORT or a number");
  }

  static Address pipe_from(std::string_view whole, std::string_view number) {
    int value = 0;
    if (!number_from(number, value)) {
      refuse(whole, "the name of a pipe is a number from 0 to 2147483647");
    }
    return pipe{value};
  }

  static Address host_from(std::string_view whole, Transport transport) {
    const std::string_view rest = whole.substr(5);
    const bool v6 = transport == Transport::tcp6;
    const std::size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos) refuse(whole, "the port is missing");
    std::string_view host = rest.substr(0, colon);
    if (v6) {
      if (host.size() < 2 || host.front() != '[' || host.back() != ']') {
        refuse(whole, "an IPv6 address stands in brackets: tcp6:[::1]:5000");
      }
      host = host.substr(1, host.size() - 2);
    }
    int port = 0;
    if (!number_from(rest.substr(colon + 1), port)) refuse(whole, "the port is not a number");
    return {transport, host, port};
  }

  // Digits alone name a pipe.
  static bool is_digits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
  }

  static bool number_from(std::string_view digits, int& value) {
    const char* const end = digits.data() + digits.size();
    const auto parsed = std::from_chars(digits.data(), end, value);
    return parsed.ec == std::errc() && parsed.ptr == end && !digits.empty() &&
           digits.front() != '-';
  }

  static bool is_ip4(std::string_view host) {
    for (int part = 0; part < 4; ++part) {
      const std::size_t dot = part < 3 ? host.find('.') : host.size();
      int value = 0;
      if (dot > 3) return false;  // also when there is no dot
      const std::string_view digits = host.substr(0, dot);
      if (!number_from(digits, value) || value > 255) return false;
      if (digits.size() > 1 && digits.front() == '0') return false;  // octal elsewhere
      host.remove_prefix(part < 3 ? dot + 1 : dot);
    }
    return host.empty();
  }

  // Eight groups, or fewer and one gap. An IPv4 address at the end counts as two groups. The system
  // checks the zone after the %.
  static bool is_ip6(std::string_view host) {
    if (host.ends_with('%')) return false;
    std::string_view rest = host.substr(0, host.find('%'));
    int groups = 0;
    bool gap = rest.starts_with("::");
    if (gap) rest.remove_prefix(2);
    while (!rest.empty()) {
      const std::size_t colon = rest.find(':');
      const std::string_view group = rest.substr(0, colon);
      const bool ip4 = colon == std::string_view::npos && is_ip4(group);
      if (!ip4 && !is_group(group)) return false;
      groups += ip4 ? 2 : 1;
      if (colon == std::string_view::npos) break;
      rest.remove_prefix(colon + 1);
      if (!rest.starts_with(':')) {
        if (rest.empty()) return false;
        continue;
      }
      if (gap) return false;
      gap = true;
      rest.remove_prefix(1);
    }
    return gap ? groups < 8 : groups == 8;
  }

  static bool is_group(std::string_view digits) {
    return !digits.empty() && digits.size() <= 4 &&
           digits.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
  }

  Transport transport_;
  std::string host_;
  int number_;
};

}  // namespace v1
}  // namespace tolk
