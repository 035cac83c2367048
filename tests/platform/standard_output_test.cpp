#include "platform/standard_output.h"

#include <gtest/gtest.h>
#include <tests/platform/captured_stdout.h>

#include <ios>
#include <iostream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

namespace {

using tolk::test::CapturedStdout;

// Counts how text comes in.
class CountingBuffer final : public std::streambuf {
 public:
  std::vector<std::string> insertions;
  int flushes = 0;

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    insertions.emplace_back(text, static_cast<std::size_t>(size));
    return size;
  }
  int_type overflow(int_type c) override {
    insertions.emplace_back(1, static_cast<char>(c));
    return c;
  }
  int sync() override {
    ++flushes;
    return 0;
  }
};

class RefusingBuffer final : public std::streambuf {};

class Redirected {
 public:
  explicit Redirected(std::streambuf& buffer) {
    tolk::platform::desync_standard_output();
    original_ = std::cout.rdbuf(&buffer);
  }
  ~Redirected() {
    std::cout.exceptions(std::ios_base::goodbit);
    std::cout.clear();
    std::cout.rdbuf(original_);
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;

 private:
  std::streambuf* original_ = nullptr;
};

TEST(StandardOutput, TextIsWrittenAsItIsAndNotFlushed) {
  CountingBuffer buffer;
  const Redirected redirected(buffer);
  tolk::platform::print("no end");
  EXPECT_EQ(buffer.insertions, std::vector<std::string>{"no end"});
  EXPECT_EQ(buffer.flushes, 0);
}

TEST(StandardOutput, LineAndItsEndAreOneInsertionAndOneFlush) {
  CountingBuffer buffer;
  const Redirected redirected(buffer);
  tolk::platform::print_line("a line");
  EXPECT_EQ(buffer.insertions, std::vector<std::string>{"a line\n"});
  EXPECT_EQ(buffer.flushes, 1);
}

TEST(StandardOutput, StreamThatRefusesDropsTheText) {
  RefusingBuffer buffer;
  const Redirected redirected(buffer);
  EXPECT_NO_THROW(tolk::platform::print_line("lost"));
  EXPECT_NO_THROW(tolk::platform::print("lost"));
}

TEST(StandardOutput, StreamThatThrowsDropsTheText) {
  RefusingBuffer buffer;
  const Redirected redirected(buffer);
  std::cout.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  EXPECT_NO_THROW(tolk::platform::print_line("lost"));
  std::cout.clear();
  EXPECT_NO_THROW(tolk::platform::print("lost"));
}

TEST(StandardOutput, UnsyncTakesTheStreamsOutOfStep) {
  tolk::platform::desync_standard_output();
  EXPECT_FALSE(std::ios_base::sync_with_stdio(false)) << "the state before this call";
}

TEST(StandardOutput, LinesOfManyThreadsStayWhole) {
  const CapturedStdout out;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) {
        tolk::platform::print_line("0123456789");
        tolk::platform::desync_standard_output();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string expected;
  for (int i = 0; i < 800; ++i) expected += "0123456789\n";
  EXPECT_EQ(out.text(), expected);
}

}  // namespace
