// Stores the files that clients send, and returns them on request.
//
//   file_transfer_server PORT DIRECTORY        until Enter
//
// Files are large calls: the library splits them into pieces and joins the pieces again. A handler
// sees an ordinary call.
#include <tolk/tolk.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <utility>

// The name in a call, if it names a file directly in the directory. Never trust what a peer sends:
// "../../secret" is a name too.
std::string name_in(TolkParams* in) {
  const TolkValue* value = in->GetMap("name");
  if (!value || !value->IsString()) return {};
  const std::string name = value->GetString();
  return name == "." || name == ".." || name.find('/') != std::string::npos ? std::string() : name;
}

struct Put : IServerMethod {
  explicit Put(std::filesystem::path where) : directory(std::move(where)) {}
  void callback(int, TolkParams* in, TolkParams* out) override {
    const std::string name = name_in(in);
    const TolkValue* bytes = in->GetMap("bytes");
    bool kept = false;
    if (!name.empty() && bytes && bytes->IsStream()) {
      long size = 0;
      const char* data = bytes->GetStream(size);
      std::ofstream file(directory / name, std::ios::binary);
      kept = file.write(data, size).flush().good();
    }
    out->AddBool(kept);
  }
  std::filesystem::path directory;
};

// Returns the bytes, or nothing when there is no such file.
struct Get : IServerMethod {
  explicit Get(std::filesystem::path where) : directory(std::move(where)) {}
  void callback(int, TolkParams* in, TolkParams* out) override {
    const std::string name = name_in(in);
    std::ifstream file(directory / name, std::ios::binary);
    if (name.empty() || !file) return;
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    out->AddKeyValueStream("bytes", bytes.data(), static_cast<long>(bytes.size()));
  }
  std::filesystem::path directory;
};

int main(int argc, char** argv) {
  const std::filesystem::path directory = argc > 2 ? argv[2] : ".";
  static Put put(directory);
  static Get get(directory);
  IServer* server = CreateServer();
  server->SetCustomReleaseEvent();  // the program keeps its handlers
  server->method("put", &put);
  server->method("get", &get);
  if (!server->InitTolkServer(argc > 1 ? argv[1] : "4002")) return 1;
  std::cout << "press Enter to stop" << std::endl;
  std::cin.get();
  DestroyServer(server);
}
