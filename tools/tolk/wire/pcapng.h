// Writes a capture that Wireshark opens: frames as exported PDUs for the dissector "tolk_pdu".
//
// A packet holds at most kMostPacketBytes, because Wireshark does not read longer ones. A longer
// frame continues in the next packet of the same direction, and the dissector joins the parts.
// `write` returns after the packet is in the file, so the file is complete however the process
// ends.
//
// Thread: any, one at a time. Owner: the file. Failure: a Failure that names the file.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "tools/tolk/system/streams.h"
#include "tools/tolk/wire/host_and_port.h"

namespace tolk::tool {

class Pcapng {
 public:
  static constexpr std::size_t kMostPacketBytes = std::size_t{1} << 16;
  static constexpr const char* kFrames = "tolk_pdu";
  static constexpr const char* kOther = "data";  // bytes that are not a frame

  // Creates the file, or empties it.
  explicit Pcapng(const std::string& file);

  void write(std::chrono::system_clock::time_point time, const HostAndPort& from,
             const HostAndPort& to, const char* dissector, std::string_view bytes);

 private:
  void put(const std::string& bytes);

  const std::string name_;
  const FileHandle file_;
};

}  // namespace tolk::tool
