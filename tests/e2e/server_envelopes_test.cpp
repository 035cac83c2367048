// A client sends a server every possible envelope. The server answers each one as the format says,
// or not at all; another client is served, a waiting call of the server is not disturbed, and no
// memory is lost.
#include <gtest/gtest.h>

#include <future>

#include "tests/e2e/support/envelopes.h"
#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

constexpr int kTimeoutMs = 40000;
constexpr int kCallIdOfNone = 77;  // of no envelope
constexpr long kServerGrowthKib = 8L * 1024;

class EveryEnvelopeToAServer : public ServerTest {
 protected:
  void SetUp() override {
    register_echo();
    server->method("s_c_connect", noting_id());
    start();
    peer = std::make_unique<RawClient>(address);
    bystander = std::make_unique<RawClient>(address);
    ASSERT_TRUE(bystander->is_greeted() && peer->is_greeted());
  }

  // Expects that `batch` leaves a waiting call of the server to the bystander undisturbed.
  template <class Batch>
  void expect_undisturbed(const Batch& batch) {
    IServer* const raw = server.get();
    auto waiting = std::async(std::launch::async, [raw, id = newest_id->load()] {
      return string_at(raw->SendMsg(id, "question", nullptr, kCallIdOfNone, kTimeoutMs), 0);
    });
    const auto question = bystander->socket.read_message();
    ASSERT_TRUE(question);
    batch();
    EXPECT_TRUE(serves(*bystander));
    EXPECT_EQ(waiting.wait_for(Milliseconds(0)), std::future_status::timeout)
        << "a foreign message woke it";
    bystander->socket.send_frame(reply_payload(*question, BlockWriter().add("answer")));
    EXPECT_EQ(waiting.get(), "answer");
  }

  static std::string expected_text(const Envelope& envelope) {
    const std::string name = *envelope.read_name();
    return name == "echo" ? envelope.read_argument() : "no event: " + name;
  }
  // Sends it, and compares the answer if there is to be one.
  void exchange(const Envelope& envelope, std::size_t order) {
    ASSERT_TRUE(peer->socket.send_frame(envelope.payload(order))) << envelope.shown();
    const auto name = envelope.read_name();
    if (!name || *name == "retval") return;
    const auto answer = peer->socket.read_message();
    ASSERT_TRUE(answer) << envelope.shown();
    EXPECT_EQ(answer->name(), "retval");
    EXPECT_EQ(answer->call_id(), envelope.read_call_id()) << envelope.shown();
    EXPECT_EQ(answer->token(), envelope.read_token()) << envelope.shown();
    if (name->starts_with("s_c_")) return;
    EXPECT_EQ(answer->string_at(0), expected_text(envelope)) << envelope.shown();
  }
  // All of them; the lines that they cause are counted.
  void exchange_all() {
    for (const Field& name : names()) {
      expect_undisturbed([&] {
        Capture capture;
        int empty = 0;
        for_every_envelope(name, [&](const Envelope& envelope, std::size_t number) {
          if (HasFatalFailure()) return;
          exchange(envelope, number);
          empty += envelope.read_name() ? 0 : 1;
        });
        EXPECT_TRUE(serves(*peer)) << name.shown;  // no unexpected message came before
        EXPECT_EQ(capture.count("event empty!"), empty) << name.shown;
      });
      ASSERT_FALSE(HasFatalFailure());
    }
  }

  std::unique_ptr<RawClient> peer;
  std::unique_ptr<RawClient> bystander;
};
TOLK_OVER_TRANSPORTS(EveryEnvelopeToAServer);

TEST_P(EveryEnvelopeToAServer, IsReadByTheTypesOfItsFields) { exchange_all(); }

class EnvelopesToAPipeServer : public EveryEnvelopeToAServer {};
INSTANTIATE_TEST_SUITE_P(, EnvelopesToAPipeServer, testing::Values(Transport::pipe),
                         transport_name);

TEST_P(EnvelopesToAPipeServer, LeakNoMemory) {
  exchange_all();
  const long before = resident_kib();
  exchange_all();
  EXPECT_LT(resident_kib() - before, kServerGrowthKib + held_back_kib());
}

TEST_P(EveryEnvelopeToAServer, AtRandomDisturbsNoOtherCall) {
  const unsigned seed = test_seed();
  SCOPED_TRACE("--gtest_random_seed=" + std::to_string(seed));
  RecordProperty("seed", std::to_string(seed));
  std::mt19937 random(seed);
  constexpr int kMessages = rounds(2000);
  const std::string end = call_payload("echo", 4712, {}, "the end");
  expect_undisturbed([&] {
    for (int i = 0; i < kMessages; ++i) {
      ASSERT_TRUE(peer->socket.send_frame(random_message(random)));
    }
    ASSERT_TRUE(peer->socket.send_frame(end));
    // Answers overtake one another: what still comes after this one is of no interest.
    for (auto answer = peer->socket.read_message(); answer; answer = peer->socket.read_message()) {
      if (answer->token() == "the end") return;
    }
    FAIL() << "the server no longer answers";
  });
}

}  // namespace
}  // namespace tolk::test
