#include "tools/tolk/subcommands/bench_server.h"

#include <uv.h>

#include <array>
#include <cstdio>
#include <memory>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

constexpr char kCommand[] = "bench-server";

std::string own_path() {
  std::array<char, 32768> path{};
  std::size_t size = path.size();
  return uv_exepath(path.data(), &size) == 0 ? std::string(path.data(), size) : "tolk";
}

void serve(const std::string& address) {
  Server server;
  server.on(kBenchMethod, [](const std::string& text) { return text; });
  server.listen(address);
  end_by_itself();  // it ends with its input, not after Ctrl-C, which the whole terminal gets
  Output::get().data("listening\n");
  while (std::fgetc(stdin) != EOF) {
  }
}

}  // namespace

// The process, and the two pipes to its standard input and output.
class BenchServer::Process {
 public:
  explicit Process(std::string address) {
    uv_loop_init(&loop_);
    for (uv_pipe_t* const pipe : {&input_, &output_}) uv_pipe_init(&loop_, pipe, 0);
    output_.data = this;
    try {
      spawn(own_path(), std::move(address));
    } catch (...) {
      drain();
      throw;
    }
  }
  // The end of its input ends the process, and the end of the process ends the loop.
  ~Process() { drain(); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Waits until the server reports that it listens; false if it ends before that.
  bool listens() {
    const auto place = [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
      auto& part = static_cast<Process*>(handle->data)->part_;
      *buffer = uv_buf_init(part.data(), static_cast<unsigned>(part.size()));
    };
    const auto came = [](uv_stream_t* stream, ssize_t size, const uv_buf_t*) {
      if (size == 0) return;
      static_cast<Process*>(stream->data)->listens_ = size > 0;
      uv_read_stop(stream);
      uv_stop(stream->loop);
    };
    if (uv_read_start(as_stream(output_), place, came) == 0) uv_run(&loop_, UV_RUN_DEFAULT);
    return listens_;
  }

 private:
  static uv_stream_t* as_stream(uv_pipe_t& pipe) { return reinterpret_cast<uv_stream_t*>(&pipe); }

  void spawn(std::string path, std::string address) {
    std::string command = kCommand;
    std::array<char*, 4> words = {path.data(), command.data(), address.data(), nullptr};
    std::array<uv_stdio_container_t, 3> streams{};
    streams[0].flags = static_cast<uv_stdio_flags>(UV_CREATE_PIPE | UV_READABLE_PIPE);
    streams[0].data.stream = as_stream(input_);
    streams[1].flags = static_cast<uv_stdio_flags>(UV_CREATE_PIPE | UV_WRITABLE_PIPE);
    streams[1].data.stream = as_stream(output_);
    streams[2].flags = UV_INHERIT_FD;
    streams[2].data.fd = 2;
    uv_process_options_t options{};
    options.file = words[0];
    options.args = words.data();
    options.stdio = streams.data();
    options.stdio_count = static_cast<int>(streams.size());
    options.exit_cb = [](uv_process_t* process, std::int64_t, int) {
      uv_close(reinterpret_cast<uv_handle_t*>(process), nullptr);
    };
    const int failed = uv_spawn(&loop_, &process_, &options);
    if (failed == 0) return;
    uv_close(reinterpret_cast<uv_handle_t*>(&process_), nullptr);
    throw Failure(Exit::failed, std::string("the server did not start: ") + uv_strerror(failed),
                  "start one yourself and name its address");
  }

  void drain() {
    for (uv_pipe_t* const pipe : {&input_, &output_}) {
      uv_close(reinterpret_cast<uv_handle_t*>(pipe), nullptr);
    }
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }

  uv_loop_t loop_{};
  uv_process_t process_{};
  uv_pipe_t input_{};
  uv_pipe_t output_{};
  std::array<char, 64> part_{};
  bool listens_ = false;
};

BenchServer::BenchServer()
    : address_("pipe:" + std::to_string(1'000'000'000 + uv_os_getpid())),
      process_(std::make_unique<Process>(address_)) {
  if (process_->listens()) return;
  throw Failure(Exit::failed, address_ + ": the server did not start", "try again");
}

BenchServer::~BenchServer() = default;

void add_bench_server(CLI::App& app, CommonOptions&) {
  CLI::App& command = *app.add_subcommand(kCommand, "The server of tolk bench");
  command.group("");
  const auto address = std::make_shared<std::string>();
  add_address(command, *address);
  command.callback([address] { serve(*address); });
}

}  // namespace tolk::tool
