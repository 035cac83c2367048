#include "tools/tolk/subcommands/inbox.h"

#include <fmt/format.h>
#include <uv.h>

#include <atomic>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kMostNameBytes = 200;  // below the limit of file systems

constexpr char kExists[] = "a file of that name exists already";

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

// Throws Refused if there is an error.
void check(const std::error_code& error) {
  if (error) throw Refused(fmt::format("cannot be saved: {}", error.message()));
}

std::string part_name() {
  static std::atomic<int> last{0};
  return fmt::format(".tolk-{}-{}.part", uv_os_getpid(), ++last);
}

}  // namespace

Inbox::Part::Part(const Inbox& inbox, std::optional<std::string> name)
    : inbox_(inbox), name_(std::move(name)), file_(part_name()) {
  check(inbox_.folder_.create(file_, handle_));
  is_open_ = true;
}

Inbox::Part::~Part() {
  if (is_open_) (void)Folder::close(handle_);
  if (!is_saved_) inbox_.folder_.remove(file_);
}

void Inbox::Part::append(std::string_view bytes) { check(Folder::append(handle_, bytes)); }

void Inbox::Part::close() {
  is_open_ = false;
  check(Folder::close(handle_));
}

Inbox::Inbox(const std::string& directory, bool overwrite)
    : directory_(directory), overwrite_(overwrite), folder_(directory) {
  if (!folder_.error()) return;
  throw Failure(Exit::failed, fmt::format("{}: {}", directory, folder_.error().message()),
                "name a directory that files can be written to");
}

std::unique_ptr<Inbox::Part> Inbox::begin(const std::optional<std::string>& name) const {
  if (name) check_name(*name);
  // Said before the bytes come; whether the name is still free in the end, the system says.
  if (name && !overwrite_ && folder_.has(*name)) throw refused(*name, kExists);
  return std::unique_ptr<Part>(new Part(*this, name));
}

std::string Inbox::save(Part& part) const {
  part.close();
  if (part.name_) give_name(part.file_, *part.name_);
  std::string name = part.name_ ? *part.name_ : give_number(part.file_);
  part.is_saved_ = true;
  return name;
}

std::string Inbox::path_of(const std::string& name) const {
  if (directory_ == ".") return name;
  return directory_ + (directory_.ends_with('/') ? "" : "/") + name;
}

void Inbox::give_name(const std::string& file, const std::string& name) const {
  const std::error_code error =
      overwrite_ ? folder_.replace(file, name) : folder_.rename(file, name);
  if (error == std::errc::file_exists) throw refused(name, kExists);
  if (error) throw refused(name, error.message());
}

std::string Inbox::give_number(const std::string& file) const {
  constexpr int kMostTries = 10'000;
  for (int number = 1; number <= kMostTries; ++number) {
    std::string name = fmt::format("received-{}", number);
    const std::error_code error = folder_.rename(file, name);
    if (!error) return name;
    if (error != std::errc::file_exists) throw refused(name, error.message());
  }
  throw Refused("there are too many files without a name");
}

}  // namespace tolk::tool
