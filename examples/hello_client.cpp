#include <tolk/tolk.h>

#include <iostream>

int main(int argc, char** argv) {
  IClient* client = CreateClient();
  bool answered = false;
  if (client->InitTolkClient(argc > 1 ? argv[1] : "4000", false)) {
    TolkParams arguments;
    arguments.AddString("world");
    const int time_out_ms = 1000;
    TolkParams* reply = client->SendMsg("greet", &arguments, 0, time_out_ms);
    const TolkValue* text = reply ? reply->GetValue(0) : nullptr;
    answered = text && text->IsString();
    std::cout << (answered ? text->GetString() : "no answer") << std::endl;
  }
  DestroyClient(client);
  return answered ? 0 : 1;
}
