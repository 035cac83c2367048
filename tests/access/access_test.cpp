#include "tests/access/access_test.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tolk/tolk.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/e2e/support/socket_channel.h"

namespace tolk::test {
namespace {

namespace fs = std::filesystem;

IServerMethod* printing(const char* line) {
  return on_call([line](int, TolkParams*, TolkParams*) {
    if (write(STDOUT_FILENO, line, std::strlen(line)) < 0) std::abort();
  });
}

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

int new_socket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

std::string describe(const fs::path& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return path.string() + " is not there";
  std::ostringstream text;
  text << path.string() << " mode " << std::oct << status.st_mode << std::dec << " user "
       << status.st_uid << " file " << status.st_ino;
  return text.str();
}

// A log sink that closes the server while another user is refused.
IServerMethod* closing_when_one_is_refused(IServer* server) {
  return on_call([server](int, TolkParams* in, TolkParams*) {
    if (string_at(in, 0).starts_with("Client refused")) server->close();
  });
}

}  // namespace

void be_server(Talk& talk, const std::string& name) {
  IServer* const server = CreateServer();
  server->method("echo", answering("here"));
  server->method("s_c_connect", printing("hook connect\n"));
  server->method("s_c_closed", printing("hook closed\n"));
  talk.tell(server->InitTolkServer(name.c_str()) ? "listens" : "failed");
  for (std::string word = talk.hear(); !word.empty(); word = talk.hear()) {
    if (word == "count") talk.tell(std::to_string(open_descriptors()));
    if (word == "close when one is refused") {
      server->method("s_c_log", closing_when_one_is_refused(server));
      talk.tell("will do");
    }
    if (word == "is it running") talk.tell(server->isok() ? "yes" : "no");
  }
}

void be_client(Talk& talk, const std::string& name) {
  constexpr int kTimeoutMs = 10000;
  IClient* const client = CreateClient();
  talk.tell(client->InitTolkClient(name.c_str(), false) ? "connected" : "failed");
  while (talk.hear() == "call") {
    const bool answered =
        string_at(client->SendMsgFast("echo", nullptr, 0, kTimeoutMs), 0) == "here";
    talk.tell(answered ? "answered" : "null");
  }
}

void be_raw_server(Talk& talk, const std::string& path) {
  const int listener = new_socket();
  const sockaddr_un address = address_of(path);
  const bool listens =
      bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      chmod(path.c_str(), 0666) == 0 && listen(listener, 5) == 0;
  talk.tell(listens ? "listens" : "failed");
  RawSocket client(adopt_socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)));
  const auto bytes = client.read_until_end();
  talk.tell(bytes ? std::to_string(bytes->size()) + " bytes" : "stays");
  talk.hear();
}

void be_raw_client(Talk& talk, const std::string& path) {
  const int descriptor = new_socket();
  const sockaddr_un address = address_of(path);
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return talk.tell("no way");
  }
  RawSocket connection(adopt_socket(descriptor));
  connection.send(prefix(0) + frame(call_payload("echo", 1, {}, "0x1")));
  const auto answer = connection.read_message();
  if (answer) return talk.tell(answer->string_at(0) == "here" ? "served" : "odd answer");
  talk.tell(connection.read_until_end() == "" ? "refused" : "odd end");
}

unsigned AccessTest::geteuid_of_test() { return geteuid(); }

void AccessTest::make_directory(const std::string& path, uid_t owner, unsigned mode) {
  fs::create_directories(fs::path(path).parent_path());
  ASSERT_TRUE(fs::create_directory(path));
  ASSERT_EQ(chown(path.c_str(), owner, owner), 0);
  ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

void AccessTest::make_file(const std::string& path, uid_t owner, unsigned mode) {
  const int descriptor = open(path.c_str(), O_CREAT | O_EXCL | O_CLOEXEC | O_WRONLY, 0600);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(fchown(descriptor, owner, owner), 0);
  EXPECT_EQ(fchmod(descriptor, mode), 0);
  close(descriptor);
}

void AccessTest::make_link(const std::string& target, const std::string& path, uid_t owner) {
  ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  ASSERT_EQ(lchown(path.c_str(), owner, owner), 0);
}

std::vector<std::string> AccessTest::everything(const std::string& path) {
  std::vector<std::string> all{describe(path)};
  if (fs::is_directory(fs::symlink_status(path))) {
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
      all.push_back(describe(entry.path()));
    }
  }
  std::sort(all.begin(), all.end());
  return all;
}

std::unique_ptr<Actor> AccessTest::server_of(uid_t who) const {
  return std::make_unique<Actor>(who, [&](Talk& talk) { be_server(talk, name); });
}

std::unique_ptr<Actor> AccessTest::client_of(uid_t who) const {
  return std::make_unique<Actor>(who, [&](Talk& talk) { be_client(talk, name); });
}

void AccessTest::expect_recovered() const {
  const auto server = server_of(user.id());
  ASSERT_EQ(server->hear(), "listens") << server->printed();
  const auto client = client_of(user.id());
  ASSERT_EQ(client->hear(), "connected") << client->printed();
  client->tell("call");
  EXPECT_EQ(client->hear(), "answered");
}

}  // namespace tolk::test
