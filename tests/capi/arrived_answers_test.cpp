// Answers that are there while the host has yet to hear that all data of the call have arrived.
#include <tolk/c.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "pair.h"
#include "tests/e2e/support/waiting.h"
#include "transfer_support.h"

namespace {

using tolk::test::DataCall;
using tolk::test::Event;
using tolk::test::kPieceOfTransfer;
using tolk::test::Maker;
using tolk::test::Pair;
using tolk::test::text_block;
using tolk::test::text_of;

class CapiArrivedAnswers : public Pair {
 protected:
  static constexpr std::uint64_t kTotal = 2 * kPieceOfTransfer;

  ~CapiArrivedAnswers() override { end(); }

  void listen_with_take() {
    server_methods.add("take", [](tolk_request* request) {
      tolk_request_answer(request, text_block("done").release());
    });
    listen();
  }
  // Ends both when `end_one` has run while the progress of a call was told of the last byte.
  template <class EndOne>
  void expect_answer_beside(Event& has_ended, const EndOne& end_one) {
    Event answered;
    Maker maker;
    DataCall call("take");
    call.raw.source = maker.source(kTotal);
    call.may_go_on = [&](std::uint64_t done) {
      if (done < kTotal) return true;
      answered.set();
      return has_ended.wait();
    };
    const std::uint64_t number = tolk_client_start(client.get(), &call.raw);
    answered.wait();
    end_one();
    tolk_block* result = nullptr;
    EXPECT_EQ(tolk_client_wait(client.get(), number, &result, nullptr), TOLK_OK);
    EXPECT_EQ(text_of(result), "done");
    tolk_block_free(result);
    EXPECT_EQ(call.reports.back(), kTotal);
    end();
  }
};
INSTANTIATE_TEST_SUITE_P(All, CapiArrivedAnswers, tolk::test::kAllTransports,
                         tolk::test::transport_name);

TEST_P(CapiArrivedAnswers, CountMoreThanTheEndOfTheConnection) {
  Event gone;
  ASSERT_NO_FATAL_FAILURE(listen_with_take());
  tolk_client_options options{};
  options.context = &gone;
  options.on_gone = [](void* event, tolk_client*, const tolk_error*) {
    static_cast<Event*>(event)->set();
  };
  client = connect(options);
  expect_answer_beside(gone,
                       [&] { EXPECT_EQ(tolk_server_close(server.get(), TOLK_FOREVER), TOLK_OK); });
}

TEST_P(CapiArrivedAnswers, CountMoreThanAClose) {
  Event closed;
  ASSERT_NO_FATAL_FAILURE(listen_with_take());
  client = connect();
  expect_answer_beside(closed, [&] {
    EXPECT_EQ(tolk_client_close(client.get(), 0), TOLK_OK);
    closed.set();
  });
}

// A progress callback may take longer than the limit. The answer may do so too, on a machine with
// much else to do: then the limit is doubled.
TEST_P(CapiArrivedAnswers, CountMoreThanTheLimit) {
  ASSERT_NO_FATAL_FAILURE(listen_with_take());
  client = connect();
  for (std::int32_t limit = 100; limit < 20000; limit *= 2) {
    Maker maker;
    DataCall call("take");
    call.raw.source = maker.source(kTotal);
    call.raw.limit_ms = limit;
    call.raw.piece_limit_ms = 20000;
    bool has_arrived = false;
    call.may_go_on = [&](std::uint64_t done) {
      has_arrived = done == kTotal;
      if (has_arrived) std::this_thread::sleep_for(std::chrono::milliseconds(limit + 20));
      return true;
    };
    if (call.run(client.get()) == TOLK_OK && has_arrived) return end();
  }
  FAIL() << "the limit ends the call";
}

}  // namespace
