#include "tools/tolk/proxy.h"

#include <fmt/format.h>

#include <exception>
#include <map>
#include <optional>
#include <vector>

#include "tools/tolk/command.h"
#include "tools/tolk/passage.h"
#include "tools/tolk/pipe_claim.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 10;
constexpr int kBacklog = 128;

}  // namespace

// The loop, the listening handle and the passages.
class Proxy::Loop : public PassageOwner {
 public:
  Loop(const Address& from, const Address& to, ProxyWatcher& watcher)
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
  void finished(int number) override { passages_.erase(number); }

 private:
  void listen() {
    int error = 0;
    if (from_.transport() == Transport::pipe) {
      claim_.emplace(from_.number());
      uv_pipe_init(&loop_, &listener_.pipe, 0);
      error = uv_pipe_bind(&listener_.pipe, claim_->path().c_str());
      if (error == 0) claim_->close_to_others();
    } else {
      uv_tcp_init(&loop_, &listener_.tcp);
      const sockaddr_storage where = socket_address(from_);
      error = uv_tcp_bind(&listener_.tcp, reinterpret_cast<const sockaddr*>(&where), 0);
    }
    listener_.handle.data = this;
    if (error == 0) {
      error = uv_listen(&listener_.stream, kBacklog, [](uv_stream_t* listener, int status) {
        if (status == 0) static_cast<Loop*>(listener->data)->accept();
      });
    }
    if (error == 0) return;
    throw Failure(Exit::failed, fmt::format("cannot listen: {}", uv_strerror(error)),
                  "stop the other server of that address, or choose another");
  }

  void accept() {
    guarded([&] {
      const int number = ++last_number_;
      auto passage = std::make_unique<Passage>(*this, number, from_, to_);
      Passage& begun = *passages_.emplace(number, std::move(passage)).first->second;
      begun.begin(&listener_.stream);
    });
  }

  // Closes everything, and waits until libuv has let go of it.
  void drain() {
    for (auto& [number, passage] : passages_) passage->close();
    uv_walk(
        &loop_,
        [](uv_handle_t* handle, void*) {
          if (uv_is_closing(handle) == 0) uv_close(handle, nullptr);
        },
        nullptr);
    // Again where a step that failed has stopped it.
    while (uv_run(&loop_, UV_RUN_DEFAULT) != 0) {
    }
    uv_loop_close(&loop_);
    claim_.reset();
  }

  const Address from_;
  const Address to_;
  ProxyWatcher& watcher_;
  std::vector<char> buffer_;
  uv_loop_t loop_{};
  uv_async_t stop_{};
  uv_any_handle listener_{};
  std::optional<PipeClaim> claim_;
  std::map<int, std::unique_ptr<Passage>> passages_;
  int last_number_ = 0;
  std::exception_ptr thrown_;
};

Proxy::Proxy(const Address& from, const Address& to, ProxyWatcher& watcher)
    : loop_(std::make_unique<Loop>(from, to, watcher)) {}
Proxy::~Proxy() = default;

void Proxy::run() { loop_->run(); }
void Proxy::stop() { loop_->stop(); }

}  // namespace tolk::tool
