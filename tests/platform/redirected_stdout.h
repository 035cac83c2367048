// std::cout with a stream buffer of the test's own, while it lives.
#pragma once

#include <functional>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "platform/standard_output.h"

namespace tolk::test {

class RedirectedStdout {
 public:
  explicit RedirectedStdout(std::streambuf& buffer) {
    // The first call of the process replaces the stream's buffer, so it comes before.
    platform::desync_standard_output();
    original_ = std::cout.rdbuf(&buffer);
  }
  ~RedirectedStdout() {
    std::cout.exceptions(std::ios_base::goodbit);
    std::cout.clear();
    std::cout.rdbuf(original_);
  }
  RedirectedStdout(const RedirectedStdout&) = delete;
  RedirectedStdout& operator=(const RedirectedStdout&) = delete;

 private:
  std::streambuf* original_ = nullptr;
};

// Keeps each insertion and counts the flushes. Used by one thread at a time.
class WholeTextBuffer final : public std::streambuf {
 public:
  std::string text() const {
    std::string all;
    for (const std::string& insertion : insertions) all += insertion;
    return all;
  }

  std::vector<std::string> insertions;
  int flush_count = 0;
  std::function<void(const std::string&)> on_insertion;  // before it is kept
  std::function<void()> on_flush;

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    const std::string insertion(text, static_cast<std::size_t>(size));
    if (on_insertion) on_insertion(insertion);
    insertions.push_back(insertion);
    return size;
  }
  int_type overflow(int_type c) override {
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
  }
  int sync() override {
    ++flush_count;
    if (on_flush) on_flush();
    return 0;
  }
};

}  // namespace tolk::test
