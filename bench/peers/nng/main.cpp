// NNG: REQ and REP with a context for each caller, so that all callers share one connection, and
// eight contexts with a thread each in the server. Posts go from PUSH to PULL.
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "bench/calls/contestant.h"
#include "bench/peers/must.h"

namespace bench {
namespace {

constexpr int kWorkers = 8;
constexpr int kPostsQueued = 8192;  // as many as NNG allows
constexpr std::size_t kNoLimit = 0;
constexpr char kEcho = 'e';
constexpr char kBulk = 'b';

std::string address_of(const Place& place, bool of_posts = false) {
  if (place.transport == Transport::pipe) return "ipc://" + place.path + (of_posts ? ".posts" : "");
  return "tcp://" + place.host_and_port(of_posts ? 1 : 0);
}

std::string_view bytes_of(nng_msg* message) {
  return {static_cast<const char*>(nng_msg_body(message)), nng_msg_len(message)};
}

// One caller or worker.
class Context {
 public:
  explicit Context(nng_socket socket) {
    must(nng_ctx_open(&context_, socket) == 0 && nng_aio_alloc(&aio_, nullptr, nullptr) == 0,
         "no context");
  }

  nng_msg* receive() {
    nng_ctx_recv(context_, aio_);
    nng_aio_wait(aio_);
    return nng_aio_result(aio_) == 0 ? nng_aio_get_msg(aio_) : nullptr;
  }

  bool send(nng_msg* message) {
    nng_aio_set_msg(aio_, message);
    nng_ctx_send(context_, aio_);
    nng_aio_wait(aio_);
    if (nng_aio_result(aio_) == 0) return true;
    nng_msg_free(message);
    return false;
  }

  bool send(char kind, std::string_view bytes) {
    nng_msg* message = nullptr;
    if (nng_msg_alloc(&message, bytes.size() + 1) != 0) return false;
    char* const data = static_cast<char*>(nng_msg_body(message));
    data[0] = kind;
    bytes.copy(data + 1, bytes.size());
    return send(message);
  }

 private:
  nng_ctx context_;
  nng_aio* aio_ = nullptr;
};

class NngClient final : public Client {
 public:
  NngClient(const Place& place, std::size_t callers) : place_(place) {
    must(nng_req0_open(&calls_) == 0, "no socket");
    nng_socket_set_size(calls_, NNG_OPT_RECVMAXSZ, kNoLimit);
    must(nng_dial(calls_, address_of(place).c_str(), nullptr, 0) == 0, "no connection");
    while (callers_.size() < callers) callers_.emplace_back(calls_);
  }

  ~NngClient() override {
    nng_close(calls_);
    if (is_posting_) nng_close(posts_);
  }

  bool echo(std::size_t caller, const std::string& payload) override {
    nng_msg* const answer = call(callers_[caller], kEcho, payload);
    const bool is_right = answer != nullptr && bytes_of(answer).substr(1) == payload;
    if (answer != nullptr) nng_msg_free(answer);
    return is_right;
  }

  bool bulk(std::string_view bytes) override {
    nng_msg* const answer = call(callers_[0], kBulk, bytes);
    const bool is_right = answer != nullptr && bytes_of(answer) == std::to_string(bytes.size());
    if (answer != nullptr) nng_msg_free(answer);
    return is_right;
  }

  bool post(const std::string& payload) override {
    if (!is_posting_) {
      must(nng_push0_open(&posts_) == 0, "no socket");
      nng_socket_set_int(posts_, NNG_OPT_SENDBUF, kPostsQueued);
      must(nng_dial(posts_, address_of(place_, true).c_str(), nullptr, 0) == 0, "no connection");
      is_posting_ = true;
    }
    return nng_send(posts_, const_cast<char*>(payload.data()), payload.size(), 0) == 0;
  }

 private:
  static nng_msg* call(Context& context, char kind, std::string_view bytes) {
    return context.send(kind, bytes) ? context.receive() : nullptr;
  }

  const Place place_;
  nng_socket calls_;
  nng_socket posts_;
  bool is_posting_ = false;
  std::vector<Context> callers_;
};

void take_posts(nng_socket posts, Shared& shared) {
  for (nng_msg* message = nullptr; nng_recvmsg(posts, &message, 0) == 0; nng_msg_free(message)) {
    ++shared.handled;
  }
}

void work(nng_socket socket) {
  Context context(socket);
  while (nng_msg* const call = context.receive()) {
    if (bytes_of(call)[0] == kBulk) {
      const std::string count = std::to_string(nng_msg_len(call) - 1);
      nng_msg_clear(call);
      nng_msg_append(call, count.data(), count.size());
    }
    context.send(call);
  }
}

class Nng final : public Contestant {
 public:
  void serve(const Place& place, Shared& shared) override {
    nng_socket posts;
    nng_socket calls;
    must(nng_pull0_open(&posts) == 0 && nng_rep0_open(&calls) == 0, "no socket");
    nng_socket_set_size(calls, NNG_OPT_RECVMAXSZ, kNoLimit);
    must(nng_listen(posts, address_of(place, true).c_str(), nullptr, 0) == 0 &&
             nng_listen(calls, address_of(place).c_str(), nullptr, 0) == 0,
         "the server cannot listen");
    std::thread([posts, &shared] { take_posts(posts, shared); }).detach();
    for (int i = 0; i < kWorkers; ++i) std::thread([calls] { work(calls); }).detach();
    shared.listening = true;
    for (;;) pause();
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t callers) override {
    return std::make_unique<NngClient>(place, callers);
  }
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Nng contestant;
  return bench::run_contestant(argc, argv, contestant);
}
