// The server of a large transfer: this program again, as a process of its own.
//
// Owner: the object; the process ends with it, and when this process dies.
// Failure: std::runtime_error.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "tests/child_process.h"

namespace bench {

class ServerProcess {
 public:
  explicit ServerProcess(const std::string& transport);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  pid_t id() const { return process_.id(); }
  const std::string& port() const { return port_; }

 private:
  const std::string port_;
  tolk::test::SocketPair ends_;  // the end of the channel ends the process
  tolk::test::ChildProcess process_;
};

// In that process: serves until its standard input ends. The exit code.
inline constexpr char kServeCommand[] = "serve";
int serve(const std::string& transport, const std::string& port);

// The same bytes on both sides; no two neighbouring pieces are equal.
std::string sample(std::size_t bytes);

}  // namespace bench
