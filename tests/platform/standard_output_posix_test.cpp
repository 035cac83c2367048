#include <gtest/gtest.h>
#include <pthread.h>
#include <tests/platform/redirected_stdout.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>

#include "platform/standard_output.h"

namespace {

namespace platform = tolk::platform;
using tolk::test::RedirectedStdout;
using tolk::test::WholeTextBuffer;

// A thread that can be cancelled.
class CancellableThread {
 public:
  explicit CancellableThread(std::function<void()> work) : work_(std::move(work)) {
    pthread_create(
        &thread_, nullptr,
        [](void* self) -> void* {
          static_cast<CancellableThread*>(self)->work_();
          return nullptr;
        },
        this);
  }
  CancellableThread(const CancellableThread&) = delete;
  CancellableThread& operator=(const CancellableThread&) = delete;

  bool cancel_and_join() {
    pthread_cancel(thread_);
    void* result = nullptr;
    pthread_join(thread_, &result);
    return result == PTHREAD_CANCELED;
  }

 private:
  std::function<void()> work_;
  pthread_t thread_{};
};

TEST(StandardOutput, WriterThatIsCancelledGivesTheRoleBack) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  std::promise<void> inside;
  buffer.on_insertion = [&](const std::string& text) {
    if (text != "of the cancelled thread\n") return;
    inside.set_value();
    for (;; std::this_thread::yield()) pthread_testcancel();
  };
  CancellableThread writer([] { platform::print_line("of the cancelled thread"); });
  inside.get_future().wait();
  platform::print_line("enqueued");
  ASSERT_TRUE(writer.cancel_and_join());
  std::cout.clear();  // the cancellation sets a bit of the stream
  platform::print_line("the next");
  EXPECT_EQ(buffer.text(), "enqueued\nthe next\n");
}

// Writes to standard error, from a thread that is held until the process's exit handlers run.
class HeldUntilExit final : public std::streambuf {
 public:
  std::promise<void> inside;
  std::promise<void> exiting;

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    const std::string line(text, static_cast<std::size_t>(size));
    if (line == "first\n") {
      inside.set_value();
      exiting.get_future().wait();
    }
    return write(STDERR_FILENO, line.data(), line.size()) == size ? size : 0;
  }
};

[[noreturn]] void enqueue_a_line_and_exit() {
  static auto* const buffer = new HeldUntilExit;
  platform::desync_standard_output();
  std::cout.rdbuf(buffer);
  std::atexit([] { buffer->exiting.set_value(); });
  std::thread([] { platform::print_line("first"); }).detach();
  buffer->inside.get_future().wait();
  platform::print_line("enqueued");
  std::exit(0);
}

TEST(StandardOutputDeathTest, WhatIsLeftToAThreadIsWrittenBeforeTheProcessEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(enqueue_a_line_and_exit(), testing::ExitedWithCode(0), "^first\nenqueued\n$");
}

}  // namespace
