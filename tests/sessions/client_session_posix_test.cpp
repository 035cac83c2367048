// How an attempt to connect ends.
#include <gtest/gtest.h>
#include <tests/sessions/raw_sockets_posix.h>
#include <tests/sessions/recording_sides.h>

#include <memory>
#include <string>
#include <vector>

#include "sessions/client_session.h"

namespace {

using tolk::ClientSession;
using tolk::Endpoint;
using tolk::Phase;
using tolk::test::RawSocket;
using tolk::test::RecordingClient;
using Kind = Endpoint::Kind;
using ToldEvents = std::vector<std::string>;

class ConnectAttempt : public testing::Test {
 protected:
  // Waits until it is decided, and to the end if it has failed.
  void attempt(const Endpoint& where) {
    session = std::make_shared<ClientSession>(*side, where);
    ASSERT_TRUE(session->start_thread());
    session->wait_until_decided();
  }
  void close() {
    session->ask_for_close();
    session->wait_until_ended();
  }

  const Endpoint any_port{Kind::tcp4, "127.0.0.1", "0"};
  const std::shared_ptr<RecordingClient> side = std::make_shared<RecordingClient>();
  std::shared_ptr<ClientSession> session;
};

TEST_F(ConnectAttempt, ThatNobodyAcceptsSaysWhy) {
  const RawSocket reserved(any_port);
  ASSERT_EQ(reserved.bind(), 0);
  attempt(reserved.bound_to(any_port));
  EXPECT_EQ(session->phase(), Phase::ended);
  EXPECT_EQ(side->told.all(), (ToldEvents{"starting", "failed ECONNREFUSED"}));
}

TEST_F(ConnectAttempt, SaysWhyBeforeItsEndIsSeen) {
  Phase seen = Phase::live;
  side->at_failure = [&] { seen = session->phase(); };
  attempt({Kind::pipe, "", "client-session-test-nobody"});
  session->wait_until_ended();
  EXPECT_EQ(seen, Phase::starting);
}

TEST_F(ConnectAttempt, ToAPipeThatIsNotThereSaysWhy) {
  attempt({Kind::pipe, "", "client-session-test-nobody"});
  EXPECT_EQ(side->told.all(), (ToldEvents{"starting", "failed ENOENT"}));
}

TEST_F(ConnectAttempt, ToAPipeWhoseNameIsWrongSaysWhy) {
  attempt({Kind::pipe, "", "../wrong"});
  EXPECT_EQ(side->told.all(), (ToldEvents{"starting", "failed EINVAL"}));
}

TEST_F(ConnectAttempt, ToNoAddressSaysWhyAfterTheSetupsEvent) {
  attempt({Kind::tcp4, "not an address", "1"});
  EXPECT_EQ(side->told.all(), (ToldEvents{"starting", "setup", "failed EINVAL"}));
}

TEST_F(ConnectAttempt, ThatTheSideEndsIsCancelled) {
  const RawSocket listener(any_port);
  ASSERT_EQ(listener.bind(), 0);
  ASSERT_EQ(listener.listen(), 0);
  side->wanted = false;
  attempt(listener.bound_to(any_port));
  EXPECT_EQ(session->phase(), Phase::ended);
  EXPECT_EQ(side->told.all(), (ToldEvents{"starting", "connected", "failed ECANCELED"}));
}

TEST_F(ConnectAttempt, ThatSucceedsHasNotFailedAndItsLimitIsOver) {
  const RawSocket listener(any_port);
  ASSERT_EQ(listener.bind(), 0);
  ASSERT_EQ(listener.listen(1000), 0);  // attempts that are too late stay in its queue
  side->limit_ms = 1;
  while (!session || session->phase() == Phase::ended) attempt(listener.bound_to(any_port));
  bool has_timer = false;
  tolk::test::Event looked;
  session->post(tolk::make_task([&] {
    tolk::enter_loop();
    const auto look = [](uv_handle_t* handle, void* found) {
      if (handle->type == UV_TIMER && !uv_is_closing(handle)) *static_cast<bool*>(found) = true;
    };
    uv_walk(session->loop(), look, &has_timer);
    looked.set();
  }));
  ASSERT_TRUE(looked.wait());
  close();
  EXPECT_FALSE(has_timer);
  EXPECT_EQ(side->told.all().back(), "run out");
}

// A listener whose queue is full leaves connects without an answer.
class SilentServer : public ConnectAttempt {
 protected:
  SilentServer() : listener_(any_port) {
    EXPECT_EQ(listener_.bind(), 0);
    EXPECT_EQ(listener_.listen(0), 0);
    where = listener_.bound_to(any_port);
    EXPECT_EQ(first_in_queue_.emplace(where).connect(), 0);
  }

  Endpoint where;

 private:
  RawSocket listener_;
  std::optional<RawSocket> first_in_queue_;
};

TEST_F(SilentServer, AttemptEndsAtItsLimit) {
  side->limit_ms = 30;
  const auto begin = std::chrono::steady_clock::now();
  attempt(where);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
  EXPECT_EQ(session->phase(), Phase::ended);
  EXPECT_EQ(side->told.all(), (ToldEvents{"starting", "failed ETIMEDOUT"}));
}

}  // namespace
