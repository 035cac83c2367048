// A server on a machine behind a TLS proxy; see docs/security.md.
//
//   tls_server tcp PORT WORD      on 127.0.0.1
//   tls_server pipe NAME WORD
//
// The method "who" returns WORD, and "back" returns the bytes that it gets. The server stops when
// its standard input ends.
#include <tolk/tolk.h>

#include <iostream>
#include <limits>
#include <string>

struct Who : IServerMethod {
  explicit Who(const char* its_word) : word(its_word) {}
  void callback(int, TolkParams*, TolkParams* out) override { out->AddString(word); }
  const char* word;
};

struct Back : IServerMethod {
  void callback(int, TolkParams* in, TolkParams* out) override {
    const TolkValue* given = in->GetValue(0);
    if (!given || !given->IsStream()) return;
    long size = 0;
    const char* bytes = given->GetStream(size);
    out->AddStream(bytes, size);
  }
};

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  Who who(argv[3]);
  Back back;
  IServer* server = CreateServer();
  server->SetCustomReleaseEvent();  // the program keeps its handlers
  server->method("who", &who);
  server->method("back", &back);
  const bool listens = std::string(argv[1]) == "pipe"
                           ? server->InitTolkServer(argv[2])
                           : server->InitTolkServerTcp4("127.0.0.1", argv[2]);
  std::cout << (listens ? "ready" : "failed") << std::endl;
  if (listens) std::cin.ignore(std::numeric_limits<std::streamsize>::max());
  server->close();
  DestroyServer(server);
  return listens ? 0 : 1;
}
