// Saves the files that peers send in one directory and nowhere else. Peers choose the names, so the
// names are not trusted: each must be the name of a plain file, and an existing file is replaced
// only if the user has allowed that. A file is saved completely or not at all.
//
// Thread: any, several at a time. Owner: the open directory; a later change of its path does not
// matter. Failure: a Failure for the directory; Refused for a file.
#pragma once

#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tools/tolk/system/folder.h"

namespace tolk::tool {

// Why a file was not saved. The text is for the sender and does not contain the directory's path.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Inbox {
 public:
  Inbox(const std::string& directory, bool overwrite);

  // Saves `bytes` and returns the name of the file. A file without a name is called received-1,
  // received-2 and so on.
  std::string save(const std::optional<std::string>& name, std::string_view bytes);
  // The path of a file of that name, for people.
  std::string path_of(const std::string& name) const;

 private:
  std::string begin(std::string_view bytes);
  void finish(const std::string& part, const std::string& name);
  std::string finish_unnamed(const std::string& part);

  const std::string directory_;
  const bool overwrite_;
  Folder folder_;
  std::atomic<int> last_part_{0};
};

}  // namespace tolk::tool
