// Starts the processes of the demo, commands them, and writes down their reports.
//
// Thread: one. Owner: its actors, which it ends. Failure: a process that dies, hangs or reports
// something wrong fails the transcript; the demo continues where it can.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "process.h"
#include "report.h"
#include "transcript.h"

namespace demo {

class Director {
 public:
  Director(std::string directory, std::size_t file_bytes)
      : directory_(std::move(directory)), file_bytes_(file_bytes) {}

  void play(const std::string& transport);
  void play_versions();
  int verdict();

 private:
  struct Actor {
    std::string name;
    std::unique_ptr<Process> process;
    std::vector<std::string> library_lines;
    std::optional<std::string> done;
  };
  struct Transfer {
    Actor* actor;
    std::uint64_t begin;
    std::uint64_t total;
  };

  Actor& enter(const std::string& name, std::vector<std::string> arguments);
  Actor& enter_client(const std::string& name, const std::string& transport,
                      const std::string& address);
  // Both wait until every actor is done, and write down all reports that arrive meanwhile.
  std::string tell(Actor& actor, const std::string& command);
  void tell_all(const std::vector<Actor*>& actors, const std::string& command);
  void wait_until_done(const std::vector<Actor*>& actors, const std::string& command);
  bool take_in(int limit_ms);
  void take_event(Actor& actor, Event event);
  void write_down();
  void show_progress();
  void end_progress();
  // Ends the actors and shows the lines that the library printed in them.
  void curtain();
  void show_library_lines();

  const std::string directory_;
  const std::size_t file_bytes_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  Transcript transcript_;
  std::vector<std::unique_ptr<Actor>> actors_;
  std::vector<Event> events_;
  std::optional<Transfer> transfer_;
};

}  // namespace demo
