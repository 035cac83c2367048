// A local pipe is a socket file in the user's private directory.
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tests/e2e/support/socket_channel.h"

namespace tolk::test {
namespace {

bool is_private(const std::string& directory) {
  struct stat status {};
  return lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid() && (status.st_mode & 077) == 0;
}

SocketAddress local_address(const std::string& path) {
  SocketAddress made;
  auto* const local = reinterpret_cast<sockaddr_un*>(&made.storage);
  local->sun_family = AF_UNIX;
  std::memcpy(local->sun_path, path.data(), std::min(path.size(), sizeof local->sun_path - 1));
  made.size = sizeof *local;
  return made;
}

// The socket's file goes with it.
class PipeAcceptor final : public RawAcceptor {
 public:
  explicit PipeAcceptor(std::string path) : path_(std::move(path)) {
    mkdir(path_.substr(0, path_.rfind('/')).c_str(), S_IRWXU);
    unlink(path_.c_str());
    acceptor_ = listen_on_socket(local_address(path_));
  }
  ~PipeAcceptor() override {
    acceptor_.reset();
    unlink(path_.c_str());
  }
  PipeAcceptor(const PipeAcceptor&) = delete;
  PipeAcceptor& operator=(const PipeAcceptor&) = delete;

  std::unique_ptr<RawChannel> accept(Milliseconds limit) override {
    return acceptor_->accept(limit);
  }

 private:
  const std::string path_;
  std::unique_ptr<RawAcceptor> acceptor_;
};

}  // namespace

std::string pipe_path(const std::string& name) {
  const std::string user = std::to_string(geteuid());
  std::string directory = "/run/user/" + user;
  if (!is_private(directory)) directory = "/tmp/tolk-" + user;
  return directory + "/echo.sock." + name;
}

std::unique_ptr<RawChannel> open_pipe_channel(const std::string& name) {
  return connect_socket(local_address(pipe_path(name)));
}

std::unique_ptr<RawAcceptor> open_pipe_acceptor(const std::string& name) {
  return std::make_unique<PipeAcceptor>(pipe_path(name));
}

}  // namespace tolk::test
