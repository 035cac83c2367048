// Saves the files that peers send in one directory and nowhere else. Peers choose the names, so the
// names are not trusted: each must be the name of a plain file, and an existing file is replaced
// only if the user has allowed that. A file is saved completely or not at all.
//
// Thread: any, several at a time. Owner: the open directory; a later change of its path does not
// matter; it outlives its parts. Failure: a Failure for the directory; Refused for a file.
#pragma once

#include <cstdint>
#include <memory>
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
  // A file that is being written. Without `save` it is removed.
  class Part {
   public:
    ~Part();
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    // Throws Refused.
    void append(std::string_view bytes);

   private:
    friend class Inbox;
    Part(const Inbox& inbox, std::optional<std::string> name);
    void close();

    const Inbox& inbox_;
    const std::optional<std::string> name_;
    const std::string file_;  // a name that no peer can choose
    std::intptr_t handle_ = -1;
    bool is_open_ = false;
    bool is_saved_ = false;
  };

  Inbox(const std::string& directory, bool overwrite);

  // A file of that name will be saved. Throws Refused.
  std::unique_ptr<Part> begin(const std::optional<std::string>& name) const;
  // Gives the file its name and returns that. A file without a name is called received-1,
  // received-2 and so on. Throws Refused.
  std::string save(Part& part) const;
  // The path of a file of that name, for people.
  std::string path_of(const std::string& name) const;

 private:
  void give_name(const std::string& file, const std::string& name) const;
  std::string give_number(const std::string& file) const;

  const std::string directory_;
  const bool overwrite_;
  Folder folder_;
};

}  // namespace tolk::tool
