// What is written to std::cout while it lives, also from several threads that write one at a time.
// No other thread prints while it is made or ends.
#pragma once

#include <mutex>
#include <streambuf>
#include <string>

#include "tests/platform/redirected_stdout.h"

namespace tolk::test {

class CapturedStdout {
 public:
  std::string text() const { return buffer_.text(); }

 private:
  // With a lock, since a test reads while others write.
  class Buffer final : public std::streambuf {
   public:
    std::string text() const {
      const std::lock_guard<std::mutex> lock(mutex_);
      return text_;
    }

   private:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
      const std::lock_guard<std::mutex> lock(mutex_);
      text_.append(text, static_cast<std::size_t>(size));
      return size;
    }
    int_type overflow(int_type c) override {
      const char byte = traits_type::to_char_type(c);
      return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }

    mutable std::mutex mutex_;
    std::string text_;
  };

  Buffer buffer_;
  RedirectedStdout redirected_{buffer_};
};

}  // namespace tolk::test
