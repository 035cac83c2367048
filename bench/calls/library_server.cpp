// The library's end in the peer process.
#include <tolk/tolk.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "bench/calls/contestant.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kSettleLimit{8};
constexpr int kPortAttempts = 20;

// Streams come back as they came.
class Echo final : public IServerMethod {
 public:
  void callback(int, TolkParams* in, TolkParams* out) override {
    const TolkValue* const value = in->GetValue(0);
    if (value == nullptr) return;
    long size = 0;
    const char* const bytes = value->GetStream(size);
    out->AddStream(bytes, size);
  }
};

class Length final : public IServerMethod {
 public:
  void callback(int, TolkParams* in, TolkParams* out) override {
    const TolkValue* const value = in->GetValue(0);
    long size = 0;
    if (value != nullptr) value->GetStream(size);
    out->AddInt(static_cast<int>(size));
  }
};

struct Notes {
  std::mutex lock;
  std::condition_variable more;
  int count = 0;
};

class Note final : public IServerMethod {
 public:
  explicit Note(Notes& notes) : notes_(notes) {}

  void callback(int, TolkParams*, TolkParams*) override {
    {
      const std::lock_guard<std::mutex> lock(notes_.lock);
      ++notes_.count;
    }
    notes_.more.notify_all();
  }

 private:
  Notes& notes_;
};

// Answers once so many notes have come as its argument says, and counts from 0 again.
class Settle final : public IServerMethod {
 public:
  explicit Settle(Notes& notes) : notes_(notes) {}

  void callback(int, TolkParams* in, TolkParams* out) override {
    const TolkValue* const expected = in->GetValue(0);
    std::unique_lock<std::mutex> lock(notes_.lock);
    const bool all = expected != nullptr && notes_.more.wait_for(lock, kSettleLimit, [&] {
      return notes_.count == expected->GetInt();
    });
    notes_.count = 0;
    out->AddBool(all);
  }

 private:
  Notes& notes_;
};

class LibraryServer final : public PeerServer {
 public:
  explicit LibraryServer(Transport transport) {
    for (int i = 0; i < kPortAttempts; ++i) {
      if (try_to_start(transport)) return;
    }
    throw std::runtime_error("the server can't listen");
  }

  ~LibraryServer() override { DestroyServer(server_); }

  std::string name() const override { return name_; }

 private:
  // Another process may take the port between the question and the use.
  bool try_to_start(Transport transport) {
    server_ = CreateServer();
    char text[] = "";
    server_->log(text, 0);
    server_->method("echo", new Echo);
    server_->method("length", new Length);
    server_->method("note", new Note(notes_));
    server_->method("settle", new Settle(notes_));
    name_ = transport == Transport::pipe ? std::to_string(getpid()) : free_port(transport);
    if (listen(transport)) return true;
    DestroyServer(std::exchange(server_, nullptr));
    return false;
  }

  bool listen(Transport transport) const {
    switch (transport) {
      case Transport::pipe:
        return server_->InitTolkServer(name_.c_str());
      case Transport::tcp4:
        return server_->InitTolkServerTcp4(loopback_of(transport), name_.c_str());
      case Transport::tcp6:
        return server_->InitTolkServerTcp6(loopback_of(transport), name_.c_str());
    }
    return false;
  }

  Notes notes_;
  IServer* server_ = nullptr;
  std::string name_;
};

}  // namespace

std::unique_ptr<PeerServer> start_library_server(Transport transport) {
  return std::make_unique<LibraryServer>(transport);
}

}  // namespace bench
