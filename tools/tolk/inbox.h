// Saves what peers send, in one directory and nowhere else. The names are theirs and are not
// trusted: a name is one of a plain file, and a file that is there is not replaced unless that was
// asked for. A file is there whole or not at all.
//
// Thread: any, several at a time. Owner: the open directory; what its path leads to later does not
// matter. Failure: of the directory a Failure; of a file a Refused.
#pragma once

#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tools/tolk/folder.h"

namespace tolk::tool {

// Why a file was not saved, in words for the sender: without the path of the directory.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Inbox {
 public:
  Inbox(const std::string& directory, bool overwrite);

  // Saves `bytes` and returns the file's name. Without a name it gets one of its own: received-1.
  std::string save(const std::optional<std::string>& name, std::string_view bytes);
  // Where a file of that name is, for people.
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
