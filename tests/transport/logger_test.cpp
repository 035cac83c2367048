#include "transport/logger.h"

#include <gtest/gtest.h>
#include <tests/platform/captured_stdout.h>
#include <tests/transport/event.h>
#include <tolk/IServerMethod.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using tolk::Logger;
using tolk::MethodRegistry;
using tolk::test::CapturedStdout;

// A sink that does what the test says.
class Sink final : public IServerMethod {
 public:
  void callback(int id, TolkParams* in, TolkParams* out) override {
    ids.push_back(id);
    outs.push_back(out);
    counts.push_back(in->ParamsSize() * 10 + in->MapSize());
    lines.emplace_back(in->GetValue(0)->IsString() ? in->GetValue(0)->GetString() : "no string");
    if (then) then();
  }

  std::vector<int> ids;
  std::vector<TolkParams*> outs;
  std::vector<int> counts;
  std::vector<std::string> lines;
  std::function<void()> then;
};

class Log : public testing::Test {
 protected:
  void install(IServerMethod* handler) { logger.set_sink(registry.refer_to(handler)); }

  CapturedStdout out;
  MethodRegistry registry;
  Logger logger;
  Sink sink;
};

TEST_F(Log, LinesAreFormattedAndNothingIsAdded) {
  logger.formatted("connected: %s %d", "abc", 7);
  logger.plain("[%c]\n", 'x');
  EXPECT_EQ(out.text(), "connected: abc 7[x]\n");
}

TEST_F(Log, FormattedLinesNeedALevelOfOne) {
  for (const int level : {1, 2, 1000}) {
    logger.set_level(level);
    logger.formatted("%d ", level);
  }
  for (const int level : {0, -1, -1000}) {
    logger.set_level(level);
    logger.formatted("%d ", level);
  }
  EXPECT_EQ(out.text(), "1 2 1000 ");
}

TEST_F(Log, PlainLinesIgnoreTheLevel) {
  logger.set_level(0);
  logger.plain("still here\n");
  EXPECT_EQ(out.text(), "still here\n");
}

TEST_F(Log, LineIsCutAt1022Characters) {
  const std::string text(1100, 'a');
  for (const std::size_t size : {1021u, 1022u, 1023u, 1024u, 1100u}) {
    const CapturedStdout captured;
    logger.plain("%s", text.substr(0, size).c_str());
    EXPECT_EQ(captured.text().size(), std::min<std::size_t>(size, 1022));
  }
}

TEST_F(Log, CutLineLosesItsLineEnd) {
  logger.formatted("%s\n", std::string(1022, 'b').c_str());
  EXPECT_EQ(out.text(), std::string(1022, 'b'));
}

TEST_F(Log, TextIsOnlyTestedForBeingThere) {
  EXPECT_TRUE(Logger::set_text("anything"));
  EXPECT_FALSE(Logger::set_text(""));
  EXPECT_FALSE(Logger::set_text(nullptr));
}

TEST_F(Log, SinkGetsTheLineInPlaceOfStandardOutput) {
  install(&sink);
  logger.formatted("one\n");
  logger.plain("two %d\n", 2);
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(sink.lines, (std::vector<std::string>{"one\n", "two 2\n"}));
  EXPECT_EQ(sink.ids, (std::vector<int>{0, 0}));
  EXPECT_EQ(sink.outs, (std::vector<TolkParams*>{nullptr, nullptr}));
  EXPECT_EQ(sink.counts, (std::vector<int>{10, 10})) << "one positional value, no keyed one";
}

TEST_F(Log, SinkGetsNothingBelowItsLevel) {
  install(&sink);
  logger.set_level(0);
  logger.formatted("silent\n");
  EXPECT_TRUE(sink.lines.empty());
}

TEST_F(Log, SinkGetsTheCutLine) {
  install(&sink);
  logger.plain("%s", std::string(2000, 'c').c_str());
  EXPECT_EQ(sink.lines.at(0).size(), 1022u);
}

TEST_F(Log, WithoutItsSinkTheLoggerPrintsAgain) {
  install(&sink);
  logger.set_sink({});
  logger.plain("printed\n");
  EXPECT_EQ(out.text(), "printed\n");
  EXPECT_TRUE(sink.lines.empty());
}

TEST_F(Log, LaterSinkReplacesTheEarlier) {
  Sink later;
  install(&sink);
  install(&later);
  logger.plain("line\n");
  EXPECT_TRUE(sink.lines.empty());
  EXPECT_EQ(later.lines.size(), 1u);
}

TEST_F(Log, SinkThatLogsIsCalledEightDeepAndThenTheLineIsPrinted) {
  install(&sink);
  sink.then = [this] { logger.plain("deeper\n"); };
  logger.plain("first\n");
  EXPECT_EQ(sink.lines.size(), 8u);
  EXPECT_EQ(out.text(), "deeper\n");
  logger.plain("again\n");
  EXPECT_EQ(sink.lines.size(), 16u) << "the depth is counted back down";
}

TEST_F(Log, ThrowingSinkDoesNoHarm) {
  install(&sink);
  sink.then = [] { throw std::runtime_error("sink"); };
  for (int i = 0; i < 20; ++i) logger.plain("line\n");
  EXPECT_EQ(sink.lines.size(), 20u);
  EXPECT_EQ(out.text(), "");
}

TEST_F(Log, SinkMayReplaceItselfWhileItRuns) {
  install(&sink);
  sink.then = [this] { logger.set_sink({}); };
  logger.plain("one\n");
  logger.plain("two\n");
  EXPECT_EQ(sink.lines.size(), 1u);
  EXPECT_EQ(out.text(), "two\n");
}

TEST_F(Log, SinkThatIsAboutToBeDeletedIsLetGo) {
  auto* const deleted = new Sink;
  registry.replace("also a method", deleted);
  install(deleted);
  registry.release_all(MethodRegistry::Keeper::library);  // the logger's reference is the last
  logger.drop_deleted_sink();
  logger.plain("printed\n");
  EXPECT_EQ(out.text(), "printed\n");
}

TEST_F(Log, SinkThatStaysTheHostsIsNotLetGo) {
  install(&sink);
  registry.release_all(MethodRegistry::Keeper::library);
  logger.drop_deleted_sink();
  logger.plain("line\n");
  EXPECT_EQ(sink.lines.size(), 1u);
}

// The end waits up to a second for a sink that is being called.
TEST_F(Log, IdleSinkDoesNotHoldUpItsEnd) {
  install(&sink);
  logger.plain("line\n");
  const auto begin = std::chrono::steady_clock::now();
  logger.end_sink();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  logger.plain("after the end\n");
  EXPECT_EQ(sink.lines, std::vector<std::string>{"line\n"});
}

TEST_F(Log, LinesOfManyThreadsStayWhole) {
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
  logger.set_level(1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kLines; ++i) logger.formatted("thread %d line %d end\n", t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::multiset<std::string> lines;
  std::istringstream text(out.text());
  for (std::string line; std::getline(text, line);) lines.insert(line);
  EXPECT_EQ(lines.size(), std::size_t{kThreads} * kLines);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kLines; ++i) {
      const auto line = "thread " + std::to_string(t) + " line " + std::to_string(i) + " end";
      EXPECT_EQ(lines.count(line), 1u) << line;
    }
  }
}

TEST_F(Log, SinkMayChangeWhileOthersLog) {
  Sink quiet;
  struct Counter final : IServerMethod {
    void callback(int, TolkParams*, TolkParams*) override { ++calls; }
    std::atomic<int> calls{0};
  } counter;
  std::thread logging([&] {
    for (int i = 0; i < 500; ++i) logger.plain("line\n");
  });
  for (int i = 0; i < 500; ++i) {
    logger.set_level(i % 2);
    if (i % 2 == 0) {
      install(&counter);
    } else {
      logger.set_sink({});
    }
  }
  logging.join();
  const auto printed = out.text().size() / std::string("line\n").size();
  EXPECT_EQ(printed + static_cast<std::size_t>(counter.calls), 500u);
}

// A host frees its sink when the end of the object has returned.
TEST_F(Log, EndWaitsForTheSinkAlsoInsideASinkOfAnotherObject) {
  tolk::test::Event entered;
  tolk::test::Event may_return;
  std::atomic<bool> ended{false};
  install(&sink);
  sink.then = [&] {
    entered.set();
    may_return.wait();
  };
  std::thread logging([this] { logger.plain("held\n"); });
  ASSERT_TRUE(entered.wait());
  Logger other;
  Sink other_sink;
  other.set_sink(registry.refer_to(&other_sink));
  other_sink.then = [&] {
    logger.end_sink();
    ended = true;
  };
  std::thread ending([&] { other.plain("ends the first\n"); });
  std::this_thread::yield();
  EXPECT_FALSE(ended);
  may_return.set();
  logging.join();
  ending.join();
  EXPECT_TRUE(ended);
  logger.plain("nowhere\n");
  EXPECT_EQ(sink.lines.size(), 1u);
  EXPECT_EQ(out.text(), "");
}

TEST_F(Log, SinkThatEndsItselfDoesNotWait) {
  install(&sink);
  sink.then = [this] { logger.end_sink(); };
  logger.plain("last\n");
  logger.plain("nowhere\n");
  EXPECT_EQ(sink.lines.size(), 1u);
  EXPECT_EQ(out.text(), "");
}

}  // namespace
