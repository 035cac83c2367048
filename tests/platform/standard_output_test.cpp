#include "platform/standard_output.h"

#include <gtest/gtest.h>
#include <tests/platform/captured_stdout.h>
#include <tests/platform/redirected_stdout.h>

#include <algorithm>
#include <future>
#include <ios>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

namespace platform = tolk::platform;
using tolk::test::CapturedStdout;
using tolk::test::RedirectedStdout;
using tolk::test::WholeTextBuffer;

class RefusingBuffer final : public std::streambuf {};

TEST(StandardOutput, TextIsWrittenAsItIsAndNotFlushed) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  platform::print("no end");
  EXPECT_EQ(buffer.insertions, std::vector<std::string>{"no end"});
  EXPECT_EQ(buffer.flush_count, 0);
}

TEST(StandardOutput, LineAndItsEndAreOneInsertionAndOneFlush) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  const std::string long_line(1000, 'x');
  platform::print_line("a line");
  platform::print_line(long_line);
  EXPECT_EQ(buffer.insertions, (std::vector<std::string>{"a line\n", long_line + "\n"}));
  EXPECT_EQ(buffer.flush_count, 2);
}

TEST(StandardOutput, EachOfSeveralLinesIsFlushed) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  std::vector<std::string> at_flush;
  buffer.on_flush = [&] { at_flush.push_back(buffer.text()); };
  platform::print_lines("\nfirst\nlast\n");
  EXPECT_EQ(at_flush, (std::vector<std::string>{"\n", "\nfirst\n", "\nfirst\nlast\n"}));
}

TEST(StandardOutput, StreamThatRefusesDropsTheText) {
  RefusingBuffer buffer;
  const RedirectedStdout redirected(buffer);
  EXPECT_NO_THROW(platform::print_line("lost"));
  EXPECT_NO_THROW(platform::print("lost"));
}

TEST(StandardOutput, StreamThatThrowsDropsTheText) {
  RefusingBuffer buffer;
  const RedirectedStdout redirected(buffer);
  std::cout.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  EXPECT_NO_THROW(platform::print_line("lost"));
  std::cout.clear();
  EXPECT_NO_THROW(platform::print("lost"));
}

TEST(StandardOutput, StreamThatThrowsWhatIsNotAFailureOfAStreamDropsTheText) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  buffer.on_insertion = [](const std::string&) { throw 7; };
  std::cout.exceptions(std::ios_base::badbit);
  EXPECT_NO_THROW(platform::print("lost"));
  std::cout.clear();
  EXPECT_NO_THROW(platform::print_line("lost"));
  std::cout.clear();
  EXPECT_NO_THROW(platform::print_lines("lost\n"));
  std::cout.clear();
  buffer.on_insertion = nullptr;
  platform::print_line("the next one");
  EXPECT_EQ(buffer.text(), "the next one\n");
}

TEST(StandardOutput, DesyncTakesTheStreamsOutOfStep) {
  platform::desync_standard_output();
  EXPECT_FALSE(std::ios_base::sync_with_stdio(false)) << "the state before this call";
}

// A stream buffer that forwards what it gets, with operations that print themselves.
TEST(StandardOutput, LinesPrintedByTheStreamBufferItselfFollowInOrder) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  buffer.on_insertion = [](const std::string& text) {
    if (text != "outer\n") return;
    platform::print_line("first");
    platform::print_lines("second\nthird\n");
    platform::print("fourth");
  };
  platform::print_line("outer");
  platform::print_line("last");
  EXPECT_EQ(buffer.text(), "outer\nfirst\nsecond\nthird\nfourthlast\n");
}

TEST(StandardOutput, ThreadsPrintWhileTheyHoldALockThatTheStreamBufferTakes) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  std::mutex lock_of_the_host;
  std::promise<void> inside;
  buffer.on_insertion = [&, told = false](const std::string&) mutable {
    if (!std::exchange(told, true)) inside.set_value();
    const std::lock_guard<std::mutex> taken(lock_of_the_host);
  };
  std::thread writer;
  {
    const std::lock_guard<std::mutex> held(lock_of_the_host);
    writer = std::thread([] { platform::print_line("by the writer"); });
    inside.get_future().wait();
    platform::print_line("under the lock");  // returns although the writer waits for this thread
  }
  writer.join();
  EXPECT_EQ(buffer.text(), "by the writer\nunder the lock\n");
}

TEST(StandardOutput, LinesThatBelongTogetherAreNotMixedWithOthers) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  buffer.on_insertion = [](const std::string& text) {
    if (text == "first\n") std::thread([] { platform::print_line("another thread's"); }).join();
  };
  platform::print_lines("first\nsecond\nthird\n");
  EXPECT_EQ(buffer.text(), "first\nsecond\nthird\nanother thread's\n");
}

TEST(StandardOutput, TextBeyondTheBoundIsDropped) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  const std::string large(std::size_t{1} << 19, 'x');
  buffer.on_insertion = [&](const std::string& text) {
    if (text != "start\n") return;
    platform::print(large + "1");
    platform::print(large + "2");
    platform::print("dropped");
  };
  platform::print_line("start");
  platform::print_line("end");
  EXPECT_EQ(buffer.text(), "start\n" + large + "1" + large + "2" + "end\n");
}

// `lines` sorted by their first character, in the order of each one's lines otherwise.
std::string sorted_by_thread(const std::string& lines, std::size_t line_size) {
  std::vector<std::string> each;
  for (std::size_t at = 0; at < lines.size(); at += line_size) {
    each.push_back(lines.substr(at, line_size));
  }
  std::stable_sort(each.begin(), each.end(),
                   [](const std::string& a, const std::string& b) { return a[0] < b[0]; });
  std::string sorted;
  for (const std::string& line : each) sorted += line;
  return sorted;
}

TEST(StandardOutput, LinesOfManyThreadsStayWholeAndEachThreadsLinesInOrder) {
  const CapturedStdout out;
  std::vector<std::thread> threads;
  std::string expected;
  const auto line = [](int thread, int number) {
    return std::to_string(thread) + " 0123456789 " + std::to_string(1000 + number);
  };
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([=] {
      for (int i = 0; i < 200; ++i) {
        platform::print_line(line(t, i));
        platform::desync_standard_output();
      }
    });
    for (int i = 0; i < 200; ++i) expected += line(t, i) + "\n";
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sorted_by_thread(out.text(), line(0, 0).size() + 1), expected);
}

TEST(StandardOutput, NothingIsLostWhenThreadsFillTheQueue) {
  const CapturedStdout out;
  constexpr std::size_t piece_bytes = std::size_t{1} << 17;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 20; ++i) platform::print(std::string(piece_bytes, 'x'));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(out.text().size(), 80 * piece_bytes);
}

// A piece that has been written takes no room any more.
TEST(StandardOutput, NothingIsDroppedHoweverMuchWasLeftBefore) {
  WholeTextBuffer buffer;
  const RedirectedStdout redirected(buffer);
  const std::string left(platform::kMaxQueuedBytes / 2, 'x');
  buffer.on_insertion = [&](const std::string& text) {
    if (text == "outer\n") platform::print(left);
  };
  for (int i = 0; i < 5; ++i) platform::print_line("outer");
  EXPECT_EQ(buffer.text().size(), 5 * (left.size() + 6));
}

}  // namespace
