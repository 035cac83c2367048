// Where a client connects to or a server listens.
// Thread: any. Owner: its own texts. Failure: a libuv status.
#pragma once

#include <uv.h>

#include <optional>
#include <string>

namespace tolk {

struct Endpoint {
  enum class Kind { pipe, tcp4, tcp6 };

  Kind kind = Kind::pipe;
  std::string host;  // TCP only
  std::string name;  // the pipe's name, or the port's text: what the log lines show
  // A server's only: a listening socket that the process inherited. The rest counts for nothing.
  std::optional<int> inherited{};

  bool is_tcp() const { return kind != Kind::pipe; }
  // The port that the name stands for: a text that is not a number is 0.
  int port() const;
  // TCP only. A text that is not an address is an error: libuv would leave 0.0.0.0 in its place,
  // which reaches whoever listens on this machine.
  int parse_address(sockaddr_storage* address) const;
};

}  // namespace tolk
