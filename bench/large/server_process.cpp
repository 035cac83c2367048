#include "bench/large/server_process.h"

#include <tolk/tolk.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

class Handler final : public IServerMethod {
 public:
  using Function = std::function<void(TolkParams* in, TolkParams* out)>;
  explicit Handler(Function function) : function_(std::move(function)) {}
  void callback(int, TolkParams* in, TolkParams* out) override { function_(in, out); }

 private:
  const Function function_;
};

void add_handlers(IServer& server, std::string& source) {
  const auto add = [&](const char* name, Handler::Function function) {
    server.method(name, new Handler(std::move(function)));
  };
  add("prepare", [&source](TolkParams* in, TolkParams* out) {
    source = sample(static_cast<std::size_t>(in->GetValue(0)->GetInt()));
    source.shrink_to_fit();
    out->AddBool(true);
  });
  add("to_server", [](TolkParams* in, TolkParams* out) {
    long size = 0;
    in->GetValue(0)->GetStream(size);
    out->AddInt(static_cast<int>(size));
  });
  add("to_client", [&source](TolkParams*, TolkParams* out) {
    out->AddStream(source.data(), static_cast<long>(source.size()));
  });
  add("both_ways", [](TolkParams* in, TolkParams* out) {
    long size = 0;
    const char* const bytes = in->GetValue(0)->GetStream(size);
    out->AddStream(bytes, size);
  });
}

bool start(IServer& server, const std::string& transport, const std::string& port) {
  return transport == "pipe" ? server.InitTolkServer(port.c_str())
                             : server.InitTolkServerTcp4("127.0.0.1", port.c_str());
}

// A number that is most likely nobody else's.
std::string some_port() { return std::to_string(20000 + getpid() % 10000); }

}  // namespace

std::string sample(std::size_t bytes) {
  std::string made(bytes, '\0');
  std::uint64_t state = 1;
  for (std::size_t at = 0; at + sizeof state <= bytes; at += sizeof state) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    std::memcpy(made.data() + at, &state, sizeof state);
  }
  return made;
}

ServerProcess::ServerProcess(const std::string& transport)
    : port_(some_port()),
      process_({tolk::test::kThisProgram, kServeCommand, transport, port_},
               {.input = ends_.theirs()}) {
  ends_.close_theirs();
  char ready = 0;
  if (read(ends_.ours(), &ready, 1) != 1) {
    throw std::runtime_error("the server process did not start on " + port_);
  }
}

ServerProcess::~ServerProcess() {
  ends_.close_ours();
  process_.wait();
}

int serve(const std::string& transport, const std::string& port) {
  std::string source;
  IServer* const server = CreateServer();
  add_handlers(*server, source);
  if (!start(*server, transport, port)) return 1;
  char byte = 1;
  if (write(STDIN_FILENO, &byte, 1) != 1) return 1;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
  DestroyServer(server);
  return 0;
}

}  // namespace bench
