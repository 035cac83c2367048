// A server of another version: a plain socket that reads one frame and answers the version check
// with "no".
#include <tolk/tolk.h>

#include <array>
#include <cstdint>
#include <string>

#include "report.h"
#include "roles.h"
#include "socket.h"

namespace demo {
namespace {

constexpr char kVersion[] = "Tolk Version: 0.9.0.1";

// A frame is a little-endian 32-bit length and one block.
std::string read_frame(OneClientServer& client) {
  std::array<unsigned char, 4> prefix{};
  if (!client.read_all(reinterpret_cast<char*>(prefix.data()), prefix.size())) return {};
  std::uint32_t size = 0;
  for (std::size_t i = 0; i < prefix.size(); ++i) size |= std::uint32_t{prefix[i]} << (8 * i);
  std::string payload(size, '\0');
  return client.read_all(payload.data(), size) ? payload : std::string();
}

void write_frame(OneClientServer& client, const std::string& payload) {
  std::string frame;
  for (unsigned i = 0; i < 4; ++i) frame += static_cast<char>(payload.size() >> (8 * i));
  frame += payload;
  client.write_all(frame.data(), frame.size());
}

std::string key_text(TolkParams& block, const char* key) {
  const TolkValue* const value = block.GetMap(key);
  return value != nullptr && value->IsString() ? value->GetString() : "";
}

class OldServer {
 public:
  std::string run(const std::string& command) {
    if (command == "start") return start();
    if (command == "answer") answer();
    return {};
  }

 private:
  std::string start() {
    Step step("old", "", "listens");
    const std::uint16_t chosen = socket_.listen();
    std::string port = std::to_string(chosen);
    step.expect("listening", true, chosen != 0);
    step.shows("127.0.0.1:" + port);
    return port;
  }

  void answer() {
    socket_.accept();
    {
      Step step("old", "client", "answers the version check");
      const std::string payload = read_frame(socket_);
      TolkParams call;
      call.Parser(payload.data(), static_cast<int>(payload.size()));
      step.expect("method", std::string("s_c_version"), key_text(call, "s_c_sw_name"));
      const TolkValue* const call_id = call.GetMap("s_c_sw_threadid");
      TolkParams reply;
      reply.AddBool(false);
      reply.AddKeyValueString("VERSION", kVersion);
      reply.AddKeyValueString("s_c_sw_name", "retval");
      reply.AddKeyValueInt("s_c_sw_threadid", call_id == nullptr ? 0 : call_id->GetInt());
      reply.AddKeyValueString("s_c_sw_semid", key_text(call, "s_c_sw_semid").c_str());
      write_frame(socket_, *reply.GetParamas());
      step.shows(std::string("no: I am \"") + kVersion + "\"");
    }
    while (!read_frame(socket_).empty()) {
    }
  }

  OneClientServer socket_;
};

}  // namespace

int old_server_role() {
  OldServer server;
  return obey([&](const std::string& command) { return server.run(command); });
}

}  // namespace demo
