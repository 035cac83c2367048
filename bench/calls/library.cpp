// The library's own calls, through its public interface, as a host makes them.
#include <signal.h>
#include <tolk/tolk.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "bench/calls/contestant.h"
#include "bench/calls/greeted.h"

namespace bench {
namespace {

constexpr int kAnswerLimitMs = 20000;
constexpr int kNoLimitMs = 0;  // of SendMsgEx

template <typename Function>
class Handler final : public IServerMethod {
 public:
  explicit Handler(Function function) : function_(std::move(function)) {}
  void callback(int, TolkParams* in, TolkParams* out) override { function_(in, out); }

 private:
  const Function function_;
};

std::string_view stream_of(TolkParams* block) {
  const TolkValue* const value = block == nullptr ? nullptr : block->GetValue(0);
  if (value == nullptr || !value->IsStream()) return {};
  long size = 0;
  const char* const bytes = value->GetStream(size);
  return {bytes, static_cast<std::size_t>(size)};
}

void add_stream(TolkParams& block, std::string_view bytes) {
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
}

bool is_length(TolkParams* reply, std::size_t expected) {
  const TolkValue* const length = reply == nullptr ? nullptr : reply->GetValue(0);
  return length != nullptr && length->GetInt() == static_cast<int>(expected);
}

std::string name_of(const Place& place) { return std::to_string(place.port); }

bool connect_client(IClient& client, const Place& place) {
  const std::string name = name_of(place);
  switch (place.transport) {
    case Transport::pipe:
      return client.InitTolkClient(name.c_str(), false);
    case Transport::tcp4:
      return client.InitTolkClientTcp4(place.host(), name.c_str(), false);
    case Transport::tcp6:
      return client.InitTolkClientTcp6(place.host(), name.c_str(), false);
  }
  return false;
}

bool start_server(IServer& server, const Place& place) {
  const std::string name = name_of(place);
  switch (place.transport) {
    case Transport::pipe:
      return server.InitTolkServer(name.c_str());
    case Transport::tcp4:
      return server.InitTolkServerTcp4(place.host(), name.c_str());
    case Transport::tcp6:
      return server.InitTolkServerTcp6(place.host(), name.c_str());
  }
  return false;
}

IClient* quiet_client() {
  IClient* const client = CreateClient();
  char text[] = "";
  client->log(text, 0);
  return client;
}

// The client object stays until the process ends: to destroy one takes a third of a second.
class LibraryClient final : public Client {
 public:
  explicit LibraryClient(const Place& place) : client_(*quiet_client()) {
    if (!connect_client(client_, place)) throw std::runtime_error("the client cannot connect");
  }

  bool echo(std::size_t, const std::string& payload) override {
    TolkParams arguments;
    if (!payload.empty()) add_stream(arguments, payload);
    TolkParams* const reply = client_.SendMsgFast("echo", &arguments, 0, kAnswerLimitMs);
    return reply != nullptr && stream_of(reply) == payload;
  }

  bool bulk(std::string_view bytes) override {
    TolkParams arguments;
    add_stream(arguments, bytes);
    return is_length(client_.SendMsgFast("length", &arguments, 0, kAnswerLimitMs), bytes.size());
  }

  // The library cuts the data itself.
  bool bulk_in_pieces(std::string_view bytes, std::size_t piece_bytes) override {
    client_.SetBigfileBufferSize(static_cast<int>(piece_bytes));
    TolkParams arguments;
    add_stream(arguments, bytes);
    return is_length(client_.SendMsgEx("length", &arguments, 0, kNoLimitMs), bytes.size());
  }

  bool post(const std::string& payload) override {
    TolkParams arguments;
    add_stream(arguments, payload);
    client_.PostMsgFast("note", &arguments, 0);
    return true;
  }

 private:
  IClient& client_;
};

class Library final : public Contestant {
 public:
  void serve(const Place& place, Shared& shared) override {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    IServer* const server = CreateServer();
    char text[] = "";
    server->log(text, 0);
    add_handlers(*server, shared);
    if (!start_server(*server, place)) throw std::runtime_error("the server cannot listen");
    shared.listening = true;
    int signal = 0;
    sigwait(&end, &signal);
    server->close();  // removes the pipe's file
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t) override {
    return std::make_unique<LibraryClient>(place);
  }

  ConnectTimes connect_and_close(const Place& place) override {
    using Clock = std::chrono::steady_clock;
    using Microseconds = std::chrono::duration<double, std::micro>;
    IClient* const client = quiet_client();
    const Clock::time_point begin = Clock::now();
    if (!connect_client(*client, place)) throw std::runtime_error("the client cannot connect");
    const Clock::time_point connected = Clock::now();
    client->close();
    return {Microseconds(connected - begin).count(),
            Microseconds(Clock::now() - connected).count()};
  }

  std::vector<Socket> idle_connections(const Place& place, std::size_t count) override {
    return greeted_connections(place, count);
  }

 private:
  template <typename Function>
  static void add(IServer& server, const char* name, Function function) {
    server.method(name, new Handler<Function>(std::move(function)));
  }

  static void add_handlers(IServer& server, Shared& shared) {
    add(server, "echo", [](TolkParams* in, TolkParams* out) {
      if (in->ParamsSize() != 0) add_stream(*out, stream_of(in));
    });
    add(server, "length", [](TolkParams* in, TolkParams* out) {
      out->AddInt(static_cast<int>(stream_of(in).size()));
    });
    add(server, "note", [&shared](TolkParams*, TolkParams*) { ++shared.handled; });
  }
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Library contestant;
  return bench::run_contestant(argc, argv, contestant);
}
