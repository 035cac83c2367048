// A server sends a client every possible envelope. The client answers each one as the format says,
// or not at all; a waiting call of the client is not disturbed, and no memory is lost.
#include "tests/e2e/client_fixture.h"
#include "tests/e2e/support/envelopes.h"
#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

constexpr int kOwnCallId = 77;  // of no envelope
constexpr long kGrowthKib = 8L * 1024;

class EveryEnvelopeToAClient : public WithRawServer {
 protected:
  void SetUp() override {
    client->method("echo", on_call([](int, TolkParams* in, TolkParams* out) {
                     out->AddString(string_at(in, 0).c_str());
                   }));
    connect();
  }

  // Expects that `batch` leaves a waiting call of the client undisturbed.
  template <class Batch>
  void expect_undisturbed(const Batch& batch) {
    CallMeanwhile waiting(client.get(), "question", kOwnCallId, 0);
    const auto question = peer.read_message();
    ASSERT_TRUE(question);
    batch();
    EXPECT_FALSE(waiting.is_done(Milliseconds(0))) << "a foreign message woke it";
    EXPECT_TRUE(client->isok());
    peer.send_frame(reply_payload(*question, BlockWriter().add("answer")));
    EXPECT_EQ(string_at(waiting.result(), 0), "answer");
  }

  // Sends it, and compares the answer if there is to be one.
  void exchange(const Envelope& envelope, std::size_t order) {
    ASSERT_TRUE(peer.send_frame(envelope.payload(order))) << envelope.shown();
    const auto name = envelope.read_name();
    if (!name || *name == "retval") return;
    const auto answer = peer.read_message();
    ASSERT_TRUE(answer) << envelope.shown();
    EXPECT_EQ(answer->name(), "retval");
    if (*name != "echo" && *name != "s_c_req_body") {  // it has no such method
      EXPECT_EQ(answer->keys(), std::vector<std::string>{kName}) << envelope.shown();
      return;
    }
    EXPECT_EQ(answer->call_id(), envelope.read_call_id().value_or(0)) << envelope.shown();
    EXPECT_EQ(answer->token(), envelope.read_token()) << envelope.shown();
    if (*name == "echo") {
      EXPECT_EQ(answer->string_at(0), envelope.read_argument()) << envelope.shown();
    }
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
        const auto alive = call_client("echo", BlockWriter().add("alive").bytes());
        ASSERT_TRUE(alive) << name.shown;  // and no unexpected message came before
        EXPECT_EQ(alive->string_at(0), "alive") << name.shown;
        EXPECT_EQ(capture.count("event empty!"), empty) << name.shown;
      });
      ASSERT_FALSE(HasFatalFailure());
    }
  }
};
TOLK_OVER_TRANSPORTS(EveryEnvelopeToAClient);

TEST_P(EveryEnvelopeToAClient, IsReadByTheTypesOfItsFields) { exchange_all(); }

class EnvelopesToAPipeClient : public EveryEnvelopeToAClient {};
INSTANTIATE_TEST_SUITE_P(, EnvelopesToAPipeClient, testing::Values(Transport::pipe),
                         transport_name);

TEST_P(EnvelopesToAPipeClient, LeakNoMemory) {
  exchange_all();
  const long before = resident_kib();
  exchange_all();
  EXPECT_LT(resident_kib() - before, kGrowthKib + held_back_kib());
}

TEST_P(EveryEnvelopeToAClient, AtRandomDisturbsNoOtherCall) {
  const unsigned seed = test_seed();
  SCOPED_TRACE("--gtest_random_seed=" + std::to_string(seed));
  RecordProperty("seed", std::to_string(seed));
  std::mt19937 random(seed);
  constexpr int kMessages = rounds(2000);
  expect_undisturbed([&] {
    for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(peer.send_frame(random_message(random)));
    ASSERT_TRUE(peer.send_frame(call_payload("echo", 4712, {}, "the end")));
    for (auto answer = peer.read_message(); answer; answer = peer.read_message()) {
      if (answer->token() == "the end") return;
    }
    FAIL() << "the client no longer answers";
  });
}

}  // namespace
}  // namespace tolk::test
