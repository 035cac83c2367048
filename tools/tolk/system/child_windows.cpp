#include <uv.h>
// After uv.h: it includes winsock2.h, which must come before windows.h.
#include <windows.h>

#include <array>
#include <mutex>
#include <set>
#include <tolk/tolk.hpp>

#include "tools/tolk/system/child_failures.h"
#include "tools/tolk/system/wide_windows.h"

namespace tolk::tool {
namespace {

// The running commands.
class RunningChildren {
 public:
  static RunningChildren& get() {
    static auto* const kRunning = new RunningChildren;
    return *kRunning;
  }

  // Adds a command, unless end_all was called.
  void add(uv_async_t* stop) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) throw ChildFailed(kServerIsClosing);
    stops_.insert(stop);
  }
  void remove(uv_async_t* stop) {
    const std::lock_guard<std::mutex> lock(mutex_);
    stops_.erase(stop);
  }
  void end_all() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    for (uv_async_t* const stop : stops_) uv_async_send(stop);
  }

 private:
  std::mutex mutex_;
  std::set<uv_async_t*> stops_;
  bool ended_ = false;
};

// One command on a loop of its own, which runs until the process and its output have ended.
class ChildRun {
 public:
  ChildRun() {
    uv_loop_init(&loop_);
    uv_async_init(&loop_, &stop_, [](uv_async_t* stop) { of(stop).stop(); });
    uv_timer_init(&loop_, &timer_);
    for (uv_pipe_t* const pipe : {&in_, &out_.pipe, &error_.pipe}) uv_pipe_init(&loop_, pipe, 0);
    loop_.data = this;
    for (uv_handle_t* const handle : {as_handle(&stop_), as_handle(&timer_)}) uv_unref(handle);
  }
  ~ChildRun() {
    uv_walk(
        &loop_, [](uv_handle_t* handle, void*) { close(handle); }, nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }
  ChildRun(const ChildRun&) = delete;
  ChildRun& operator=(const ChildRun&) = delete;

  void spawn(const std::vector<std::string>& command) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    std::array<uv_stdio_container_t, 3> streams{};
    const auto own = [](uv_pipe_t& pipe, int flags) {
      uv_stdio_container_t container{};
      container.flags = static_cast<uv_stdio_flags>(UV_CREATE_PIPE | flags);
      container.data.stream = reinterpret_cast<uv_stream_t*>(&pipe);
      return container;
    };
    streams[0] = own(in_, UV_READABLE_PIPE);
    streams[1] = own(out_.pipe, UV_WRITABLE_PIPE);
    streams[2] = own(error_.pipe, UV_WRITABLE_PIPE);
    uv_process_options_t options{};
    options.file = words[0];
    options.args = words.data();
    options.stdio = streams.data();
    options.stdio_count = static_cast<int>(streams.size());
    options.flags = UV_PROCESS_WINDOWS_HIDE;
    options.exit_cb = [](uv_process_t* process, std::int64_t status, int) {
      of(process).status_ = status;
      close(as_handle(process));
    };
    const int failed = uv_spawn(&loop_, &process_, &options);
    if (failed != 0) throw ChildFailed(command.front() + ": " + uv_strerror(failed));
    process_.data = this;
  }

  // False when the time is over before the command has closed its output.
  bool exchange(std::string_view input, std::chrono::milliseconds limit) {
    if (limit != forever) {
      uv_timer_start(
          &timer_,
          [](uv_timer_t* timer) {
            of(timer).in_time_ = false;
            of(timer).stop();
          },
          static_cast<std::uint64_t>(limit.count()), 0);
    }
    read(out_);
    read(error_);
    const uv_buf_t all =
        uv_buf_init(const_cast<char*>(input.data()), static_cast<unsigned>(input.size()));
    // A command that does not read its arguments has not failed.
    const auto written = [](uv_write_t* done, int) { close(as_handle(done->handle)); };
    if (uv_write(&write_, reinterpret_cast<uv_stream_t*>(&in_), &all, 1, written) != 0) {
      close(as_handle(&in_));
    }
    uv_run(&loop_, UV_RUN_DEFAULT);
    return in_time_;
  }

  uv_async_t* stopper() { return &stop_; }
  std::int64_t status() const { return status_; }
  const std::string& printed() const { return out_.text; }
  const std::string& error_output() const { return error_.text; }

 private:
  struct ChildOutput {
    uv_pipe_t pipe{};
    std::string text;
    std::array<char, 65536> part{};
  };

  template <class Handle>
  static uv_handle_t* as_handle(Handle* handle) {
    return reinterpret_cast<uv_handle_t*>(handle);
  }
  template <class Handle>
  static ChildRun& of(Handle* handle) {
    return *static_cast<ChildRun*>(handle->loop->data);
  }
  static void close(uv_handle_t* handle) {
    if (uv_is_closing(handle) == 0) uv_close(handle, nullptr);
  }

  void stop() {
    if (uv_is_closing(as_handle(&process_)) == 0) uv_process_kill(&process_, SIGKILL);
    // A process that the command has started may still hold them open.
    for (uv_pipe_t* const pipe : {&in_, &out_.pipe, &error_.pipe}) close(as_handle(pipe));
  }

  static void read(ChildOutput& output) {
    output.pipe.data = &output;
    uv_read_start(
        reinterpret_cast<uv_stream_t*>(&output.pipe),
        [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
          auto& part = static_cast<ChildOutput*>(handle->data)->part;
          *buffer = uv_buf_init(part.data(), static_cast<unsigned>(part.size()));
        },
        [](uv_stream_t* stream, ssize_t size, const uv_buf_t* buffer) {
          if (size > 0) {
            static_cast<ChildOutput*>(stream->data)
                ->text.append(buffer->base, static_cast<std::size_t>(size));
          } else if (size < 0) {
            close(as_handle(stream));
          }
        });
  }

  uv_loop_t loop_{};
  uv_async_t stop_{};
  uv_timer_t timer_{};
  uv_process_t process_{};
  uv_pipe_t in_{};
  uv_write_t write_{};
  ChildOutput out_;
  ChildOutput error_;
  std::int64_t status_ = 0;
  bool in_time_ = true;
};

}  // namespace

std::vector<std::string> shell_command(const std::string& line) { return {"cmd.exe", "/c", line}; }

// Finds the program as uv_spawn does.
bool is_program(const std::string& name) {
  for (const wchar_t* const ending : {L".exe", L".com"}) {
    if (SearchPathW(nullptr, wide(name).c_str(), ending, 0, nullptr, nullptr) != 0) return true;
  }
  return false;
}

std::string output_of(const std::vector<std::string>& command, std::string_view input,
                      std::chrono::milliseconds limit) {
  ChildRun run;
  RunningChildren::get().add(run.stopper());
  bool in_time = true;
  try {
    run.spawn(command);
    in_time = run.exchange(input, limit);
  } catch (...) {
    RunningChildren::get().remove(run.stopper());
    throw;
  }
  RunningChildren::get().remove(run.stopper());
  if (!in_time) throw took_too_long(command.front(), limit);
  if (run.status() == 0) return run.printed();
  throw failed_with(run.error_output(),
                    command.front() + " ended with code " + std::to_string(run.status()));
}

void end_children() { RunningChildren::get().end_all(); }

}  // namespace tolk::tool
