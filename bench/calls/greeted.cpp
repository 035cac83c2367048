#include "bench/calls/greeted.h"

#include <tolk/tolk.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

// The system's list of sockets has the file of the server's pipe.
std::string file_of_pipe(const Place& place) {
  const std::string end = "echo.sock." + std::to_string(place.port);
  std::ifstream sockets("/proc/net/unix");
  for (std::string line; std::getline(sockets, line);) {
    if (line.ends_with(end)) return line.substr(line.rfind(' ') + 1);
  }
  throw std::runtime_error("the server's pipe is not there");
}

std::string version_frame() {
  TolkParams version;
  version.AddKeyValueString("VERSION", "Tolk Version: 1.1.0.12");
  TolkParams call;
  call.AddKeyValueString("s_c_sw_name", "s_c_version");
  call.AddKeyValueInt("s_c_sw_threadid", 1);
  call.AddKeyValueStream("s_c_sw_data", version.GetParamasPtr(), version.GetParamasSize());
  call.AddKeyValueString("s_c_sw_semid", "0x1");
  const auto size = static_cast<std::uint32_t>(call.GetParamasSize());
  std::string frame(sizeof size, '\0');
  std::memcpy(frame.data(), &size, sizeof size);
  return frame.append(call.GetParamasPtr(), size);
}

}  // namespace

std::vector<Socket> greeted_connections(const Place& place, std::size_t count) {
  Place server = place;
  if (place.transport == Transport::pipe) server.path = file_of_pipe(place);
  const std::string frame = version_frame();
  std::vector<Socket> sockets;
  while (sockets.size() < count) {
    Socket& socket = sockets.emplace_back(connect_to(server));
    std::uint32_t size = 0;
    bool is_answered =
        write_all(socket, frame) && read_all(socket, reinterpret_cast<char*>(&size), sizeof size);
    std::string answer(size, '\0');
    is_answered = is_answered && read_all(socket, answer.data(), answer.size());
    if (!is_answered) throw std::runtime_error("an idle connection was refused");
  }
  return sockets;
}

}  // namespace bench
