#include "tools/tolk/file_bytes.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tools/tolk/command.h"
#include "tools/tolk/streams.h"

namespace tolk::tool {
namespace {

struct Close {
  void operator()(std::FILE* file) const {
    if (file != stdin) std::fclose(file);
  }
};

}  // namespace

std::string file_bytes(const std::string& name) {
  const bool standard = name == kStandardInput;
  const std::unique_ptr<std::FILE, Close> file(standard ? stdin : open_file(name, 'r'));
  std::string bytes;
  if (file) {
    std::string part(std::size_t{1} << 16, '\0');
    while (const std::size_t size = std::fread(part.data(), 1, part.size(), file.get())) {
      bytes.append(part, 0, size);
    }
  }
  if (file && std::ferror(file.get()) == 0) return bytes;
  throw Failure(Exit::usage, name + ": " + std::strerror(errno),
                "name a file that can be read, or - for standard input");
}

}  // namespace tolk::tool
