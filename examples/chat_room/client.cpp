// A member of the chat room: sends the lines that it reads and prints the lines that it gets.
//
//   chat_room_client PORT NAME        until the end of the input
#include <tolk/tolk.h>

#include <iostream>
#include <string>

// The server calls this. It runs on a worker thread, concurrently with main.
struct Hear : IServerMethod {
  void callback(int, TolkParams* in, TolkParams*) override {
    const TolkValue* line = in->GetValue(0);
    if (line && line->IsString()) std::cout << line->GetString() << std::endl;
  }
};

TolkParams* call(IClient* client, const char* method, const std::string& text) {
  const int time_out_ms = 2000;
  TolkParams arguments;
  arguments.AddString(text.c_str());
  return client->SendMsg(method, &arguments, 0, time_out_ms);
}

int main(int argc, char** argv) {
  static Hear hear;
  IClient* client = CreateClient();
  client->SetCustomReleaseEvent();
  client->method("hear", &hear);
  bool joined = client->InitTolkClient(argc > 1 ? argv[1] : "4001", false) &&
                call(client, "join", argc > 2 ? argv[2] : "somebody");
  if (joined) std::cout << "joined" << std::endl;
  for (std::string line; joined && std::getline(std::cin, line);) {
    joined = call(client, "say", line) || client->isok();
  }
  DestroyClient(client);
  return joined ? 0 : 1;
}
