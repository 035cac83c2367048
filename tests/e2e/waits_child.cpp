// A host with a call that only another client or server can end, for required_waits_test.cpp. It is
// a separate process, since such a call holds process-wide locks or a worker thread. A second kind
// of host sets a log level with its first call, for log_unsync_test.cpp.
//
// It executes the commands on its standard input and reports with lines that begin with "@".
#include <tolk/tolk.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

namespace {

// Reports one line, whole, between the lines of the library.
void tell(const std::string& what) {
  const std::string line = "@" + what + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

bool connect(IClient* client, const std::string& transport, const char* port) {
  if (transport == "pipe") return client->InitTolkClient(port, true);
  if (transport == "tcp4") return client->InitTolkClientTcp4("127.0.0.1", port, true);
  return client->InitTolkClientTcp6("::1", port, true);
}

bool start(IServer* server, const std::string& transport, const char* port) {
  if (transport == "pipe") return server->InitTolkServer(port);
  if (transport == "tcp4") return server->InitTolkServerTcp4("127.0.0.1", port);
  return server->InitTolkServerTcp6("::1", port);
}

void tell_of(const char* call, TolkParams* result) {
  tell(std::string(call) + (result == nullptr ? " returned null" : " returned a block"));
}

void call_large(IClient* client, const char* call) {
  std::thread([client, call] { tell_of(call, client->SendMsgEx("m", nullptr, 0, 0)); }).detach();
}

// A large call that is not answered, and another client of the process.
void large_calls(const std::string& transport, const char* port, const char* other_port) {
  IClient* const client = CreateClient();
  IClient* const other = CreateClient();
  if (!connect(client, transport, port) || !connect(other, transport, other_port)) std::abort();
  for (std::string word; std::getline(std::cin, word);) {
    if (word == "call") call_large(client, "first call");
    if (word == "call again") call_large(other, "second call");
    if (word == "close") client->close();
    if (word == "destroy") DestroyClient(client);
    tell(word);
  }
}

class NotesClient final : public IServerMethod {
 public:
  explicit NotesClient(std::atomic<int>& id) : id_(id) {}
  void callback(int id, TolkParams*, TolkParams*) override { id_ = id; }

 private:
  std::atomic<int>& id_;
};

// A call of a server that its client does not answer, and another server of the process.
void server_calls(const std::string& transport, const char* port, const char* other_port) {
  static constexpr int kTimeoutMs = 2000;
  static std::atomic<int> id{0};
  IServer* const server = CreateServer();
  IServer* const other = CreateServer();
  server->method("s_c_connect", new NotesClient(id));
  if (!start(server, transport, port)) std::abort();
  tell("listening");
  for (std::string word; std::getline(std::cin, word);) {
    if (word == "call") {
      while (server->GetClientCount() == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      std::thread([server] {
        tell_of("call", server->SendMsg(id, "m", nullptr, 1, kTimeoutMs));
      }).detach();
    }
    if (word == "close") server->close();
    if (word == "destroy") DestroyServer(server);
    if (word == "sweep") {
      if (!start(other, transport, other_port)) std::abort();
      other->PostMsg(0, "m", nullptr, 0);  // a server's sweep begins with its first call
    }
    tell(word);
  }
}

// Reports whether std::cout is synchronized with stdio, before and after the level is set.
template <class Object>
void set_level(Object* object) {
  std::string text("x");
  // Asking for what is there from the start changes nothing.
  tell(std::ios_base::sync_with_stdio(true) ? "in step" : "on its own");
  object->log(text.data(), 1);
  tell(std::ios_base::sync_with_stdio(false) ? "still in step" : "set free");
}

}  // namespace

int main(int count, char** words) {
  std::thread([] {  // whatever happens
    std::this_thread::sleep_for(std::chrono::seconds(60));
    std::abort();
  })
      .detach();
  if (count != 5) return 2;
  if (std::string(words[1]) == "large") large_calls(words[2], words[3], words[4]);
  if (std::string(words[1]) == "server") server_calls(words[2], words[3], words[4]);
  if (std::string(words[1]) == "client log") set_level(CreateClient());
  if (std::string(words[1]) == "server log") set_level(CreateServer());
  std::_Exit(0);  // main cannot return while those calls wait
}
