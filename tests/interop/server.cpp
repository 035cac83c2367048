#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <thread>

#include "roles.h"
#include "values.h"

namespace interop {
namespace {

using Function = std::function<void(int id, TolkParams* in, TolkParams* out)>;

class Handler final : public IServerMethod {
 public:
  explicit Handler(Function function) : function_(std::move(function)) {}
  void callback(int id, TolkParams* in, TolkParams* out) override { function_(id, in, out); }

 private:
  const Function function_;
};

bool holds_large_data(TolkParams* block, int side) {
  long size = 0;
  const TolkValue* const value = block == nullptr ? nullptr : block->GetValue(0);
  const char* const data = value != nullptr && value->IsStream() ? value->GetStream(size) : nullptr;
  return data != nullptr &&
         std::string(data, static_cast<std::size_t>(size)) == large_data(kLargeBytes, side);
}

void register_methods(IServer* server) {
  const auto method = [server](const char* name, Function function) {
    server->method(name, new Handler(std::move(function)));
  };
  method("values", [](int, TolkParams* in, TolkParams* out) {
    const std::string wrong = fault(in, kOfClient);
    if (wrong.empty()) fill(out, kOfServer);
    if (!wrong.empty()) out->AddString(wrong.c_str());
  });
  method("call back", [server](int id, TolkParams*, TolkParams* out) {
    TolkParams block;
    fill(&block, kOfServer);
    TolkParams* const answer = server->SendMsg(id, "values", &block, 77, 10000);
    out->AddString(fault(answer, kOfClient).c_str());
  });
  method("silence of the client", [server](int id, TolkParams*, TolkParams* out) {
    out->AddBool(server->SendMsg(id, "unknown", nullptr, 78, 300) == nullptr);
  });
  method("large", [](int, TolkParams* in, TolkParams* out) {
    out->AddBool(holds_large_data(in, kOfClient));
    const std::string data = large_data(kLargeBytes, kOfServer);
    out->AddStream(data.data(), static_cast<long>(data.size()));
  });
  // Longer than any timeout of the client's, shorter than its patience with the process.
  method("sleep", [](int, TolkParams*, TolkParams* out) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    out->AddBool(true);
  });
  method("die", [](int, TolkParams*, TolkParams*) { std::_Exit(0); });
}

bool start(IServer* server, const std::string& transport, const char* port) {
  return transport == "tcp4" ? server->InitTolkServerTcp4("127.0.0.1", port)
                             : server->InitTolkServerTcp6("::1", port);
}

}  // namespace

int serve(const char* transport, const char* port) {
  IServer* const server = CreateServer();
  register_methods(server);
  if (!start(server, transport, port)) return 2;
  std::cout << "listening" << std::endl;
  while (server->isok()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  DestroyServer(server);
  return 0;
}

}  // namespace interop
