#include "tools/tolk/subcommands/inbox.h"

#include <fmt/format.h>
#include <uv.h>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kMostNameBytes = 200;  // below the limit of file systems

Refused refused(const std::string& name, std::string_view why) {
  return Refused(fmt::format("{}: {}", printable(name.substr(0, kMostNameBytes)), why));
}

void check_name(const std::string& name) {
  if (name.empty()) throw Refused("the name of the file is empty");
  if (name.size() > kMostNameBytes) throw refused(name, "the name is too long");
  if (name.find_first_of("/\\") != std::string::npos) {
    throw refused(name, "a name must not contain folders");
  }
  // This covers "." and "..", and files that programs read on their own.
  if (name.front() == '.') throw refused(name, "a name must not begin with a dot");
  if (!is_printable(name)) throw refused(name, "the name has characters that cannot be shown");
}

}  // namespace

Inbox::Inbox(const std::string& directory, bool overwrite)
    : directory_(directory), overwrite_(overwrite), folder_(directory) {
  if (!folder_.error()) return;
  throw Failure(Exit::failed, fmt::format("{}: {}", directory, folder_.error().message()),
                "name a directory that files can be written to");
}

std::string Inbox::save(const std::optional<std::string>& name, std::string_view bytes) {
  if (name) check_name(*name);
  const std::string part = begin(bytes);
  try {
    std::string saved = name ? *name : finish_unnamed(part);
    if (name) finish(part, saved);
    return saved;
  } catch (...) {
    folder_.remove(part);
    throw;
  }
}

std::string Inbox::path_of(const std::string& name) const {
  if (directory_ == ".") return name;
  return directory_ + (directory_.ends_with('/') ? "" : "/") + name;
}

// Writes a file with a name that no peer can choose.
std::string Inbox::begin(std::string_view bytes) {
  std::string part = fmt::format(".tolk-{}-{}.part", uv_os_getpid(), ++last_part_);
  const std::error_code error = folder_.write(part, bytes);
  if (error) throw Refused(fmt::format("cannot be saved: {}", error.message()));
  return part;
}

void Inbox::finish(const std::string& part, const std::string& name) {
  const std::error_code error =
      overwrite_ ? folder_.replace(part, name) : folder_.rename(part, name);
  if (error == std::errc::file_exists) throw refused(name, "a file of that name exists already");
  if (error) throw refused(name, error.message());
}

std::string Inbox::finish_unnamed(const std::string& part) {
  constexpr int kMostTries = 10'000;
  for (int number = 1; number <= kMostTries; ++number) {
    std::string name = fmt::format("received-{}", number);
    const std::error_code error = folder_.rename(part, name);
    if (!error) return name;
    if (error != std::errc::file_exists) throw refused(name, error.message());
  }
  throw Refused("there are too many files without a name");
}

}  // namespace tolk::tool
