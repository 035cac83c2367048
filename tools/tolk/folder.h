// An open directory and the files in it, which are named by plain names. What the directory's path
// leads to later does not matter.
//
// Thread: any, several at a time. Owner: the open directory. Failure: an error code.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

namespace tolk::tool {

class Folder {
 public:
  // Opens it; `error` says whether files can be made in it.
  explicit Folder(const std::string& path);
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::error_code& error() const { return error_; }

  // A new file, whole or not at all.
  std::error_code write(const std::string& name, std::string_view bytes) const;
  // Gives a file another name: std::errc::file_exists if there is one of that name. The two are one
  // step for the system.
  std::error_code rename(const std::string& file, const std::string& name) const;
  // The same, in the place of what has the name: of a link too, which is never followed.
  std::error_code replace(const std::string& file, const std::string& name) const;
  void remove(const std::string& name) const;

 private:
  const std::string path_;
  std::error_code error_;
  std::intptr_t handle_ = -1;  // the system's
};

}  // namespace tolk::tool
