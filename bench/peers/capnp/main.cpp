// Cap'n Proto: two-party RPC, one event loop on each side. A single caller calls on the loop
// thread, as the library wants it; several hand their calls to the loop's thread. Posts are a
// stream.
#include <capnp/ez-rpc.h>
#include <kj/async.h>

#include <atomic>
#include <memory>
#include <thread>

#include "bench/calls/contestant.h"
#include "bench/peers/must.h"
#include "echo.capnp.h"

namespace bench {
namespace {

std::string address_of(const Place& place) {
  if (place.transport == Transport::pipe) return "unix:" + place.path;
  return place.host_and_port();
}

capnp::ReaderOptions no_limit() {
  capnp::ReaderOptions options;
  options.traversalLimitInWords = std::uint64_t{1} << 40;
  return options;
}

kj::ArrayPtr<const kj::byte> data_of(std::string_view bytes) {
  return kj::arrayPtr(reinterpret_cast<const kj::byte*>(bytes.data()), bytes.size());
}

class Service final : public Echo::Server {
 public:
  explicit Service(Shared& shared) : shared_(shared) {}

  kj::Promise<void> call(CallContext context) override {
    context.getResults().setData(context.getParams().getData());
    return kj::READY_NOW;
  }
  kj::Promise<void> bulk(BulkContext context) override {
    context.getResults().setCount(context.getParams().getData().size());
    return kj::READY_NOW;
  }
  kj::Promise<void> post(PostContext) override {
    ++shared_.handled;
    return kj::READY_NOW;
  }

 private:
  Shared& shared_;
};

class CapnpClient final : public Client {
 public:
  CapnpClient(const Place& place, std::size_t callers) : has_thread_(callers > 1) {
    if (!has_thread_) {
      open(place);
      return;
    }
    // It stays until the process ends.
    std::thread([this, place] {
      open(place);
      executor_ = &kj::getCurrentThreadExecutor();
      is_open_ = true;
      is_open_.notify_all();
      kj::NEVER_DONE.wait(link_->client.getWaitScope());
    }).detach();
    is_open_.wait(false);
  }

  // What a thread has opened belongs to that thread.
  ~CapnpClient() override {
    if (has_thread_) link_.release();
  }

  bool echo(std::size_t, const std::string& payload) override {
    if (!has_thread_) return echo_promise(payload).wait(link_->client.getWaitScope());
    return executor_->executeSync([&] { return echo_promise(payload); });
  }

  bool bulk(std::string_view bytes) override {
    auto request = link_->echo.bulkRequest();
    request.setData(data_of(bytes));
    return request.send().wait(link_->client.getWaitScope()).getCount() == bytes.size();
  }

  bool post(const std::string& payload) override {
    auto request = link_->echo.postRequest();
    request.setData(data_of(payload));
    request.send().wait(link_->client.getWaitScope());
    return true;
  }

 private:
  struct Link {
    explicit Link(const std::string& address)
        : client(address, 0, no_limit()), echo(client.getMain<Echo>()) {}

    capnp::EzRpcClient client;
    Echo::Client echo;
  };

  void open(const Place& place) { link_ = std::make_unique<Link>(address_of(place)); }

  kj::Promise<bool> echo_promise(const std::string& payload) {
    auto request = link_->echo.callRequest();
    request.setData(data_of(payload));
    return request.send().then(
        [&payload](auto&& answer) { return answer.getData() == data_of(payload); });
  }

  const bool has_thread_;
  std::unique_ptr<Link> link_;
  const kj::Executor* executor_ = nullptr;
  std::atomic<bool> is_open_{false};
};

class Capnp final : public Contestant {
 public:
  void serve(const Place& place, Shared& shared) override {
    capnp::EzRpcServer server(kj::heap<Service>(shared), address_of(place), 0, no_limit());
    shared.listening = true;
    kj::NEVER_DONE.wait(server.getWaitScope());
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t callers) override {
    return std::make_unique<CapnpClient>(place, callers);
  }
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Capnp contestant;
  return bench::run_contestant(argc, argv, contestant);
}
