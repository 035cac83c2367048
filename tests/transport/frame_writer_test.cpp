#include "transport/frame_writer.h"

#include <gtest/gtest.h>
#include <tests/params/hex.h>
#include <tests/platform/captured_stdout.h>
#include <tests/transport/fake_system_calls.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using tolk::Frame;
using tolk::write_frame;
using tolk::test::CapturedStdout;
using tolk::test::FakeSystemCalls;
using tolk::test::to_hex;

using Events = std::vector<std::string>;

class FrameWriter : public testing::Test {
 protected:
  uv_stream_t* stream() { return &stream_; }
  // What libuv would do some time after it took the frame.
  void complete(int status) { calls.writes.back().done(calls.writes.back().request, status); }

  FakeSystemCalls calls;
  CapturedStdout out;

 private:
  uv_stream_t stream_{};
};

TEST_F(FrameWriter, OneWriteCarriesTheWholeFrameInOneBuffer) {
  EXPECT_EQ(write_frame(stream(), Frame::copy_of("abc")), 0);
  ASSERT_EQ(calls.writes.size(), 1u);
  EXPECT_EQ(calls.writes[0].stream, stream());
  EXPECT_EQ(calls.writes[0].buffer_count, 1u);
  EXPECT_EQ(to_hex(calls.writes[0].bytes), "03 00 00 00 61 62 63");
  complete(0);
}

TEST_F(FrameWriter, EmptyBlockIsWrittenAsFourZeroBytes) {
  write_frame(stream(), Frame::copy_of(""));
  EXPECT_EQ(to_hex(calls.writes.at(0).bytes), "00 00 00 00");
  complete(0);
}

TEST_F(FrameWriter, SuccessReturnsTheStatusOfTheWriteAndPrintsNothing) {
  calls.statuses = {5};
  EXPECT_EQ(write_frame(stream(), Frame::copy_of("abc")), 5);
  complete(0);
  EXPECT_EQ(calls.events, (Events{"write"}));
  EXPECT_EQ(out.text(), "");
}

TEST_F(FrameWriter, RefusingStreamGetsFourAttemptsOneMillisecondApart) {
  calls.statuses = {UV_EAGAIN, UV_EAGAIN, UV_EAGAIN, UV_EBADF};
  EXPECT_EQ(write_frame(stream(), Frame::copy_of("abc")), UV_EBADF);
  EXPECT_EQ(calls.events,
            (Events{"write", "sleep 1", "write", "sleep 1", "write", "sleep 1", "write"}));
  EXPECT_EQ(out.text(), "write error\n");
}

TEST_F(FrameWriter, EveryAttemptIsTheSameRequestWithTheSameBytes) {
  calls.status_afterwards = UV_EPIPE;
  write_frame(stream(), Frame::copy_of("abc"));
  ASSERT_EQ(calls.writes.size(), 4u);
  for (const FakeSystemCalls::Write& write : calls.writes) {
    EXPECT_EQ(write.request, calls.writes[0].request);
    EXPECT_EQ(write.buffers, calls.writes[0].buffers);
    EXPECT_EQ(write.done, &tolk::write_server_cb);
    EXPECT_EQ(write.bytes, calls.writes[0].bytes);
  }
}

TEST_F(FrameWriter, RefusedFrameIsKept) {
  const std::size_t before = tolk::refused_frame_count();
  calls.status_afterwards = UV_EPIPE;
  write_frame(stream(), Frame::copy_of("abc"));
  EXPECT_EQ(tolk::refused_frame_count(), before + 1);
  // Its bytes are still there for whoever may look at them.
  EXPECT_EQ(std::string(calls.writes[0].buffers->base, calls.writes[0].buffers->len),
            calls.writes[0].bytes);
}

TEST_F(FrameWriter, FirstRetryThatSucceedsEndsTheAttempts) {
  const std::size_t kept = tolk::refused_frame_count();
  for (unsigned refusals = 1; refusals <= 3; ++refusals) {
    calls.statuses.assign(refusals, UV_EAGAIN);
    calls.events.clear();
    EXPECT_EQ(write_frame(stream(), Frame::copy_of("abc")), 0);
    complete(0);
    EXPECT_EQ(calls.events.size(), 2 * refusals + 1);
  }
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(tolk::refused_frame_count(), kept);
}

TEST_F(FrameWriter, CompletionErrorPrintsItsTextAndFreesTheFrame) {
  const std::size_t kept = tolk::refused_frame_count();
  write_frame(stream(), Frame::copy_of("abc"));
  complete(UV_EPIPE);
  EXPECT_EQ(out.text(), "Write error: broken pipe\n");
  EXPECT_EQ(tolk::refused_frame_count(), kept);
}

TEST_F(FrameWriter, CanceledCompletionIsAnError) {
  write_frame(stream(), Frame::copy_of(""));
  complete(UV_ECANCELED);
  EXPECT_EQ(out.text(), "Write error: operation canceled\n");
}

TEST_F(FrameWriter, CompletionWithoutErrorPrintsNothing) {
  write_frame(stream(), Frame::copy_of("abc"));
  complete(1);
  EXPECT_EQ(out.text(), "");
}

TEST_F(FrameWriter, PayloadBeyondTheLengthFieldIsRefusedWithoutAnAttempt) {
  const std::size_t kept = tolk::refused_frame_count();
  const std::size_t too_large = tolk::frame_format::kMaxPayloadBytes + 1;
  bool measured = false;
  // Memory of that size is asked for and never touched.
  Frame frame = Frame::build([&](auto& encoder) {
    if (!measured) encoder.add_encoded(std::string_view("", too_large));
    measured = true;
  });
  EXPECT_LT(write_frame(stream(), std::move(frame)), 0);
  EXPECT_TRUE(calls.events.empty());
  EXPECT_EQ(out.text(), "write error\n");
  EXPECT_EQ(tolk::refused_frame_count(), kept);
}

TEST_F(FrameWriter, ClosingStreamGetsNoAttempt) {
  const std::size_t kept = tolk::refused_frame_count();
  uv_loop_t loop;
  uv_pipe_t pipe;
  uv_loop_init(&loop);
  uv_pipe_init(&loop, &pipe, 0);
  uv_close(reinterpret_cast<uv_handle_t*>(&pipe), nullptr);
  auto* const closing = reinterpret_cast<uv_stream_t*>(&pipe);
  EXPECT_LT(write_frame(closing, Frame::copy_of("abc")), 0);
  EXPECT_EQ(out.text(), "write error\n");
  uv_run(&loop, UV_RUN_DEFAULT);
  EXPECT_LT(write_frame(closing, Frame::copy_of("abc")), 0) << "closed";
  EXPECT_EQ(out.text(), "write error\nwrite error\n");
  EXPECT_TRUE(calls.events.empty());
  EXPECT_EQ(tolk::refused_frame_count(), kept);
  EXPECT_EQ(uv_loop_close(&loop), 0);
}

}  // namespace
