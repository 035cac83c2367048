// The library's calls through the C interface, as a host makes them. With the word "inline" the
// server's handlers run on its loop thread, otherwise on its workers.
#include <signal.h>
#include <tolk/c.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/calls/contestant.h"
#include "bench/calls/greeted.h"

namespace bench {
namespace {

constexpr std::int32_t kAnswerLimitMs = 20000;

std::string address_of(const Place& place) {
  const std::string port = std::to_string(place.port);
  switch (place.transport) {
    case Transport::pipe:
      break;
    case Transport::tcp4:
      return "tcp4:" + std::string(place.host()) + ":" + port;
    case Transport::tcp6:
      return "tcp6:[" + std::string(place.host()) + "]:" + port;
  }
  return "pipe:" + port;
}

tolk_client* connect_client(const Place& place) {
  tolk_client* client = nullptr;
  tolk_error* error = nullptr;
  tolk_client_connect(address_of(place).c_str(), nullptr, &client, &error);
  if (client == nullptr) throw std::runtime_error(tolk_error_text(error));
  return client;
}

std::string_view bytes_of(const tolk_block* block) {
  std::size_t size = 0;
  const void* const bytes = tolk_block_bytes(block, 0, &size);
  return {static_cast<const char*>(bytes), bytes == nullptr ? 0 : size};
}

tolk_block* block_of(std::string_view bytes) {
  tolk_block* const block = tolk_block_new();
  if (!bytes.empty()) tolk_block_add_bytes(block, bytes.data(), bytes.size());
  return block;
}

class CapiClient final : public Client {
 public:
  explicit CapiClient(const Place& place) : client_(connect_client(place)) {}
  ~CapiClient() override { tolk_client_free(client_); }
  CapiClient(const CapiClient&) = delete;
  CapiClient& operator=(const CapiClient&) = delete;

  bool echo(std::size_t, const std::string& payload) override {
    return call("echo", block_of(payload),
                [&](const tolk_block* result) { return bytes_of(result) == payload; });
  }

  // The bytes stay where they are: the block holds them.
  bool bulk(std::string_view bytes) override {
    tolk_block* const arguments = tolk_block_new();
    tolk_block_add_bytes_held(arguments, bytes.data(), bytes.size(), nullptr, nullptr);
    return call("length", arguments, [&](const tolk_block* result) {
      return tolk_block_int(result, 0) == static_cast<std::int64_t>(bytes.size());
    });
  }

  bool bulk_in_pieces(std::string_view bytes, std::size_t piece_bytes) override {
    while (!bytes.empty()) {
      const std::string_view piece = bytes.substr(0, piece_bytes);
      if (!bulk(piece)) return false;
      bytes.remove_prefix(piece.size());
    }
    return true;
  }

  bool post(const std::string& payload) override {
    tolk_block* const arguments = block_of(payload);
    const tolk_status status =
        tolk_client_post(client_, "note", arguments, kAnswerLimitMs, nullptr);
    tolk_block_free(arguments);
    return status == TOLK_OK;
  }

 private:
  template <class IsRight>
  bool call(const char* method, tolk_block* arguments, const IsRight& is_right) {
    tolk_block* result = nullptr;
    const bool right =
        tolk_client_call(client_, method, arguments, kAnswerLimitMs, &result, nullptr) == TOLK_OK &&
        is_right(result);
    tolk_block_free(arguments);
    tolk_block_free(result);
    return right;
  }

  tolk_client* const client_;
};

void echo(void*, tolk_request* request) {
  tolk_request_answer(request, block_of(bytes_of(tolk_request_arguments(request))));
}

void length(void*, tolk_request* request) {
  const std::size_t size = bytes_of(tolk_request_arguments(request)).size();
  tolk_block* const result = tolk_block_new();
  tolk_block_add_int(result, static_cast<std::int64_t>(size));
  tolk_request_answer(request, result);
}

void note(void* shared, tolk_request* request) {
  ++static_cast<Shared*>(shared)->handled;
  tolk_request_answer(request, nullptr);
}

class Capi final : public Contestant {
 public:
  explicit Capi(bool runs_inline) : runs_inline_(runs_inline) {}

  void serve(const Place& place, Shared& shared) override {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    tolk_methods* const methods = tolk_methods_new();
    tolk_method_options options{};
    options.size = sizeof options;
    if (runs_inline_) options.flags = TOLK_INLINE;
    tolk_methods_add(methods, "echo", echo, nullptr, &options, nullptr);
    tolk_methods_add(methods, "length", length, nullptr, &options, nullptr);
    tolk_methods_add(methods, "note", note, &shared, &options, nullptr);
    tolk_server_options server_options{};
    server_options.size = sizeof server_options;
    server_options.methods = methods;
    tolk_server* server = nullptr;
    tolk_error* error = nullptr;
    tolk_server_listen(address_of(place).c_str(), &server_options, &server, &error);
    if (server == nullptr) throw std::runtime_error(tolk_error_text(error));
    shared.listening = true;
    int signal = 0;
    sigwait(&end, &signal);
    tolk_server_free(server);  // removes the pipe's file
    tolk_methods_free(methods);
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t) override {
    return std::make_unique<CapiClient>(place);
  }

  ConnectTimes connect_and_close(const Place& place) override {
    using Clock = std::chrono::steady_clock;
    using Microseconds = std::chrono::duration<double, std::micro>;
    const Clock::time_point begin = Clock::now();
    tolk_client* const client = connect_client(place);
    const Clock::time_point connected = Clock::now();
    tolk_client_free(client);
    return {Microseconds(connected - begin).count(),
            Microseconds(Clock::now() - connected).count()};
  }

  std::vector<Socket> idle_connections(const Place& place, std::size_t count) override {
    return greeted_connections(place, count);
  }

 private:
  const bool runs_inline_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bool runs_inline = argc > 1 && std::string_view(argv[1]) == "inline";
  bench::Capi contestant(runs_inline);
  return bench::run_contestant(argc - runs_inline, argv + runs_inline, contestant);
}
