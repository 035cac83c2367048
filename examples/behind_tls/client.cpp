// A client that reaches its server through a TLS proxy on its own machine; see docs/security.md.
//
//   tls_client tcp PORT      on 127.0.0.1
//   tls_client pipe NAME     the proxy listens on the socket file of the pipe
//
// Asks the server for its word, has 1 MB sent back, and prints "answer: " and the word.
#include <tolk/tolk.h>

#include <iostream>
#include <string>

std::string ask(IClient* client) {
  const int time_out_ms = 10000;
  TolkParams* reply = client->SendMsgFast("who", nullptr, 0, time_out_ms);
  const TolkValue* word = reply ? reply->GetValue(0) : nullptr;
  return word && word->IsString() ? word->GetString() : "";
}

bool comes_back(IClient* client) {
  const std::string sent(1000000, 'x');
  TolkParams arguments;
  arguments.AddStream(sent.data(), static_cast<long>(sent.size()));
  TolkParams* reply = client->SendMsgEx("back", &arguments, 0, 0);
  const TolkValue* got = reply ? reply->GetValue(0) : nullptr;
  if (!got || !got->IsStream()) return false;
  long size = 0;
  const char* bytes = got->GetStream(size);
  return std::string(bytes, static_cast<std::size_t>(size)) == sent;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  IClient* client = CreateClient();
  const bool connected = std::string(argv[1]) == "pipe"
                             ? client->InitTolkClient(argv[2], false)
                             : client->InitTolkClientTcp4("127.0.0.1", argv[2], false);
  std::string answer = connected ? ask(client) : "";
  if (!answer.empty() && !comes_back(client)) answer.clear();
  const bool answered = !answer.empty();
  std::cout << "answer: " << (answered ? answer : "none") << std::endl;
  DestroyClient(client);
  return answered ? 0 : 1;
}
