// An open directory, and the files in it by their plain names. A later change of the directory's
// path does not matter.
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
  // Opens the directory; `error` says whether files can be created in it.
  explicit Folder(const std::string& path);
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::error_code& error() const { return error_; }

  // Makes a new file; `append` and `close` take what it gives.
  std::error_code create(const std::string& name, std::intptr_t& file) const;
  static std::error_code append(std::intptr_t file, std::string_view bytes);
  static std::error_code close(std::intptr_t file);
  // Gives a file another name, or returns std::errc::file_exists if that name is in use. The check
  // and the change are one step for the system.
  std::error_code rename(const std::string& file, const std::string& name) const;
  // The same, but replaces the file of that name. A link is replaced too and never followed.
  std::error_code replace(const std::string& file, const std::string& name) const;
  void remove(const std::string& name) const;
  bool has(const std::string& name) const;

 private:
  const std::string path_;
  std::error_code error_;
  std::intptr_t handle_ = -1;  // the directory's
};

}  // namespace tolk::tool
