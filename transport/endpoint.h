// Where a client connects to or a server listens.
#pragma once

#include <string>

namespace tolk {

enum class Transport { pipe, tcp4, tcp6 };

struct Endpoint {
  Transport transport = Transport::pipe;
  std::string host;  // TCP only
  std::string name;  // the pipe's name, or the port's text: what the log lines show
};

}  // namespace tolk
