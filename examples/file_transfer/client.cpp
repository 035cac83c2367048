// Sends a file to file_transfer_server, or fetches one.
//
//   file_transfer_client PORT put FILE
//   file_transfer_client PORT get NAME FILE
//
// SendMsgEx waits without a timeout, until the result arrives or the connection is lost. No other
// thread may close this client meanwhile.
#include <tolk/tolk.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

bool put(IClient* client, const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  TolkParams arguments;
  arguments.AddKeyValueString("name", path.filename().string().c_str());
  arguments.AddKeyValueStream("bytes", bytes.data(), static_cast<long>(bytes.size()));
  TolkParams* reply = client->SendMsgEx("put", &arguments, 0, 0);  // leaves `arguments` empty
  const TolkValue* kept = reply ? reply->GetValue(0) : nullptr;
  return kept && kept->IsBool() && kept->GetBool();
}

bool get(IClient* client, const std::string& name, const std::filesystem::path& path) {
  TolkParams arguments;
  arguments.AddKeyValueString("name", name.c_str());
  TolkParams* reply = client->SendMsgEx("get", &arguments, 0, 0);
  const TolkValue* bytes = reply ? reply->GetMap("bytes") : nullptr;
  if (!bytes || !bytes->IsStream()) return false;
  long size = 0;
  const char* data = bytes->GetStream(size);
  std::ofstream file(path, std::ios::binary);
  return file.write(data, size).flush().good();
}

bool run(IClient* client, const std::string& what, int argc, char** argv) {
  if (what == "put" && argc == 4) return put(client, argv[3]);
  if (what == "get" && argc == 5) return get(client, argv[3], argv[4]);
  std::cerr << "put FILE, or get NAME FILE" << std::endl;
  return false;
}

int main(int argc, char** argv) {
  IClient* client = CreateClient();
  const bool done =
      argc > 2 && client->InitTolkClient(argv[1], false) && run(client, argv[2], argc, argv);
  std::cout << (done ? "done" : "failed") << std::endl;
  DestroyClient(client);
  return done ? 0 : 1;
}
