// What is written to std::cout while it lives, also from several threads that write one at a time.
#pragma once

#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "platform/standard_output.h"

namespace tolk::test {

class CapturedStdout {
 public:
  CapturedStdout() {
    // The first call of the process replaces the stream's buffer: let it happen before.
    platform::desync_standard_output();
    const std::lock_guard<std::mutex> lock(platform::standard_output_mutex());
    original_ = std::cout.rdbuf(text_.rdbuf());
  }
  ~CapturedStdout() {
    const std::lock_guard<std::mutex> lock(platform::standard_output_mutex());
    std::cout.rdbuf(original_);
  }
  CapturedStdout(const CapturedStdout&) = delete;
  CapturedStdout& operator=(const CapturedStdout&) = delete;

  std::string text() const {
    const std::lock_guard<std::mutex> lock(platform::standard_output_mutex());
    return text_.str();
  }

 private:
  std::ostringstream text_;
  std::streambuf* original_ = nullptr;
};

}  // namespace tolk::test
