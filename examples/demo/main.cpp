// The demo: one program that starts itself as a server and as clients, over a local pipe, TCP on
// IPv4 and TCP on IPv6 in turn. It exits 0 only if every reply was what it should be.
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "director.h"
#include "process.h"
#include "roles.h"

namespace {

constexpr char kUsage[] =
    "usage: tolk_demo [--file-mib N] [pipe] [tcp4] [tcp6]\n"
    "\n"
    "Without names all three transports are played. N is the size of the large file, 64 by "
    "default.\n";
constexpr std::size_t kDefaultFileMib = 64;
constexpr std::size_t kMostFileMib = 1024;

struct Options {
  std::size_t file_mib = kDefaultFileMib;
  std::vector<std::string> transports;
  bool understood = true;
};

Options read_options(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--file-mib" && i + 1 < arguments.size()) {
      options.file_mib = std::strtoul(arguments[++i].c_str(), nullptr, 10);
    } else if (argument == "pipe" || argument == "tcp4" || argument == "tcp6") {
      options.transports.push_back(argument);
    } else {
      options.understood = false;
    }
  }
  if (options.file_mib < 1 || options.file_mib > kMostFileMib) options.understood = false;
  if (options.transports.empty()) options.transports = {"pipe", "tcp4", "tcp6"};
  return options;
}

// A temporary working directory for the processes of the demo.
class WorkDirectory {
 public:
  WorkDirectory()
      : path_(std::filesystem::temp_directory_path() /
              ("tolk_demo." + std::to_string(demo::own_process_id()))) {
    std::filesystem::create_directory(path_);
  }
  ~WorkDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

  std::string path() const { return path_.string(); }

 private:
  const std::filesystem::path path_;
};

int direct(const Options& options) {
  const WorkDirectory directory;
  demo::Director director(directory.path(), options.file_mib << 20);
  for (const std::string& transport : options.transports) director.play(transport);
  director.play_versions();
  return director.verdict();
}

// `role`: the arguments that the director passes, without "--in DIRECTORY".
int act(const std::vector<std::string>& role) {
  demo::print_by_lines();
  if (role.size() == 3 && role[0] == "server") return demo::server_role({role[1], role[2]});
  if (role.size() == 5 && role[0] == "client") {
    const std::size_t file_bytes = std::strtoull(role[4].c_str(), nullptr, 10);
    return demo::client_role(role[1], {role[2], role[3]}, file_bytes);
  }
  return demo::old_server_role();
}

int run(const std::vector<std::string>& arguments) {
  if (arguments.size() > 2 && arguments[0] == "--in") {
    std::filesystem::current_path(arguments[1]);
    return act({arguments.begin() + 2, arguments.end()});
  }
  const Options options = read_options(arguments);
  if (options.understood) return direct(options);
  std::cerr << kUsage;
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::cerr << "tolk_demo: " << error.what() << '\n';
    return 1;
  }
}
