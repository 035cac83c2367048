#include <tolk/tolk.h>

#include <iostream>
#include <string>

struct Greet : IServerMethod {
  void callback(int, TolkParams* in, TolkParams* out) override {
    const TolkValue* name = in->GetValue(0);
    const std::string whom = name && name->IsString() ? name->GetString() : "stranger";
    out->AddString(("Hello, " + whom + "!").c_str());
  }
};

int main(int argc, char** argv) {
  static Greet greet;
  IServer* server = CreateServer();
  server->SetCustomReleaseEvent();  // the program keeps its handler
  server->method("greet", &greet);
  if (!server->InitTolkServer(argc > 1 ? argv[1] : "4000")) return 1;
  std::cout << "press Enter to stop" << std::endl;
  std::cin.get();
  DestroyServer(server);
}
