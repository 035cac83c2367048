// The queue of one stream's frames: first with faults by a table, then over a pair of sockets.
#include "transport/outgoing_queue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <tests/pattern.h>
#include <tests/transport/event.h>
#include <tests/transport/fake_system_calls.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/thread.h"
#include "transport/stream_handle.h"

namespace {

using tolk::Frame;
using tolk::OutgoingQueue;
using tolk::Room;
using tolk::test::FakeSystemCalls;
using Statuses = std::vector<int>;

constexpr std::size_t kBound = 100;
constexpr int kPatienceMs = 20000;

Frame frame_of(const std::string& payload) { return Frame::copy_of(payload); }
std::string bytes_of_frame(const std::string& payload) {
  return std::string(frame_of(payload).bytes());
}
// A frame of `size` bytes in all.
Frame frame_with_size(std::size_t size) {
  return frame_of(std::string(size - Frame::kPrefixBytes, 'x'));
}
// A frame that is not queued stays the caller's.
tolk::Sent offer(tolk::OutgoingQueue& queue, Frame& frame) {
  return queue.add(std::move(frame), true);
}

// A queue on one end of a pair of sockets, with its loop. It closes as its users have to.
class StreamWithQueue : public tolk::OutgoingEvents {
 public:
  explicit StreamWithQueue(std::size_t bound = kBound) : queue(*this, bound) {
    tolk::enter_loop();
    uv_loop_init(&loop);
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()), 0);
    EXPECT_EQ(handle.init(&loop, false, this), 0);
    EXPECT_EQ(uv_pipe_open(&handle.pipe, sockets[0]), 0);
  }
  ~StreamWithQueue() override {
    tolk::enter_loop();
    close();
    uv_run(&loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop), 0);
    hang_up();
  }
  StreamWithQueue(const StreamWithQueue&) = delete;
  StreamWithQueue& operator=(const StreamWithQueue&) = delete;

  void open() TOLK_LOOP { queue.open(&handle.stream); }
  tolk::Sent add(const std::string& payload, bool counts = false) {
    return queue.add(frame_of(payload), counts);
  }
  void close() TOLK_LOOP {
    queue.close();
    tolk::close_handle(&handle.handle);
  }
  void hang_up() {
    if (sockets[1] >= 0) ::close(sockets[1]);
    sockets[1] = -1;
  }
  std::string peer_reads() const {
    std::array<char, 65536> bytes{};
    const ssize_t count = ::recv(sockets[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
    return {bytes.data(), static_cast<std::size_t>(count > 0 ? count : 0)};
  }
  // Turns the loop until the peer has read so many bytes.
  std::string peer_reads(std::size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
      uv_run(&loop, UV_RUN_NOWAIT);
      bytes += peer_reads();
    }
    return bytes;
  }

  void on_written() TOLK_LOOP override { ++written; }
  void on_write_failed(int status) TOLK_LOOP override { failures.push_back(status); }

  uv_loop_t loop{};
  tolk::StreamHandle handle;
  std::array<int, 2> sockets{-1, -1};
  OutgoingQueue queue;
  int written = 0;
  Statuses failures;
};

// The table: what the system does with each send and write is the test's word.
class OutgoingQueueFaults : public testing::Test {
 protected:
  OutgoingQueueFaults() { tolk::enter_loop(); }

  // The end of the write that is under way.
  void end_write(int status = 0) {
    const FakeSystemCalls::Write write = system.writes.back();
    write.done(write.request, status);
  }

  FakeSystemCalls system;
  StreamWithQueue stream;
  OutgoingQueue& queue = stream.queue;
};

TEST_F(OutgoingQueueFaults, FrameThatNothingWaitsBeforeIsSentByTheThreadThatAddsIt) {
  tolk::enter_loop();
  stream.open();
  system.sends = {1000};
  EXPECT_EQ(stream.add("one"), tolk::Sent::written);
  EXPECT_EQ(system.sent, bytes_of_frame("one"));
  EXPECT_EQ(queue.bytes(), 0u);
  EXPECT_TRUE(system.writes.empty());
}

// At every place of the frame, and of one that is written from three buffers.
TEST_F(OutgoingQueueFaults, LoopWritesTheRestOfAFrameThatTheSystemTookInPart) {
  tolk::enter_loop();
  stream.open();
  const std::string large = tolk::test::pattern(Frame::kTakeOverBytes);
  const auto make = [&](bool is_large) {
    if (!is_large) return frame_of("a frame");
    return Frame::build_around({nullptr, large}, [&](auto& encoder) {
      encoder.add_encoded("head");
      encoder.add_encoded(large);
      encoder.add_encoded("tail");
    });
  };
  for (const bool is_large : {false, true}) {
    std::string whole;
    const Frame frame = make(is_large);
    for (const uv_buf_t& part : frame.buffers()) whole.append(part.base, part.len);
    for (std::size_t taken = 0; taken < whole.size(); taken += is_large ? 1001 : 1) {
      system.sends = {taken};
      system.sent.clear();
      EXPECT_EQ(queue.add(make(is_large), false), tolk::Sent::queued_first);
      EXPECT_EQ(queue.bytes(), whole.size() - taken);
      queue.flush();
      EXPECT_TRUE(system.sent + system.writes.back().bytes == whole) << taken;
      end_write();
      EXPECT_EQ(queue.bytes(), 0u);
    }
  }
}

TEST_F(OutgoingQueueFaults, NothingOvertakesWhatWaitsOrIsBeingWritten) {
  tolk::enter_loop();
  stream.open();
  system.sends = {3, 1000};  // a part, and then the system would take more
  EXPECT_EQ(stream.add("one"), tolk::Sent::queued_first);
  EXPECT_EQ(stream.add("two"), tolk::Sent::queued);
  queue.flush();
  EXPECT_EQ(stream.add("three"), tolk::Sent::queued);
  EXPECT_EQ(system.sent + system.writes.back().bytes,
            bytes_of_frame("one") + bytes_of_frame("two"));
  end_write();
  EXPECT_EQ(system.writes.back().bytes, bytes_of_frame("three"));
  end_write();
  EXPECT_EQ(stream.written, 2);
  system.sent.clear();
  EXPECT_EQ(stream.add("four"), tolk::Sent::written);
  EXPECT_EQ(system.sent, bytes_of_frame("four"));
}

TEST_F(OutgoingQueueFaults, OneFlushIsAskedForAtATime) {
  tolk::enter_loop();
  stream.open();
  EXPECT_EQ(stream.add("one"), tolk::Sent::queued_first);
  EXPECT_EQ(stream.add("two"), tolk::Sent::queued);
  queue.flush();
  end_write();
  EXPECT_EQ(stream.add("three"), tolk::Sent::queued_first) << "the next one is asked for again";
}

TEST_F(OutgoingQueueFaults, FramesThatComeBeforeTheStreamGoOutFirst) {
  tolk::enter_loop();
  EXPECT_EQ(stream.add("early"), tolk::Sent::queued);
  EXPECT_TRUE(system.events.empty());
  stream.open();
  EXPECT_EQ(system.writes.back().bytes, bytes_of_frame("early"));
  end_write();
}

TEST_F(OutgoingQueueFaults, OneWriteHasSoManyFramesAndBytesAtMost) {
  tolk::enter_loop();
  for (std::size_t i = 0; i <= OutgoingQueue::kMostFrames; ++i) stream.add("x");
  const std::string large(OutgoingQueue::kMostBytes, 'x');
  stream.add(large);
  stream.add("last");
  stream.open();
  EXPECT_EQ(system.writes.back().bytes.size(),
            OutgoingQueue::kMostFrames * bytes_of_frame("x").size());
  end_write();
  EXPECT_EQ(system.writes.back().bytes, bytes_of_frame("x"));
  end_write();
  EXPECT_EQ(system.writes.back().bytes.size(), large.size() + Frame::kPrefixBytes);
  end_write();
  EXPECT_EQ(system.writes.back().bytes, bytes_of_frame("last"));
  end_write();
  EXPECT_EQ(system.writes.size(), 4u);
}

TEST_F(OutgoingQueueFaults, WriteThatIsRefusedIsToldOnce) {
  tolk::enter_loop();
  stream.open();
  stream.add("one");
  system.statuses = {UV_ENOMEM};
  queue.flush();
  EXPECT_EQ(stream.failures, Statuses{UV_ENOMEM});
  EXPECT_EQ(stream.add("two"), tolk::Sent::queued);
  queue.flush();
  EXPECT_EQ(system.writes.size(), 1u);
}

// A frame may be out in part: what came behind it would be read as its rest.
TEST_F(OutgoingQueueFaults, NothingFollowsAWriteThatFailed) {
  tolk::enter_loop();
  stream.open();
  stream.add("one");
  queue.flush();
  system.sends = {1000};
  end_write(UV_EPIPE);
  EXPECT_EQ(stream.failures, Statuses{UV_EPIPE});
  EXPECT_EQ(stream.add("two"), tolk::Sent::queued);
  EXPECT_EQ(system.sent, "");
  EXPECT_EQ(system.writes.size(), 1u);
}

TEST_F(OutgoingQueueFaults, CloseEndsAWriteUnderWayWithoutAWord) {
  tolk::enter_loop();
  stream.open();
  stream.add("one");
  queue.flush();
  stream.add("two");
  queue.close();
  queue.close();
  EXPECT_EQ(queue.bytes(), 0u);
  end_write(UV_ECANCELED);
  EXPECT_TRUE(stream.failures.empty());
  EXPECT_EQ(stream.written, 0);
  system.sends = {1000};
  EXPECT_EQ(stream.add("three"), tolk::Sent::closed);
  queue.flush();
  EXPECT_EQ(system.sent, "");
  EXPECT_EQ(system.writes.size(), 1u);
}

TEST_F(OutgoingQueueFaults, BoundHoldsForFramesThatCountAndGivesTheirRoomBack) {
  tolk::enter_loop();
  stream.open();
  Frame frame = frame_with_size(kBound - 1);
  EXPECT_EQ(queue.add(std::move(frame), true), tolk::Sent::queued_first);
  Frame next = frame_with_size(5);
  EXPECT_EQ(offer(queue, next), tolk::Sent::full);
  EXPECT_EQ(next.total_bytes(), 5u) << "the frame stays the caller's";
  EXPECT_EQ(queue.add(std::move(next), false), tolk::Sent::queued);
  EXPECT_EQ(queue.wait_for_room(5, 0), Room::none_in_time);
  queue.flush();
  EXPECT_EQ(queue.wait_for_room(5, 0), Room::none_in_time) << "not before it is written";
  end_write();
  EXPECT_EQ(queue.wait_for_room(5, 0), Room::there);
  EXPECT_EQ(queue.add(frame_with_size(5), true), tolk::Sent::queued_first);
  EXPECT_EQ(queue.add(frame_with_size(kBound - 5), true), tolk::Sent::queued);
}

TEST_F(OutgoingQueueFaults, FrameAboveTheBoundIsTakenAlone) {
  tolk::enter_loop();
  stream.open();
  EXPECT_EQ(queue.wait_for_room(10 * kBound, 0), Room::there);
  EXPECT_EQ(queue.add(frame_with_size(10 * kBound), true), tolk::Sent::queued_first);
  EXPECT_EQ(queue.add(frame_with_size(10 * kBound), true), tolk::Sent::full);
  EXPECT_EQ(queue.wait_for_room(10 * kBound, 0), Room::none_in_time);
}

TEST_F(OutgoingQueueFaults, PartThatIsOutAlreadyDoesNotLoseCount) {
  tolk::enter_loop();
  stream.open();
  system.sends = {10};
  EXPECT_EQ(queue.add(frame_with_size(kBound), true), tolk::Sent::queued_first);
  EXPECT_EQ(queue.bytes(), kBound - 10);
  queue.flush();
  end_write();
  EXPECT_EQ(queue.bytes(), 0u);
  EXPECT_EQ(queue.add(frame_with_size(kBound), true), tolk::Sent::queued_first);
}

// The bytes are out before the thread that sends them comes back, here after a while.
TEST_F(OutgoingQueueFaults, WhoWaitsWithoutATimeoutHearsOfASendUnderWay) {
  tolk::enter_loop();
  static tolk::test::Event sending;
  static tolk::test::Event decided;
  stream.open();
  tolk::system_calls.send = [](int, std::span<const uv_buf_t> buffers) -> std::size_t {
    sending.set();
    decided.wait(std::chrono::milliseconds(50));
    return buffers[0].len;
  };
  std::thread sender([&] { EXPECT_EQ(stream.add("x"), tolk::Sent::written); });
  EXPECT_TRUE(sending.wait());
  EXPECT_TRUE(queue.wait_until_empty(0));
  decided.set();
  sender.join();
}

// What a thread waits for, and what it hears.
class OutgoingQueueWaits : public OutgoingQueueFaults {
 protected:
  OutgoingQueueWaits() {
    tolk::enter_loop();
    stream.open();
    queue.add(frame_with_size(kBound), true);
    queue.flush();
  }
  // True when the thread waited before `wake` and heard of it.
  template <class Wait, class Wake>
  auto woken(Wait wait, Wake wake) {
    std::atomic<bool> woke{false};
    std::optional<decltype(wait())> heard;
    tolk::test::Event begun;
    std::thread waiter([&] {
      begun.set();
      heard = wait();
      EXPECT_TRUE(woke);
    });
    EXPECT_TRUE(begun.wait());
    woke = true;
    wake();
    waiter.join();
    return *heard;
  }
};

TEST_F(OutgoingQueueWaits, RoomWakesAPoster) {
  const auto wait = [&] { return queue.wait_for_room(1, kPatienceMs); };
  EXPECT_EQ(woken(wait, [&] { end_write(); }), Room::there);
}

TEST_F(OutgoingQueueWaits, CloseWakesAPoster) {
  const auto wait = [&] { return queue.wait_for_room(1, OutgoingQueue::kForever); };
  const auto wake = [&] {
    tolk::enter_loop();
    queue.close();
  };
  EXPECT_EQ(woken(wait, wake), Room::closed);
  EXPECT_EQ(queue.wait_for_room(1, OutgoingQueue::kForever), Room::closed);
}

TEST_F(OutgoingQueueWaits, LastWriteWakesWhoWaitsForAnEmptyQueue) {
  stream.add("second");
  EXPECT_FALSE(queue.wait_until_empty(0));
  const auto wait = [&] { return queue.wait_until_empty(kPatienceMs); };
  EXPECT_TRUE(woken(wait, [&] {
    end_write();
    EXPECT_FALSE(queue.wait_until_empty(0));
    end_write();
  }));
}

TEST_F(OutgoingQueueWaits, CloseWakesWhoWaitsForAnEmptyQueue) {
  const auto wait = [&] { return queue.wait_until_empty(OutgoingQueue::kForever); };
  EXPECT_FALSE(woken(wait, [&] {
    tolk::enter_loop();
    queue.close();
  }));
}

// With the system's own calls.

TEST(OutgoingQueue, FullSocketTakesTheRestAsThePeerReads) {
  tolk::enter_loop();
  StreamWithQueue stream;
  stream.open();
  const std::string payload = tolk::test::pattern(1000);
  std::string all;
  tolk::Sent sent = tolk::Sent::written;
  while (sent == tolk::Sent::written) {
    sent = stream.add(payload);
    all += bytes_of_frame(payload);
  }
  EXPECT_EQ(sent, tolk::Sent::queued_first);
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(stream.add(payload + std::to_string(i)), tolk::Sent::queued);
    all += bytes_of_frame(payload + std::to_string(i));
  }
  stream.queue.flush();
  EXPECT_TRUE(stream.peer_reads(all.size()) == all);
  while (stream.queue.bytes() != 0) uv_run(&stream.loop, UV_RUN_ONCE);
  EXPECT_EQ(stream.add("direct again"), tolk::Sent::written);
}

TEST(OutgoingQueue, PeerThatLeftIsToldByTheLoopAndRaisesNoSignal) {
  tolk::enter_loop();
  StreamWithQueue stream;
  stream.open();
  stream.hang_up();
  EXPECT_EQ(stream.add("x"), tolk::Sent::queued_first);
  const tolk::platform::BrokenPipeBlocked loop_threads_have_this;
  stream.queue.flush();
  while (stream.failures.empty()) uv_run(&stream.loop, UV_RUN_ONCE);
  EXPECT_EQ(stream.failures, Statuses{UV_EPIPE});
}

// The loop has a large write under way when the stream closes.
TEST(OutgoingQueue, CloseWhileTheLoopWritesEndsTheWrite) {
  tolk::enter_loop();
  StreamWithQueue stream;
  stream.open();
  EXPECT_EQ(stream.add(std::string(std::size_t{4} << 20, 'x')), tolk::Sent::queued_first);
  stream.queue.flush();
  uv_run(&stream.loop, UV_RUN_NOWAIT);
  EXPECT_GT(stream.queue.bytes(), 0u);
  stream.close();
  uv_run(&stream.loop, UV_RUN_DEFAULT);
  EXPECT_EQ(stream.written, 0);
  EXPECT_TRUE(stream.failures.empty());
}

// Two threads add as fast as they can and are held to the bound; the loop writes what they leave.
// Each thread's frames arrive whole and in its order.
TEST(OutgoingQueue, FramesOfTwoThreadsArriveWholeAndInTheOrderOfEach) {
  tolk::enter_loop();
  constexpr int kFrames = 20000;
  StreamWithQueue stream(20000);
  stream.open();
  std::atomic<bool> flush_is_due{false};
  std::atomic<int> direct{0};
  std::atomic<int> queued{0};
  const auto post = [&](char name) {
    for (int i = 0; i < kFrames; ++i) {
      Frame frame =
          frame_of(name + std::to_string(i) + std::string(static_cast<std::size_t>(i % 50), '.'));
      tolk::Sent sent = offer(stream.queue, frame);
      while (sent == tolk::Sent::full) {
        EXPECT_EQ(stream.queue.wait_for_room(frame.total_bytes(), kPatienceMs), Room::there);
        sent = offer(stream.queue, frame);
      }
      ++(sent == tolk::Sent::written ? direct : queued);
      if (sent == tolk::Sent::queued_first) flush_is_due = true;
    }
  };
  std::thread first(post, 'a');
  std::thread second(post, 'b');
  std::array<int, 2> next{};
  std::string bytes;
  while (next[0] + next[1] < 2 * kFrames) {
    if (flush_is_due.exchange(false)) stream.queue.flush();
    uv_run(&stream.loop, UV_RUN_NOWAIT);
    bytes += stream.peer_reads();
    std::size_t at = 0;
    while (bytes.size() - at > 4) {
      const auto size = static_cast<std::size_t>(static_cast<unsigned char>(bytes[at]));
      if (bytes.size() - at < 4 + size) break;
      const std::string payload = bytes.substr(at + 4, size);
      int& wanted = next[payload[0] == 'b'];
      ASSERT_EQ(payload.substr(1, payload.find('.') - 1), std::to_string(wanted));
      ++wanted;
      at += 4 + size;
    }
    bytes.erase(0, at);
  }
  first.join();
  second.join();
  EXPECT_GT(direct, 0);
  EXPECT_GT(queued, 0);
}

// A descriptor that is closed is given to the next one who opens a file. A late send must not reach
// that file.
TEST(OutgoingQueue, NoSendReachesADescriptorThatWasClosed) {
  tolk::enter_loop();
  for (int round = 0; round < 50; ++round) {
    auto stream = std::make_unique<StreamWithQueue>();
    stream->open();
    std::atomic<bool> begun{false};
    std::thread sender([&] {
      tolk::Sent sent = tolk::Sent::written;
      while (sent != tolk::Sent::closed) {
        sent = stream->add("x");
        begun = true;
      }
    });
    while (!begun) std::this_thread::yield();
    const int number = stream->sockets[0];
    stream->close();
    uv_run(&stream->loop, UV_RUN_DEFAULT);
    std::array<int, 2> others{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, others.data()), 0);
    EXPECT_EQ(others[0], number) << "the test needs the same number";
    sender.join();
    char byte = 0;
    EXPECT_EQ(::recv(others[1], &byte, 1, MSG_DONTWAIT), -1);
    ::close(others[0]);
    ::close(others[1]);
  }
}

}  // namespace
