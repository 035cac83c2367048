// A stream that takes no frame: the caller is not told, and waits for its timeout.
#include <gtest/gtest.h>
#include <tests/platform/captured_stdout.h>

#include "client/TolkClient.h"
#include "tests/client/served.h"
#include "transport/system_calls.h"

namespace tolk::test {
namespace {

constexpr int kTimeoutMs = 700;

std::atomic<bool> refusing{false};

int write_or_refuse(uv_write_t* request, uv_stream_t* stream, const uv_buf_t* buffers,
                    unsigned count, uv_write_cb done) {
  return refusing ? UV_EBADF : uv_write(request, stream, buffers, count, done);
}

// Made before there is any loop, and gone after all of them.
class WritesThatMayBeRefused {
 public:
  WritesThatMayBeRefused() { system_calls.write = write_or_refuse; }
  ~WritesThatMayBeRefused() {
    refusing = false;
    system_calls.write = before_;
  }
  WritesThatMayBeRefused(const WritesThatMayBeRefused&) = delete;
  WritesThatMayBeRefused& operator=(const WritesThatMayBeRefused&) = delete;

 private:
  const decltype(SystemCalls::write) before_ = system_calls.write;
};

class RefusedWrite : public testing::Test {
 protected:
  void SetUp() override {
    served.server->method("m", answering("from the server"));
    ASSERT_TRUE(served.start());
    client.method("m", answering("from the client"));
    ASSERT_TRUE(client.InitTolkClient(served.pipe.c_str(), false));
    // Both ways work; the server's sweep and the client's have begun.
    ASSERT_NE(client.SendMsgFast("m", nullptr, 1, 20000), nullptr);
    ASSERT_NE(served.server->SendMsg(served.client_id(), "m", nullptr, 2, 20000), nullptr);
  }

  // How long `call` takes with a stream that refuses, by the clock of the timeouts; what it says.
  template <class Call>
  std::uint32_t time_refused(const Call& call) {
    const CapturedStdout out;
    refusing = true;
    const std::uint32_t begin = system_calls.tick_ms();
    EXPECT_EQ(call(), nullptr);
    const std::uint32_t elapsed = system_calls.tick_ms() - begin;
    refusing = false;
    EXPECT_EQ(out.text(), "write error\n");
    return elapsed;
  }

  WritesThatMayBeRefused writes;
  Served served;
  TolkClient client;
};

TEST_F(RefusedWrite, LetsTheClientsCallerWaitForItsTimeout) {
  const auto elapsed =
      time_refused([&] { return client.SendMsgFast("m", nullptr, 3, kTimeoutMs); });
  EXPECT_GE(elapsed, std::uint32_t{kTimeoutMs});
  EXPECT_TRUE(client.isok());
  EXPECT_NE(client.SendMsgFast("m", nullptr, 3, 20000), nullptr) << "the connection goes on";
}

TEST_F(RefusedWrite, LetsTheServersCallerWaitForItsTimeout) {
  const auto elapsed = time_refused(
      [&] { return served.server->SendMsg(served.client_id(), "m", nullptr, 3, kTimeoutMs); });
  EXPECT_GE(elapsed, std::uint32_t{kTimeoutMs});
  EXPECT_TRUE(served.server->isok());
  EXPECT_NE(served.server->SendMsg(served.client_id(), "m", nullptr, 3, 20000), nullptr);
}

}  // namespace
}  // namespace tolk::test
