// A connect or a listen of the C interface is held at its middle.
#include <chrono>
#include <thread>

#include "tests/capi/pair.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/steps/hold.h"

namespace tolk::test {
namespace {

using Clock = std::chrono::steady_clock;

class HeldInAHandler : public Pair {
 protected:
  // The only worker of the server is in "open", which is held at `point`.
  void expect_that_others_are_served(const char* point) {
    server_methods.add_echo();
    tolk_server_options options{};
    options.workers = 1;
    listen(options);
    client = connect();
    const Hold hold(point);
    ASSERT_EQ(tolk_client_post(client.get(), "open", nullptr, 0, nullptr), TOLK_OK);
    ASSERT_TRUE(hold.reached());
    const Answer answer = call_client(client.get(), "echo", "x");
    EXPECT_EQ(answer.text, "x") << answer.reason;
  }

  Counter opened;
};
INSTANTIATE_TEST_SUITE_P(All, HeldInAHandler, kAllTransports,
                         [](const auto& each) { return transport_name(each); });

TEST_P(HeldInAHandler, AConnectLeavesItsWorkerToOthers) {
  server_methods.add("open", [this](tolk_request* request) {
    tolk_client* made = nullptr;
    const char* const address = tolk_server_address(tolk_request_server(request));
    EXPECT_EQ(tolk_client_connect(address, nullptr, &made, nullptr), TOLK_OK);
    tolk_client_free(made);
    tolk_request_free(request);
    opened.add();
  });
  expect_that_others_are_served("client.before.live");
  EXPECT_TRUE(opened.wait_for(1)) << "the server is there until then";
}

TEST_P(HeldInAHandler, AListenLeavesItsWorkerToOthers) {
  server_methods.add("open", [this](tolk_request* request) {
    tolk_server* made = nullptr;
    EXPECT_EQ(tolk_server_listen("tcp4:127.0.0.1:0", nullptr, &made, nullptr), TOLK_OK);
    tolk_server_free(made);
    tolk_request_free(request);
    opened.add();
  });
  expect_that_others_are_served("server.before.live");
  EXPECT_TRUE(opened.wait_for(1));
}

// A limit of its own for the version check would let this connect wait for all of it again.
TEST(HeldInAttempt, TheLimitOfAnAttemptIncludesItsVersionCheck) {
  constexpr std::chrono::milliseconds kAttempt{1000};
  const Address address = fresh_address(Transport::tcp4);
  const RawServer server(address, silent());
  Hold hold("client.before.live");
  Clock::time_point end;
  std::thread connects([&] {
    tolk_client_options options{};
    options.size = sizeof options;
    options.connect_limit_ms = static_cast<int>(kAttempt.count());
    tolk_client* none = nullptr;
    EXPECT_EQ(
        tolk_client_connect(("tcp4:127.0.0.1:" + address.port).c_str(), &options, &none, nullptr),
        TOLK_TIMED_OUT);
    end = Clock::now();
  });
  EXPECT_TRUE(hold.reached());
  const auto middle = Clock::now();
  std::this_thread::sleep_until(middle + kAttempt);  // the limit is over
  hold.release();
  connects.join();
  EXPECT_LT(end - middle, 2 * kAttempt);
}

}  // namespace
}  // namespace tolk::test
