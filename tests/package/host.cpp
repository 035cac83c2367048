// The least that a host of an installed library does. C++17.
#include <tolk/tolk.h>

int main() {
  TolkParams block;
  block.AddInt(42);
  const bool kept = block.ToParams() && block.GetValue(0)->GetInt() == 42;
  IServer* server = CreateServer();
  const bool stopped = server != nullptr && !server->isok();
  DestroyServer(server);
  return kept && stopped ? 0 : 1;
}
