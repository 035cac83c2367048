#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <thread>

#include "tools/tolk/bench_server.h"
#include "tools/tolk/interrupt.h"
#include "tools/tolk/output.h"
#include "tools/tolk/serving.h"

namespace tolk::tool {
namespace {

constexpr char kCommand[] = "bench-server";

struct Ends {
  int read = -1;
  int write = -1;
};
Ends make_pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(Exit::failed, "no pipe for the server", "");
  return {ends[0], ends[1]};
}

// With `input` and `output` as its standard input and output.
pid_t spawn_self(const std::string& address, int input, int output) {
  std::string words[] = {"tolk", kCommand, address};
  char* const argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  pid_t process = -1;
  const int failed = posix_spawn(&process, "/proc/self/exe", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed == 0) return process;
  throw Failure(Exit::failed, std::string("the server did not start: ") + std::strerror(failed),
                "start one yourself and name its address");
}

void serve(const std::string& address) {
  Server server;
  server.on(kBenchMethod, [](const std::string& text) { return text; });
  server.listen(address);
  end_by_itself();  // with its input, not by the Ctrl-C that the whole terminal hears
  Output::get().data("listening\n");
  char byte = 0;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

}  // namespace

BenchServer::BenchServer() : address_("pipe:" + std::to_string(1'000'000'000 + getpid())) {
  const Ends in = make_pipe();
  const Ends out = make_pipe();
  process_ = spawn_self(address_, in.read, out.write);
  input_ = in.write;
  close(in.read);
  close(out.write);
  char byte = 0;
  const bool listens = read(out.read, &byte, 1) == 1;
  close(out.read);
  if (!listens) throw Failure(Exit::failed, address_ + ": the server did not start", "try again");
}

BenchServer::~BenchServer() {
  close(input_);
  waitpid(process_, nullptr, 0);
}

void add_bench_server(CLI::App& app, Options&) {
  CLI::App& command = *app.add_subcommand(kCommand, "The server of tolk bench");
  command.group("");
  const auto address = std::make_shared<std::string>();
  add_address(command, *address);
  command.callback([address] { serve(*address); });
}

}  // namespace tolk::tool
