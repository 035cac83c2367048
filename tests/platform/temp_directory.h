// An empty directory of a test's own, removed with everything in it when the test ends.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

namespace tolk::test {

class TempDirectory {
 public:
  TempDirectory() {
    std::random_device any;
    do {
      path_ = testing::TempDir() + "tolk-test-" + std::to_string(any());
    } while (!std::filesystem::create_directory(path_));
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace tolk::test
