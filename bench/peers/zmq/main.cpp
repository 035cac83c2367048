// ZeroMQ: a REQ socket for each caller, a ROUTER and DEALER proxy with eight REP workers, so that
// handlers run side by side. Posts go from PUSH to PULL.
#include <zmq.h>

#include <cstring>
#include <thread>

#include "bench/calls/contestant.h"
#include "bench/peers/must.h"

namespace bench {
namespace {

constexpr int kWorkers = 8;
constexpr int kMostSockets = 4000;
constexpr int kPostsQueued = 100000;
constexpr char kWorkersAddress[] = "inproc://workers";
constexpr char kEcho = 'e';
constexpr char kBulk = 'b';

std::string address_of(const Place& place, bool of_posts = false) {
  if (place.transport == Transport::pipe) return "ipc://" + place.path + (of_posts ? ".posts" : "");
  return "tcp://" + place.host_and_port(of_posts ? 1 : 0);
}

void* new_context() {
  void* const context = zmq_ctx_new();
  zmq_ctx_set(context, ZMQ_MAX_SOCKETS, kMostSockets);
  return context;
}

void* new_socket(void* context, int type, int queued = 0) {
  void* const socket = zmq_socket(context, type);
  must(socket != nullptr, "no socket");
  const int none = 0;
  zmq_setsockopt(socket, ZMQ_LINGER, &none, sizeof none);
  zmq_setsockopt(socket, ZMQ_SNDHWM, &queued, sizeof queued);
  zmq_setsockopt(socket, ZMQ_RCVHWM, &none, sizeof none);
  const int on = 1;
  zmq_setsockopt(socket, ZMQ_IPV6, &on, sizeof on);
  return socket;
}

bool send(void* socket, char kind, std::string_view bytes) {
  zmq_msg_t message;
  zmq_msg_init_size(&message, bytes.size() + 1);
  char* const data = static_cast<char*>(zmq_msg_data(&message));
  data[0] = kind;
  bytes.copy(data + 1, bytes.size());
  return zmq_msg_send(&message, socket, 0) >= 0;
}

class Message {
 public:
  Message() { zmq_msg_init(&message_); }
  ~Message() { zmq_msg_close(&message_); }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  bool receive(void* socket) { return zmq_msg_recv(&message_, socket, 0) >= 0; }
  std::string_view bytes() {
    return {static_cast<const char*>(zmq_msg_data(&message_)), zmq_msg_size(&message_)};
  }

 private:
  zmq_msg_t message_;
};

class ZmqClient final : public Client {
 public:
  ZmqClient(void* context, const Place& place, std::size_t callers)
      : context_(context), place_(place) {
    for (std::size_t i = 0; i < callers; ++i) {
      callers_.push_back(new_socket(context, ZMQ_REQ));
      must(zmq_connect(callers_.back(), address_of(place).c_str()) == 0, "no connection");
    }
  }

  ~ZmqClient() override {
    for (void* const socket : callers_) zmq_close(socket);
    if (posts_ != nullptr) zmq_close(posts_);
  }

  bool echo(std::size_t caller, const std::string& payload) override {
    Message answer;
    return send(callers_[caller], kEcho, payload) && answer.receive(callers_[caller]) &&
           answer.bytes().substr(1) == payload;
  }

  bool bulk(std::string_view bytes) override {
    Message answer;
    return send(callers_[0], kBulk, bytes) && answer.receive(callers_[0]) &&
           answer.bytes().substr(1) == std::to_string(bytes.size());
  }

  bool post(const std::string& payload) override {
    if (posts_ == nullptr) {
      posts_ = new_socket(context_, ZMQ_PUSH, kPostsQueued);
      must(zmq_connect(posts_, address_of(place_, true).c_str()) == 0, "no connection");
    }
    return zmq_send(posts_, payload.data(), payload.size(), 0) >= 0;
  }

 private:
  void* const context_;
  const Place place_;
  std::vector<void*> callers_;
  void* posts_ = nullptr;
};

void take_posts(void* posts, Shared& shared) {
  for (Message message; message.receive(posts);) ++shared.handled;
}

void work(void* context) {
  void* const socket = new_socket(context, ZMQ_REP);
  must(zmq_connect(socket, kWorkersAddress) == 0, "no worker");
  for (;;) {
    Message call;
    if (!call.receive(socket)) return;
    const std::string_view bytes = call.bytes();
    if (bytes[0] == kEcho) {
      send(socket, kEcho, bytes.substr(1));
    } else {
      send(socket, kBulk, std::to_string(bytes.size() - 1));
    }
  }
}

class Zmq final : public Contestant {
 public:
  void serve(const Place& place, Shared& shared) override {
    void* const context = new_context();
    void* const posts = new_socket(context, ZMQ_PULL);
    void* const calls = new_socket(context, ZMQ_ROUTER);
    void* const workers = new_socket(context, ZMQ_DEALER);
    must(zmq_bind(posts, address_of(place, true).c_str()) == 0 &&
             zmq_bind(calls, address_of(place).c_str()) == 0 &&
             zmq_bind(workers, kWorkersAddress) == 0,
         "the server cannot listen");
    std::thread([posts, &shared] { take_posts(posts, shared); }).detach();
    for (int i = 0; i < kWorkers; ++i) std::thread([context] { work(context); }).detach();
    shared.listening = true;
    zmq_proxy(calls, workers, nullptr);
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t callers) override {
    if (context_ == nullptr) context_ = new_context();
    return std::make_unique<ZmqClient>(context_, place, callers);
  }

 private:
  void* context_ = nullptr;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Zmq contestant;
  return bench::run_contestant(argc, argv, contestant);
}
