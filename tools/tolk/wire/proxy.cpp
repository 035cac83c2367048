#include "tools/tolk/wire/proxy.h"

#include <fmt/format.h>

#include <exception>
#include <map>
#include <string>
#include <vector>

#include "platform/pipe_name.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/wire/proxied_connection.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 10;
constexpr int kBacklog = 128;

Failure cannot_listen(const ProxyAddress& address, int error) {
  const bool others = address.transport == Transport::pipe && error == UV_EACCES;
  return {Exit::failed, fmt::format("cannot listen: {}", uv_strerror(error)),
          others ? "check who owns the files of the pipe; other users' files are left alone"
                 : "stop the other server at that address, or choose another address"};
}

}  // namespace

// The loop, the listening handle and the connections.
class Proxy::Loop : public ConnectionOwner {
 public:
  Loop(const ProxyAddress& from, const ProxyAddress& to, ProxyWatcher& watcher)
      : from_(from), to_(to), watcher_(watcher), buffer_(kReadBytes) {
    uv_loop_init(&loop_);
    try {
      uv_async_init(&loop_, &stop_, [](uv_async_t* stop) { uv_stop(stop->loop); });
      listen();
    } catch (...) {
      drain();
      throw;
    }
  }
  ~Loop() override { drain(); }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  void run() {
    uv_run(&loop_, UV_RUN_DEFAULT);
    if (thrown_) std::rethrow_exception(thrown_);
  }

  void stop() { uv_async_send(&stop_); }

  ProxyWatcher& watcher() override { return watcher_; }
  uv_loop_t* loop() override { return &loop_; }
  uv_buf_t read_buffer() override {
    return uv_buf_init(buffer_.data(), static_cast<unsigned>(buffer_.size()));
  }
  void guarded(const std::function<void()>& step) noexcept override {
    try {
      step();
    } catch (...) {
      if (!thrown_) thrown_ = std::current_exception();
      uv_stop(&loop_);
    }
  }
  void finished(int number) override { connections_.erase(number); }

 private:
  void listen() {
    int error = from_.transport == Transport::pipe ? bind_pipe() : bind_tcp();
    listener_.handle.data = this;
    if (error == 0) {
      error = uv_listen(&listener_.stream, kBacklog, [](uv_stream_t* listener, int status) {
        if (status == 0) static_cast<Loop*>(listener->data)->accept();
      });
    }
    if (error != 0) throw cannot_listen(from_, error);
  }

  int bind_pipe() {
    uv_pipe_init(&loop_, &listener_.pipe, 0);
    const platform::PipeAddress pipe = platform::pipe_address(from_.name);
    int error = pipe.error;
    if (error == 0) error = name_lock_.acquire(pipe.path);
    if (error == 0) error = uv_pipe_bind(&listener_.pipe, pipe.path.c_str());
    if (error == 0) error = platform::restrict_to_owner(pipe.path);
    return error;
  }

  int bind_tcp() {
    uv_tcp_init(&loop_, &listener_.tcp);
    const sockaddr_storage where = socket_address(from_);
    return uv_tcp_bind(&listener_.tcp, reinterpret_cast<const sockaddr*>(&where), 0);
  }

  void accept() {
    guarded([&] {
      const int number = ++last_number_;
      auto accepted = std::make_unique<ProxiedConnection>(*this, number, from_, to_);
      ProxiedConnection& connection =
          *connections_.emplace(number, std::move(accepted)).first->second;
      connection.begin(&listener_.stream);
    });
  }

  // Closes everything and waits until libuv has closed it.
  void drain() {
    for (auto& [number, connection] : connections_) connection->close();
    uv_walk(
        &loop_,
        [](uv_handle_t* handle, void*) {
          if (uv_is_closing(handle) == 0) uv_close(handle, nullptr);
        },
        nullptr);
    // A step that fails stops the loop, which then has to run again.
    while (uv_run(&loop_, UV_RUN_DEFAULT) != 0) {
    }
    uv_loop_close(&loop_);
    name_lock_.release();
  }

  const ProxyAddress from_;
  const ProxyAddress to_;
  ProxyWatcher& watcher_;
  std::vector<char> buffer_;
  uv_loop_t loop_{};
  uv_async_t stop_{};
  uv_any_handle listener_{};
  platform::PipeNameLock name_lock_;
  std::map<int, std::unique_ptr<ProxiedConnection>> connections_;
  int last_number_ = 0;
  std::exception_ptr thrown_;
};

Proxy::Proxy(const ProxyAddress& from, const ProxyAddress& to, ProxyWatcher& watcher)
    : loop_(std::make_unique<Loop>(from, to, watcher)) {}
Proxy::~Proxy() = default;

void Proxy::run() { loop_->run(); }
void Proxy::stop() { loop_->stop(); }

}  // namespace tolk::tool
