// The second process of a measurement: this program again, with one server in it.
//
// Thread: one at a time. Owner: the object; the process ends with it, and also when this process
// dies. Failure: std::runtime_error or std::system_error.
#pragma once

#include <string>

#include "bench/calls/contestant.h"
#include "tests/child_process.h"

namespace bench {

// What a process has used so far.
struct Usage {
  double processor_us = 0;
  double switches = 0;  // of threads, both those that waited and those that were interrupted
};

Usage usage_of_this_process();

class PeerProcess {
 public:
  PeerProcess(Kind kind, Transport transport);
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  const std::string& name() const { return name_; }
  Usage usage() const;

 private:
  tolk::test::SocketPair ends_;
  const Socket channel_{ends_.take_ours()};
  tolk::test::ChildProcess process_;
  std::string name_;
};

// In the peer process: what its command line asks for. The exit code.
inline constexpr char kServeCommand[] = "serve";
int serve(const std::string& kind, const std::string& transport);

}  // namespace bench
