#include "tools/tolk/wire/pcapng.h"

#include <fmt/format.h>
#include <uv.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>

#include "tools/tolk/command/failure.h"

namespace tolk::tool {
namespace {

// The block types and options of the format. They are in the byte order of this machine, which the
// first block tells readers.
constexpr std::uint32_t kSectionHeader = 0x0a0d0d0a;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint32_t kByteOrder = 0x1a2b3c4d;
constexpr std::uint16_t kExportedPdu = 252;  // the link type "Wireshark upper PDU"

// The tags in front of an exported PDU. These are big-endian.
constexpr unsigned kTagEnd = 0;
constexpr unsigned kTagDissector = 12;
constexpr unsigned kTagIpv4Source = 20;
constexpr unsigned kTagIpv4Destination = 21;
constexpr unsigned kTagIpv6Source = 22;
constexpr unsigned kTagIpv6Destination = 23;
constexpr unsigned kTagPortType = 24;
constexpr unsigned kTagSourcePort = 25;
constexpr unsigned kTagDestinationPort = 26;
constexpr std::uint32_t kPortTypeTcp = 2;

template <class Number>
std::string native(Number number) {
  const auto bytes = std::bit_cast<std::array<char, sizeof number>>(number);
  return {bytes.begin(), bytes.end()};
}

std::string big_endian(std::uint32_t number, int bytes) {
  std::string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
    text += static_cast<char>(number >> shift);
  return text;
}

std::string padded(std::string bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4);
  return bytes;
}

std::string block(std::uint32_t type, const std::string& body) {
  const std::string filled = padded(body);
  const std::string size = native(static_cast<std::uint32_t>(filled.size() + 12));
  return native(type) + size + filled + size;
}

std::string tag(unsigned number, const std::string& value) {
  const std::string filled = padded(value);
  return big_endian(number, 2) + big_endian(static_cast<std::uint32_t>(filled.size()), 2) + filled;
}

std::string host_tag(const std::string& host, unsigned ipv4, unsigned ipv6) {
  std::array<char, sizeof(in6_addr)> address{};
  if (uv_inet_pton(AF_INET, host.c_str(), address.data()) == 0) {
    return tag(ipv4, {address.data(), sizeof(in_addr)});
  }
  // A capture cannot hold the scope of a link-local address.
  uv_inet_pton(AF_INET6, host.substr(0, host.find('%')).c_str(), address.data());
  return tag(ipv6, {address.data(), address.size()});
}

std::string tags(const HostAndPort& from, const HostAndPort& to, const char* dissector) {
  return tag(kTagDissector, dissector) + host_tag(from.host, kTagIpv4Source, kTagIpv6Source) +
         host_tag(to.host, kTagIpv4Destination, kTagIpv6Destination) +
         tag(kTagPortType, big_endian(kPortTypeTcp, 4)) +
         tag(kTagSourcePort, big_endian(from.port, 4)) +
         tag(kTagDestinationPort, big_endian(to.port, 4)) + tag(kTagEnd, {});
}

std::string packet(std::chrono::system_clock::time_point time, const std::string& bytes) {
  const auto since = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch());
  const auto us = static_cast<std::uint64_t>(since.count());
  const std::string size = native(static_cast<std::uint32_t>(bytes.size()));
  return block(kEnhancedPacket, native(std::uint32_t{0}) +
                                    native(static_cast<std::uint32_t>(us >> 32)) +
                                    native(static_cast<std::uint32_t>(us)) + size + size + bytes);
}

}  // namespace

Pcapng::Pcapng(const std::string& file) : name_(file), file_(open_file(file, 'w')) {
  if (!file_) {
    throw Failure(Exit::failed, fmt::format("{}: {}", name_, std::strerror(errno)),
                  "name a file that can be written");
  }
  const std::uint16_t major = 1;
  const std::uint16_t minor = 0;
  const std::uint64_t unknown_size = ~std::uint64_t{0};
  put(block(kSectionHeader,
            native(kByteOrder) + native(major) + native(minor) + native(unknown_size)));
  const std::uint16_t reserved = 0;
  const std::uint32_t no_limit = 0;
  put(block(kInterface, native(kExportedPdu) + native(reserved) + native(no_limit)));
}

void Pcapng::write(std::chrono::system_clock::time_point time, const HostAndPort& from,
                   const HostAndPort& to, const char* dissector, std::string_view bytes) {
  const std::string head = tags(from, to, dissector);
  do {
    const std::string_view part = bytes.substr(0, kMostPacketBytes);
    put(packet(time, head + std::string(part)));
    bytes.remove_prefix(part.size());
  } while (!bytes.empty());
}

void Pcapng::put(const std::string& bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) == bytes.size() &&
      std::fflush(file_.get()) == 0) {
    return;
  }
  throw Failure(Exit::failed, fmt::format("{}: {}", name_, std::strerror(errno)),
                "check whether the disk is full");
}

}  // namespace tolk::tool
