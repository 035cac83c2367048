// Members of the client's class beyond the interface, and the table of methods that it begins and
// ends with.
#include <gtest/gtest.h>
#include <tests/params/hex.h>
#include <tests/platform/captured_stdout.h>
#include <tests/transport/fake_system_calls.h>

#include <algorithm>
#include <cstdlib>

#include "client/TolkClient.h"
#include "client/client_side.h"
#include "tests/client/served.h"
#include "transport/wait_list.h"

namespace tolk::test {
namespace {

// A call that waits, as far as the list knows. No other thread uses the list meanwhile.
class Waiter {
 public:
  explicit Waiter(std::uint32_t timeout_ms = 0) : record_(timeout_ms) {
    TolkClient::_vcSem.push_back(&record_);
  }
  ~Waiter() { TolkClient::_vcSem.remove(&record_); }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  bool posted() { return uv_sem_trywait(&record_.semaphore) == 0; }
  bool listed() const {
    const auto& all = TolkClient::_vcSem;
    return std::find(all.begin(), all.end(), &record_) != all.end();
  }

 private:
  timeout_sem record_;
};

// A client with a handler and a catch-all, neither of which the host keeps.
class ClientMembers : public testing::Test {
 protected:
  void register_handlers() {
    client.method("m", answering("x", method_deleted));
    client.methodall(on_any_call([](auto...) {}, all_deleted));
  }

  Counter method_deleted;
  Counter all_deleted;
  TolkClient client;
};

TEST(ClientTable, BeginsWithTheTwoBuiltInsAndEndsEmpty) {
  const auto side = std::make_shared<ClientSide>();
  side->register_builtins();
  EXPECT_EQ(side->methods.size(), 2U);
  EXPECT_TRUE(side->methods.contains("s_c_req_body"));
  EXPECT_TRUE(side->methods.contains("s_c_buildin_closed"));
  side->ClearMem();
  EXPECT_EQ(side->methods.size(), 0U);
}

TEST(ClientTable, EndsEmptyWithCustomReleaseToo) {
  const auto side = std::make_shared<ClientSide>();
  side->register_builtins();
  side->custom_release = true;
  side->ClearMem();
  EXPECT_EQ(side->methods.size(), 0U);
}

TEST_F(ClientMembers, ClearMemDeletesTheHandlersAndWakesWhoeverWaits) {
  register_handlers();
  Waiter first;
  Waiter second;
  client.ClearMem();
  EXPECT_EQ(method_deleted.value(), 1);
  EXPECT_EQ(all_deleted.value(), 1);
  EXPECT_TRUE(first.posted());
  EXPECT_TRUE(second.posted());
  EXPECT_TRUE(first.listed());
  EXPECT_TRUE(second.listed());
}

TEST_F(ClientMembers, ClearMemDeletesNothingWithCustomRelease) {
  register_handlers();
  static_cast<IClient&>(client).SetCustomReleaseEvent();
  client.ClearMem();
  EXPECT_EQ(method_deleted.value(), 0);
  EXPECT_EQ(all_deleted.value(), 0);
}

TEST_F(ClientMembers, CloseClientWithoutAConnectionReleasesAndWakesAndSaysNothing) {
  const CapturedStdout out;
  client.log(const_cast<char*>("x"), 1);
  register_handlers();
  Waiter first;
  Waiter second;
  client.closeClient();
  EXPECT_EQ(method_deleted.value(), 1);
  EXPECT_EQ(all_deleted.value(), 1);
  EXPECT_TRUE(first.posted());
  EXPECT_TRUE(second.posted());
  EXPECT_TRUE(first.listed());
  EXPECT_TRUE(second.listed());
  EXPECT_EQ(out.text(), "");
}

TEST_F(ClientMembers, CloseClientDeletesNothingWithCustomRelease) {
  register_handlers();
  static_cast<IClient&>(client).SetCustomReleaseEvent();
  client.closeClient();
  EXPECT_EQ(method_deleted.value(), 0);
  EXPECT_EQ(all_deleted.value(), 0);
}

TEST_F(ClientMembers, CloseClientEndsAConnection) {
  Served served;
  ASSERT_TRUE(served.start());
  register_handlers();
  ASSERT_TRUE(client.InitTolkClient(served.pipe.c_str(), false));
  client.closeClient();
  EXPECT_FALSE(client.isok());
  EXPECT_EQ(method_deleted.value(), 1);
  EXPECT_TRUE(client.InitTolkClient(served.pipe.c_str(), false)) << "it connects again";
}

TEST_F(ClientMembers, WriteServerTellsWhetherTheClientIsConnected) {
  client.write_server(nullptr, 0);
  EXPECT_TRUE(client.isok());
  client.write_server(nullptr, -1);
  EXPECT_FALSE(client.isok());
}

// The client then counts as connected and has no session.
TEST_F(ClientMembers, CloseAfterWriteServerWithoutAConnectionReturns) {
  client.write_server(nullptr, 0);
  client.close();
  EXPECT_EQ(client.SendMsg("m", nullptr, 1, 1), nullptr);
}

TEST_F(ClientMembers, WritebuffWritesOneFrameAndReturnsTheStatus) {
  FakeSystemCalls calls;
  uv_stream_t stream{};
  char bytes[] = "abc";
  calls.statuses = {7};
  EXPECT_EQ(client.writebuff(&stream, bytes, 3), 7);
  ASSERT_EQ(calls.writes.size(), 1U);
  EXPECT_EQ(calls.writes[0].stream, &stream);
  EXPECT_EQ(to_hex(calls.writes[0].bytes), "03 00 00 00 61 62 63");
  TolkClient::write_server_cb(calls.writes[0].request, 0);  // the frame goes, as once it is out

  const CapturedStdout out;
  calls.status_afterwards = UV_EPIPE;
  EXPECT_EQ(client.writebuff(&stream, bytes, 3), UV_EPIPE);
  EXPECT_EQ(out.text(), "write error\n");
}

TEST_F(ClientMembers, SweepWakesThoseWhoseTimeIsOver) {
  FakeSystemCalls calls;
  Waiter patient;
  Waiter limited(100);
  calls.tick = 100;
  TolkClient::sendmsg_timeout_cb(nullptr);
  EXPECT_FALSE(limited.posted());
  calls.tick = 101;
  TolkClient::sendmsg_timeout_cb(nullptr);
  EXPECT_TRUE(limited.posted());
  EXPECT_FALSE(limited.listed());
  EXPECT_FALSE(patient.posted());
  EXPECT_TRUE(patient.listed());
}

// That it does, the leak checker sees.
TEST_F(ClientMembers, CloseCallbackOfTheTimerFreesItsHandle) {
  TolkClient::close_sendmsg_timeout_cb(static_cast<uv_handle_t*>(std::malloc(sizeof(uv_timer_t))));
}

}  // namespace
}  // namespace tolk::test
