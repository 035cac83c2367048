// One way to make calls between two processes: both ends of it. Each contestant is a program of its
// own, linked to what it needs; run_contestant is its main function.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/calls/place.h"

namespace bench {

// Memory that the processes of a measurement share.
struct Shared {
  std::atomic<bool> listening{false};
  std::atomic<std::uint64_t> handled{0};  // posted messages that the server's handler has seen
  std::atomic<bool> idle_wanted{false};
  std::atomic<bool> idle_open{false};
};

// One connected client.
// Thread: each caller number from one thread at a time, different ones at the same time.
// Failure: false, or an exception: the measurement has failed.
class Client {
 public:
  virtual ~Client() = default;
  // One call that is answered with its own payload; the answer is compared.
  virtual bool echo(std::size_t caller, const std::string& payload) = 0;
  // One call, answered when the handler has seen all bytes.
  virtual bool bulk(std::string_view bytes) = 0;
  // The same bytes in pieces, each answered before the next is sent.
  virtual bool bulk_in_pieces(std::string_view bytes, std::size_t piece_bytes);
  // A message without an answer. It may still be on its way afterwards, until flush_posts.
  virtual bool post(const std::string& payload) = 0;
  virtual bool flush_posts() { return true; }
};

struct ConnectTimes {
  double connect_us = 0;  // until the server has answered for the first time
  double close_us = 0;
};

class Contestant {
 public:
  virtual ~Contestant() = default;
  // A process between the two, if the contestant needs one. It is killed in the end.
  virtual std::vector<pid_t> start_daemon(const Place&) { return {}; }
  // In the server process: sets shared.listening, and serves until the process is ended (SIGTERM).
  virtual void serve(const Place& place, Shared& shared) = 0;
  // `callers` threads will use the client, each with its own number. A single one is the thread
  // that connects.
  virtual std::unique_ptr<Client> connect(const Place& place, std::size_t callers) = 0;
  virtual ConnectTimes connect_and_close(const Place& place);
  // Connections that say nothing (any more).
  virtual std::vector<Socket> idle_connections(const Place& place, std::size_t count);
};

// Runs the measurement that the command line asks for and prints its figures as one line of JSON.
// The exit code.
int run_contestant(int argc, char** argv, Contestant& contestant);

}  // namespace bench
