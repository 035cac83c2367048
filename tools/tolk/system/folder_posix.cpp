#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/tolk/system/folder.h"
#include "tools/tolk/system/streams.h"

namespace tolk::tool {
namespace {

std::error_code error_of(int number) { return {number, std::generic_category()}; }

int descriptor_of(std::intptr_t handle) { return static_cast<int>(handle); }

}  // namespace

Folder::Folder(const std::string& path)
    : path_(path), handle_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  const int directory = descriptor_of(handle_);
  if (directory < 0 || faccessat(directory, ".", W_OK, 0) != 0) error_ = error_of(errno);
}

Folder::~Folder() {
  if (handle_ >= 0) ::close(descriptor_of(handle_));
}

std::error_code Folder::create(const std::string& name, std::intptr_t& file) const {
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  file = openat(descriptor_of(handle_), name.c_str(), flags, 0666);  // less the umask
  return file < 0 ? error_of(errno) : std::error_code();
}

std::error_code Folder::append(std::intptr_t file, std::string_view bytes) {
  return error_of(write_all(descriptor_of(file), bytes));
}

std::error_code Folder::close(std::intptr_t file) {
  return ::close(descriptor_of(file)) == 0 ? std::error_code() : error_of(errno);
}

std::error_code Folder::rename(const std::string& file, const std::string& name) const {
  const int directory = descriptor_of(handle_);
  if (linkat(directory, file.c_str(), directory, name.c_str(), 0) != 0) return error_of(errno);
  remove(file);
  return {};
}

std::error_code Folder::replace(const std::string& file, const std::string& name) const {
  const int directory = descriptor_of(handle_);
  if (renameat(directory, file.c_str(), directory, name.c_str()) == 0) return {};
  return error_of(errno);
}

bool Folder::has(const std::string& name) const {
  struct stat found {};
  return fstatat(descriptor_of(handle_), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0;
}

void Folder::remove(const std::string& name) const {
  unlinkat(descriptor_of(handle_), name.c_str(), 0);
}

}  // namespace tolk::tool
