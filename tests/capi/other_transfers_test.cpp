// Large data beyond 2 GiB, and those of peers that do not know pieces.
#include <tolk/tolk.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <tolk/tolk.hpp>

#include "pair.h"
#include "transfer_support.h"

namespace {

using tolk::test::are_bytes;
using tolk::test::bytes_at;
using tolk::test::Checker;
using tolk::test::DataCall;
using tolk::test::DataMethod;
using tolk::test::kPieceOfTransfer;
using tolk::test::Maker;
using tolk::test::Pair;
using tolk::test::some_bytes;
using tolk::test::TempFile;
using tolk::test::text_block;
using tolk::test::text_of;

// More than 2 GiB, with a bound on what is in memory meanwhile. A sanitizer, which looks at the
// code and not at the numbers, would take minutes for that.
#if defined(TOLK_SANITIZED)
constexpr std::uint64_t kHuge = std::uint64_t{64} << 20;
#else
constexpr std::uint64_t kHuge = std::uint64_t{2} << 30;
#endif

class CapiHugeTransfers : public Pair {};
INSTANTIATE_TEST_SUITE_P(Pipe, CapiHugeTransfers, testing::Values("pipe"),
                         tolk::test::transport_name);

TEST_P(CapiHugeTransfers, MoreThanTwoGiBOfASparseFileGoThroughAFewPieces) {
  constexpr std::uint64_t kTotal = kHuge + 12345;
  const TempFile from;
  from.put("begin");
  std::filesystem::resize_file(from.path(), kTotal);
  std::atomic<std::uint64_t> got{0};
  const auto count = [](void* to, const void*, std::size_t size) {
    *static_cast<std::atomic<std::uint64_t>*>(to) += size;
    return true;
  };
  DataMethod method;
  method.accept = [&](const tolk_request*, std::uint64_t total, tolk_sink** sink) {
    EXPECT_EQ(total, kTotal);
    *sink = tolk_sink_callback(count, &got, nullptr);
    return TOLK_OK;
  };
  method.add_to(server_methods.get(), "store");
  start();
  std::uint64_t most_ahead = 0;
  DataCall call("store");
  call.raw.source = from.source();
  call.may_go_on = [&](std::uint64_t done) {
    most_ahead = std::max<std::uint64_t>(most_ahead, got - done);
    return true;
  };
  EXPECT_EQ(call.run(client.get()), TOLK_OK) << call.reason;
  EXPECT_EQ(got, kTotal);
  EXPECT_LE(most_ahead, 8 * kPieceOfTransfer);
  end();
}

TEST_P(CapiHugeTransfers, MoreThanTwoGiBComeWithAnAnswer) {
  constexpr std::uint64_t kTotal = kHuge + 5;
  Maker maker;
  Checker checker;
  DataMethod method;
  method.handler = [&](tolk_request* request) {
    tolk_request_answer_data(request, nullptr, maker.source(kTotal));
  };
  method.add_to(server_methods.get(), "fetch");
  start();
  DataCall call("fetch");
  call.raw.sink = checker.sink();
  call.may_go_on = [&](std::uint64_t) {
    EXPECT_LE(maker.made - checker.got, 9 * kPieceOfTransfer);
    return true;
  };
  EXPECT_EQ(call.run(client.get()), TOLK_OK) << call.reason;
  EXPECT_EQ(checker.got, kTotal);
  EXPECT_TRUE(checker.all_right);
  end();
}

// Peers that do not know pieces, and the C++ layer, which has its own.
class CapiOtherPeers : public Pair {};
INSTANTIATE_TEST_SUITE_P(Pipe, CapiOtherPeers, testing::Values("pipe"), tolk::test::transport_name);

TEST_P(CapiOtherPeers, ALayeredServerGetsDataInOneCall) {
  tolk::Server plain;
  plain.on("size", [](const std::string& data, int more) {
    return std::to_string(data.size()) + " " + std::to_string(more);
  });
  const std::string address = "pipe:" + std::to_string(20000 + std::random_device()() % 20000);
  plain.listen(tolk::Address(address));
  tolk_client* made = nullptr;
  ASSERT_EQ(tolk_client_connect(address.c_str(), nullptr, &made, nullptr), TOLK_OK);
  client.reset(made);
  Maker maker;
  DataCall call("size");
  call.arguments.reset(tolk_block_new());
  tolk_block_add_int(call.arguments.get(), 7);
  call.raw.source = maker.source(5 * kPieceOfTransfer);
  EXPECT_EQ(call.run(client.get()), TOLK_OK) << call.reason;
  EXPECT_EQ(text_of(call.result.get()), std::to_string(5 * kPieceOfTransfer) + " 7");
  DataCall huge("size");
  huge.raw.source = maker.source(std::uint64_t{3} << 30);
  EXPECT_EQ(huge.run(client.get()), TOLK_TOO_LARGE);
  end();
}

TEST_P(CapiOtherPeers, ALayeredClientSendsPiecesAndGetsAnAnswerInOneMessage) {
  DataMethod take;
  take.handler = [](tolk_request* request) {
    const tolk_block* const got = tolk_request_arguments(request);
    EXPECT_EQ(tolk_block_total(got), 2U);
    EXPECT_EQ(tolk_block_int(got, 1), 7);
    const std::string bytes = bytes_at(got, 0);
    EXPECT_TRUE(are_bytes(0, bytes.data(), bytes.size()));
    tolk_request_answer(request, text_block(std::to_string(bytes.size())).release());
  };
  take.add_to(server_methods.get(), "take");
  DataMethod fetch;
  const std::string bytes = some_bytes(3 * kPieceOfTransfer);
  fetch.handler = [&](tolk_request* request) {
    tolk_request_answer_data(request, nullptr,
                             tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr));
  };
  fetch.add_to(server_methods.get(), "fetch");
  std::string name = "pipe:" + std::to_string(20000 + std::random_device()() % 20000);
  tolk_server_options options{};
  options.size = sizeof options;
  options.methods = server_methods.get();
  tolk_server* made = nullptr;
  ASSERT_EQ(tolk_server_listen(name.c_str(), &options, &made, nullptr), TOLK_OK);
  server.reset(made);
  tolk::Client plain;
  plain.connect(tolk::Address(name));
  EXPECT_EQ(plain.send<std::string>("take", bytes, nullptr, 7).value(),
            std::to_string(bytes.size()));
  EXPECT_EQ(plain.call<std::string>("fetch").value(), bytes);
  EXPECT_EQ(plain.send("unknown", bytes, nullptr).error().code(), tolk::Errc::no_such_method);
  plain.close();
  end();
}

TEST_P(CapiOtherPeers, ALargeCallOfAPlainClientIsAnsweredInItsPieces) {
  DataMethod take;
  take.handler = [](tolk_request* request) {
    const tolk_block* const got = tolk_request_arguments(request);
    EXPECT_EQ(tolk_block_total(got), 1U);
    const std::string bytes = bytes_at(got, 0);
    EXPECT_TRUE(are_bytes(0, bytes.data(), bytes.size()));
    tolk_request_answer(request, text_block(bytes).release());
  };
  take.add_to(server_methods.get(), "mirror");
  DataMethod refuse;
  refuse.handler = [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 0, "no", nullptr);
  };
  refuse.add_to(server_methods.get(), "refuse");
  const int port = 20000 + static_cast<int>(std::random_device()() % 20000);
  tolk_server_options options{};
  options.size = sizeof options;
  options.methods = server_methods.get();
  tolk_server* made = nullptr;
  ASSERT_EQ(tolk_server_listen(("pipe:" + std::to_string(port)).c_str(), &options, &made, nullptr),
            TOLK_OK);
  server.reset(made);
  IClient* const plain = CreateClient();
  ASSERT_TRUE(plain->InitTolkClient(std::to_string(port).c_str(), false));
  const std::string bytes = some_bytes(100000);
  TolkParams block;
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  TolkParams* result = plain->SendMsgEx("mirror", &block, 77, 0);
  ASSERT_NE(result, nullptr);
  ASSERT_NE(result->GetValue(0), nullptr);
  EXPECT_EQ(std::string(result->GetValue(0)->GetString()).size(),
            std::string(bytes.c_str()).size());
  TolkParams more;
  result = plain->SendMsgEx("refuse", &more, 78, 0);
  ASSERT_NE(result, nullptr);
  EXPECT_NE(result->GetMap("tolk.error"), nullptr);
  TolkParams none;
  result = plain->SendMsgEx("unknown", &none, 79, 0);
  ASSERT_NE(result, nullptr);
  ASSERT_NE(result->GetValue(0), nullptr);
  EXPECT_STREQ(result->GetValue(0)->GetString(), "no event: unknown");
  plain->close();
  DestroyClient(plain);
  end();
}

}  // namespace
