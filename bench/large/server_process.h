// The server of a large transfer: this program again, as a process of its own.
//
// Owner: the object; the process ends with it, and when this process dies.
// Failure: std::runtime_error.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace bench {

class ServerProcess {
 public:
  explicit ServerProcess(const std::string& transport);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  pid_t id() const { return id_; }
  const std::string& port() const { return port_; }

 private:
  std::string port_;
  int channel_ = -1;  // its closing ends the process
  pid_t id_ = -1;
};

// In that process: serves until its standard input ends. The exit code.
inline constexpr char kServeCommand[] = "serve";
int serve(const std::string& transport, const std::string& port);

// The same bytes on both sides; no two neighbouring pieces are equal.
std::string sample(std::size_t bytes);

}  // namespace bench
