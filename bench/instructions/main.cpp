// What scripts/bench --instructions counts the instructions of: one kind of work, so many times.
#include <tolk/tolk.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/fields/fields.h"

namespace {

constexpr int kAnswerLimitMs = 60000;

void fill(TolkParams& block) {
  block.AddInt(7);
  block.AddBool(true);
  block.AddDouble(1.5);
  block.AddString(bench::kText.c_str());
  block.AddStream(bench::kBytes.data(), static_cast<long>(bench::kBytes.size()));
  block.AddKeyValueInt("alpha", 1);
  block.AddKeyValueInt("beta", 2);
  block.AddKeyValueString("gamma", bench::kText.c_str());
}

void must(bool is_right) {
  if (!is_right) throw std::runtime_error("a wrong result");
}

void build(int count) {
  for (int i = 0; i < count; ++i) {
    TolkParams block;
    fill(block);
    must(block.GetParamasSize() > 0);
  }
}

void parse(int count) {
  TolkParams built;
  fill(built);
  for (int i = 0; i < count; ++i) {
    TolkParams parsed;
    parsed.Parser(built.GetParamasPtr(), static_cast<int>(built.GetParamasSize()));
    must(parsed.GetMap("beta")->GetInt() == 2);
  }
}

class Echo final : public IServerMethod {
 public:
  void callback(int, TolkParams* in, TolkParams* out) override {
    long size = 0;
    const char* const bytes = in->GetValue(0)->GetStream(size);
    out->AddStream(bytes, size);
  }
};

// Both ends are in this process: a call is the work of both sides.
void call(int count, bool is_posted) {
  IServer* const server = CreateServer();
  IClient* const client = CreateClient();
  char text[] = "";
  server->log(text, 0);
  client->log(text, 0);
  server->method("echo", new Echo);
  const std::string name = std::to_string(1'000'000'000 + getpid());
  must(server->InitTolkServer(name.c_str()) && client->InitTolkClient(name.c_str(), false));
  for (int i = 0; i < count; ++i) {
    TolkParams arguments;
    arguments.AddStream(bench::kBytes.data(), static_cast<long>(bench::kBytes.size()));
    const bool has_answer = !is_posted || i + 1 == count;
    if (has_answer) {
      TolkParams* const reply = client->SendMsgFast("echo", &arguments, i % 2, kAnswerLimitMs);
      must(reply != nullptr && reply->GetValue(0)->IsStream());
    } else {
      client->PostMsgFast("echo", &arguments, 0);
    }
  }
  client->close();
  server->close();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string_view kind = argv[1];
  const int count = std::atoi(argv[2]);
  if (kind == "build") build(count);
  if (kind == "parse") parse(count);
  if (kind == "call") call(count, false);
  if (kind == "post") call(count, true);
  return 0;
}
