// Writes a capture that Wireshark opens: frames as exported PDUs for the dissector "tolk_pdu".
//
// A packet holds at most kMostPacketBytes, because Wireshark reads no longer ones; a longer frame
// goes on in the next packet of the same direction, where the dissector joins it. Every packet is
// in the file when `write` has returned, so a file is whole however the process ends.
//
// Thread: any, one at a time. Owner: the file. Failure: a Failure that names the file.
#pragma once

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "tools/tolk/endpoint.h"

namespace tolk::tool {

class Pcapng {
 public:
  static constexpr std::size_t kMostPacketBytes = std::size_t{1} << 16;
  static constexpr const char* kFrames = "tolk_pdu";
  static constexpr const char* kOther = "data";  // what is no frame

  // Makes the file anew.
  explicit Pcapng(const std::string& file);

  void write(std::chrono::system_clock::time_point time, const Endpoint& from, const Endpoint& to,
             const char* dissector, std::string_view bytes);

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  void put(const std::string& bytes);

  const std::string name_;
  std::unique_ptr<std::FILE, Close> file_;
};

}  // namespace tolk::tool
