#include <atomic>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "roles.h"
#include "values.h"

namespace interop {
namespace {

using Clock = std::chrono::steady_clock;

// Calls from the server.
class Values final : public IServerMethod {
 public:
  void callback(int, TolkParams* in, TolkParams* out) override {
    const std::string wrong = fault(in, kOfServer);
    if (wrong.empty()) fill(out, kOfClient);
    if (!wrong.empty()) out->AddString(wrong.c_str());
  }
};

class Script {
 public:
  explicit Script(IClient* client) : client_(client) {}

  void play(const std::string& end) {
    check("every kind of value",
          fault(call("values", block_of_values(), 10000), kOfServer).empty());
    check("the server calls back", is_empty_text(call("call back", TolkParams(), 20000)));
    check("the server's call times out", is_true(call("silence of the client", {}, 10000)));
    check("an unknown method", is_text(call("nobody", {}, 10000), "no event: nobody"));
    check("a timeout", call("sleep", {}, 300) == nullptr && client_->isok());
    check("after a timeout", fault(call("values", block_of_values(), 10000), kOfServer).empty());
    check("large data both ways", large());
    if (end == "close") check("remote close", remote_close());
    if (end == "die") check("server gone", server_gone());
  }
  bool good() const { return good_; }

 private:
  static TolkParams block_of_values() {
    TolkParams block;
    fill(&block, kOfClient);
    return block;
  }
  static const TolkValue* first(TolkParams* block) {
    return block == nullptr ? nullptr : block->GetValue(0);
  }
  static bool is_true(TolkParams* block) {
    const TolkValue* const value = first(block);
    return value != nullptr && value->IsBool() && value->GetBool();
  }
  static bool is_text(TolkParams* block, const std::string& text) {
    const TolkValue* const value = first(block);
    return value != nullptr && value->IsString() && text == value->GetString();
  }
  static bool is_empty_text(TolkParams* block) { return is_text(block, ""); }

  TolkParams* call(const char* method, TolkParams block, int timeout_ms) {
    return client_->SendMsg(method, &block, ++call_id_, timeout_ms);
  }
  bool large() {
    const std::string data = large_data(kLargeBytes, kOfClient);
    TolkParams block;
    block.AddStream(data.data(), static_cast<long>(data.size()));
    client_->SetBigfileBufferSize(1 << 16);
    TolkParams* const result = client_->SendMsgEx("large", &block, 5, 0);
    long size = 0;
    const TolkValue* const value = result == nullptr ? nullptr : result->GetValue(1);
    const char* const bytes =
        value != nullptr && value->IsStream() ? value->GetStream(size) : nullptr;
    return is_true(result) && bytes != nullptr &&
           std::string(bytes, static_cast<std::size_t>(size)) == large_data(kLargeBytes, kOfServer);
  }
  bool goes_offline() {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (client_->isok() && Clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return !client_->isok();
  }
  bool remote_close() { return is_true(call("s_c_close_server", {}, 10000)) && goes_offline(); }
  bool server_gone() {
    const auto begin = Clock::now();
    const bool none = call("die", {}, 30000) == nullptr;
    return none && Clock::now() - begin < std::chrono::seconds(20) && goes_offline();
  }
  void check(const char* what, bool right) {
    std::cout << (right ? "right: " : "WRONG: ") << what << std::endl;
    good_ = good_ && right;
  }

  IClient* const client_;
  int call_id_ = 100;
  bool good_ = true;
};

bool connect(IClient* client, const std::string& transport, const char* port) {
  return transport == "tcp4" ? client->InitTolkClientTcp4("127.0.0.1", port, false)
                             : client->InitTolkClientTcp6("::1", port, false);
}

}  // namespace

int call(const char* transport, const char* port, const char* end) {
  IClient* const client = CreateClient();
  client->method("values", new Values);
  if (!connect(client, transport, port)) return 2;
  Script script(client);
  script.play(end);
  DestroyClient(client);
  return script.good() ? 0 : 1;
}

}  // namespace interop
