// One connected stream over a pair of sockets. The test is the peer, the session and the side.
#include "transport/peer_stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <tests/pattern.h>
#include <tests/platform/captured_stdout.h>
#include <tests/transport/event.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "transport/plain_receiver.h"
#include "transport/work_queue.h"

namespace {

using Events = std::vector<std::string>;
using tolk::Frame;
using tolk::PeerStream;
using tolk::test::CapturedStdout;

Frame call() { return tolk::call_frame("m", 7, std::nullopt, std::nullopt); }
Frame reply() { return tolk::server_reply_frame("", 7, std::nullopt); }

class StreamSide final : public tolk::MessageSide, private tolk::PlainReceiver {
 public:
  explicit StreamSide(Events& log) : log_(log) {}

  void on_message(PeerStream& stream, tolk::SharedBytes payload) TOLK_LOOP override {
    if (!ends_stream) return receive(stream, payload);
    log_.emplace_back("ended");
    stream.close();
    stream.drop_pending();
  }
  bool accepts_malformed() const override { return malformed_counts; }
  void on_message_without_name() TOLK_LOOP override { log_.emplace_back("no name"); }
  void on_reply(const tolk::Envelope& envelope, const tolk::SharedBytes&) TOLK_LOOP override {
    log_.push_back("reply " + std::to_string(envelope.call_id.value_or(0)));
  }
  std::optional<Frame> answer(int, tolk::IncomingCall& call) TOLK_WORKER override {
    called = call.name;
    if (call.arguments) arguments = *call.arguments;
    ++calls;
    return answers();
  }
  void on_reply_refused() TOLK_LOOP override { log_.emplace_back("refused"); }
  tolk::StreamRules stream_rules() const override { return rules; }

  tolk::StreamRules rules;
  bool malformed_counts = false;
  bool ends_stream = false;
  std::string called;
  tolk::SharedBytes arguments;
  std::atomic<int> calls{0};
  std::function<std::optional<Frame>()> answers = [] { return reply(); };

 private:
  Events& log_;
};

class Owner final : public tolk::StreamOwner {
 public:
  explicit Owner(Events& log) : side_(std::make_shared<StreamSide>(log)), log_(log) {}

  tolk::MessageSide& side() override { return *side_; }
  uv_loop_t* loop() TOLK_LOOP override { return &loop_; }
  void begin_work(std::unique_ptr<tolk::WorkItem> call) TOLK_LOOP override {
    work_.begin(&loop_, std::move(call));
  }
  void check_loop_thread() const TOLK_ASSERTS(tolk::loop_role) override {}
  void on_first_read(PeerStream&) TOLK_LOOP override { log_.emplace_back("first read"); }
  void on_stream_end(PeerStream& stream, int status) TOLK_LOOP override {
    log_.push_back(std::string("end ") + uv_err_name(status));
    stream.close();
  }
  bool takes_messages() const override { return log_.size() < most_events; }
  bool begins_calls() const override { return begins; }

  bool begins = true;
  std::size_t most_events = SIZE_MAX;
  uv_loop_t loop_{};
  const std::shared_ptr<StreamSide> side_;

 private:
  Events& log_;
  tolk::TaskQueue ends_;
  tolk::WorkQueue work_{ends_};
};

class ConnectedStream : public testing::Test {
 protected:
  void SetUp() override {
    tolk::enter_loop();
    uv_loop_init(&owner->loop_);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()), 0);
    ASSERT_EQ(stream.init(false), 0);
    ASSERT_EQ(uv_pipe_open(&stream.handle().pipe, sockets[0]), 0);
    ASSERT_EQ(stream.start_reading(), 0);
  }
  void TearDown() override {
    tolk::enter_loop();
    hang_up();
    stream.close();
    uv_run(&owner->loop_, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&owner->loop_), 0);
  }

  void peer_sends(const std::string& bytes) const {
    ASSERT_EQ(::write(sockets[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void peer_sends(const Frame& frame) const { peer_sends(std::string(frame.bytes())); }
  void hang_up() {
    if (sockets[1] >= 0) ::close(sockets[1]);
    sockets[1] = -1;
  }
  // Until the stream has ended, or what is under way is done.
  void run_until(const std::function<bool()>& done) {
    while (!done()) uv_run(&owner->loop_, UV_RUN_ONCE);
  }
  void run_until_end() {
    hang_up();
    run_until([this] { return !log.empty() && log.back().starts_with("end"); });
  }
  std::string peer_reads() const {
    std::array<char, 256> bytes{};
    const ssize_t count = ::read(sockets[1], bytes.data(), bytes.size());
    return {bytes.data(), static_cast<std::size_t>(count > 0 ? count : 0)};
  }

  void begin_call_with_late_reply() {
    side.answers = [this] {
      may_answer.wait();
      return reply();
    };
    peer_sends(call());
    run_until([this] { return !log.empty(); });
  }
  void answer_late() {
    may_answer.set();
    run_until([this] { return owner.use_count() == 1; });
  }

  tolk::test::Event may_answer;
  Events log;
  const std::shared_ptr<Owner> owner = std::make_shared<Owner>(log);
  StreamSide& side = *owner->side_;
  PeerStream stream{*owner};
  std::array<int, 2> sockets{-1, -1};
};

TEST_F(ConnectedStream, TellsItsFirstReadOnceThenRepliesInOrderThenItsEnd) {
  peer_sends(std::string(reply().bytes()) + std::string(reply().bytes()));
  run_until([this] { return log.size() == 3; });
  run_until_end();
  EXPECT_EQ(log, (Events{"first read", "reply 7", "reply 7", "end EOF"}));
}

class ConnectedStrictStream : public ConnectedStream {
 protected:
  ConnectedStrictStream() { side.rules.strict = true; }
};

// What comes before is handed on.
TEST_F(ConnectedStrictStream, EndsAtALengthThatItsRulesForbid) {
  peer_sends(std::string(reply().bytes()) + "\xFF\xFF\xFF\xFF");
  run_until([this] { return log.size() == 3; });
  EXPECT_EQ(log, (Events{"first read", "reply 7", "end EPROTO"}));
}

TEST_F(ConnectedStream, FramesOfOneReadAreDroppedOnceNoMessagesAreTaken) {
  owner->most_events = 2;
  peer_sends(std::string(reply().bytes()) + std::string(reply().bytes()));
  run_until_end();
  EXPECT_EQ(log, (Events{"first read", "reply 7", "end EOF"}));
}

// The answer to a message may be refused, which ends the stream while it hands on others.
TEST_F(ConnectedStream, FramesAndAPartBehindAMessageThatEndsTheStreamAreDropped) {
  side.ends_stream = true;
  peer_sends(std::string(reply().bytes()) + std::string(reply().bytes()) + "xx");
  run_until([this] { return log.size() >= 2; });
  EXPECT_EQ(log, (Events{"first read", "ended"}));
}

TEST_F(ConnectedStream, EndIsAFirstReadToo) {
  run_until_end();
  EXPECT_EQ(log, (Events{"first read", "end EOF"}));
}

TEST_F(ConnectedStream, MessageWithoutANameIsTold) {
  peer_sends(Frame::copy_of(""));
  run_until_end();
  EXPECT_EQ(log, (Events{"first read", "no name", "end EOF"}));
}

TEST_F(ConnectedStream, MalformedMessageCountsWhereTheSideAcceptsIt) {
  const std::string malformed = std::string(reply().bytes().substr(Frame::kPrefixBytes)) + '\x08';
  peer_sends(Frame::copy_of(malformed));
  run_until([this] { return !log.empty(); });
  EXPECT_EQ(log, (Events{"first read"}));
  side.malformed_counts = true;
  peer_sends(Frame::copy_of(malformed));
  run_until_end();
  EXPECT_EQ(log, (Events{"first read", "reply 7", "end EOF"}));
}

TEST_F(ConnectedStream, CallIsAnsweredByAWorkerAndWrittenByTheLoop) {
  peer_sends(call());
  run_until([this] { return !log.empty(); });
  run_until([this] { return owner.use_count() == 1; });
  EXPECT_EQ(side.called, "m");
  EXPECT_EQ(peer_reads(), reply().bytes());
}

// Whole in one read, in parts, and together with another call.
TEST_F(ConnectedStream, ArgumentsOfAnySizeReachTheWorker) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{20000}, std::size_t{50000},
                                 std::size_t{70000}, std::size_t{3000000}}) {
    const std::string arguments = tolk::test::pattern(size);
    const std::string bytes(tolk::call_frame("m", 7, arguments, std::nullopt).bytes());
    side.calls = 0;
    std::thread peer([&] { peer_sends(bytes); });
    run_until([&] { return side.calls == 1 && owner.use_count() == 1; });
    peer.join();
    EXPECT_TRUE(side.arguments.view == arguments) << size;
    EXPECT_EQ(peer_reads(), reply().bytes());
  }
}

// A small call shares its memory with the next read, a large one does not.
TEST_F(ConnectedStream, ArgumentsStayAsTheyAreWhileOthersAreRead) {
  for (const std::size_t size : {std::size_t{100}, std::size_t{60000}}) {
    const auto answer_call = [&](char byte) {
      side.calls = 0;
      const std::string arguments(size, byte);
      peer_sends(tolk::call_frame("m", 7, arguments, std::nullopt));
      run_until([&] { return side.calls == 1 && owner.use_count() == 1; });
      EXPECT_EQ(peer_reads(), reply().bytes());
      EXPECT_TRUE(side.arguments.view == arguments);
      return std::exchange(side.arguments, {});
    };
    const tolk::SharedBytes first = answer_call('1');
    const tolk::SharedBytes second = answer_call('2');
    answer_call('3');
    EXPECT_TRUE(first.view == std::string(size, '1')) << size;
    EXPECT_TRUE(second.view == std::string(size, '2')) << size;
  }
}

TEST_F(ConnectedStream, FirstLargeFrameWidensThePipe) {
  tolk::enter_loop();
  const auto width = [this] {
    tolk::enter_loop();
    int bytes = 0;
    EXPECT_EQ(uv_send_buffer_size(&stream.handle().handle, &bytes), 0);
    return bytes;
  };
  const int before = width();
  ASSERT_EQ(stream.write(reply()), 0);
  EXPECT_EQ(width(), before);
  ASSERT_EQ(stream.write(Frame::copy_of(std::string(1 << 20, 'x'))), 0);
  EXPECT_GE(width(), std::min(2 * before, 1 << 20));
}

TEST_F(ConnectedStream, CallThatMayNotBeginIsDropped) {
  owner->begins = false;
  peer_sends(call());
  run_until([this] { return !log.empty(); });
  run_until([this] { return owner.use_count() == 1; });
  EXPECT_EQ(side.called, "");
}

// The peer must not wait for a reply that nobody can make.
TEST_F(ConnectedStream, EndsWhenAReplyCannotBeMadeForLackOfMemory) {
  side.answers = []() -> std::optional<Frame> { throw std::bad_alloc(); };
  peer_sends(call());
  run_until([this] { return log.size() == 2; });
  EXPECT_EQ(log, (Events{"first read", "end ENOMEM"}));
}

TEST_F(ConnectedStream, LateReplyToAStreamThatIsClosedIsToldToTheSide) {
  const CapturedStdout out;
  begin_call_with_late_reply();
  {
    tolk::enter_loop();
    stream.close();
  }
  answer_late();
  EXPECT_EQ(log, (Events{"first read", "refused"}));
  EXPECT_EQ(out.text(), "write error\n");
}

TEST_F(ConnectedStream, MutedOneDropsLateRepliesAndWhatItReads) {
  const CapturedStdout out;
  begin_call_with_late_reply();
  {
    tolk::enter_loop();
    stream.mute();
  }
  answer_late();
  peer_sends(reply());
  run_until_end();
  EXPECT_EQ(log, (Events{"first read", "end EOF"}));
  EXPECT_EQ(out.text(), "");
}

}  // namespace
