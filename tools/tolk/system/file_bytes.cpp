#include "tools/tolk/system/file_bytes.h"

#include <cerrno>
#include <cstring>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/system/streams.h"

namespace tolk::tool {

std::string shown_file(const std::string& name) {
  return name == kStandardInput ? "standard input" : name;
}

std::string file_bytes(const std::string& name) {
  const FileHandle file = name == kStandardInput ? FileHandle(stdin) : open_file(name, 'r');
  std::string bytes;
  if (file) {
    std::string part(std::size_t{1} << 16, '\0');
    while (const std::size_t size = std::fread(part.data(), 1, part.size(), file.get())) {
      bytes.append(part, 0, size);
    }
  }
  if (file && std::ferror(file.get()) == 0) return bytes;
  throw Failure(Exit::usage, shown_file(name) + ": " + std::strerror(errno),
                "name a file that can be read, or - for standard input");
}

}  // namespace tolk::tool
