// Large data in pieces, with progress and cancel.
#include <atomic>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

constexpr std::size_t kPiece = std::size_t{1} << 18;

std::string pattern(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7 + i / 256);
  return data;
}

class LayerSend : public JoinedTest {
 protected:
  static void SetUpTestSuite() { JoinedTest::SetUpTestSuite(); }
};

TEST_F(LayerSend, EverySizeArrivesWhole) {
  server.on("mirror", [](const std::string& data) { return data; });
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kPiece - 1, kPiece, kPiece + 1,
                                 2 * kPiece, 3 * kPiece + 5}) {
    const std::string data = pattern(size);
    std::uint64_t last = 99;
    const auto back = client.send<std::string>("mirror", data, [&](Progress p) {
      EXPECT_EQ(p.total(), size);
      EXPECT_TRUE(last == 99 || p.done() > last);
      last = p.done();
    });
    ASSERT_TRUE(back) << back.error().what();
    EXPECT_EQ(*back, data);
    EXPECT_EQ(last, size);
  }
}

TEST_F(LayerSend, OtherArgumentsFollowTheData) {
  server.on("store", [](const bytes& data, const std::string& name, named<"mode", int> mode) {
    return name + " " + std::to_string(data.size()) + " " + std::to_string(mode.value);
  });
  const bytes data(kPiece + 1);
  EXPECT_EQ(client.send<std::string>("store", data, nullptr, "x", arg("mode", 6), 10s).value(),
            "x " + std::to_string(kPiece + 1) + " 6");
  server.on("all of it", [](const Values& all) { return int(all.at(0).get<bytes>().size()); });
  EXPECT_EQ(client.send<int>("all of it", data).value(), int(kPiece + 1));
}

TEST_F(LayerSend, AnyTypeOfBytesAndTextIsAccepted) {
  server.on("text of", [](const std::string& data) { return data; });
  const std::vector<unsigned char> octets{'a', 'b'};
  const bytes whole{std::byte{'c'}, std::byte{'d'}};
  EXPECT_EQ(client.send<std::string>("text of", octets).value(), "ab");
  EXPECT_EQ(client.send<std::string>("text of", whole).value(), "cd");
  EXPECT_EQ(client.send<std::string>("text of", std::string_view("efg").substr(0, 2)).value(),
            "ef");
  EXPECT_EQ(client.send<std::string>("text of", "gh", [](Progress) {}).value(), "gh");
}

TEST_F(LayerSend, CancelledSendDoesNotCallTheMethod) {
  std::atomic<int> called{0};
  server.on("never", [&](std::string_view) { ++called; });
  int reports = 0;
  const auto result = client.send("never", pattern(5 * kPiece), [&](Progress p) {
    ++reports;
    if (p.done() == 2 * kPiece) p.cancel();
  });
  EXPECT_EQ(result.error().code(), Errc::cancelled);
  EXPECT_EQ(reports, 3);
  EXPECT_EQ(client.send("never", pattern(5), [](Progress p) { p.cancel(); }).error().code(),
            Errc::cancelled);
  EXPECT_EQ(called, 0);
}

TEST_F(LayerSend, FailuresAreReportedAsOfACall) {
  server.on("refuses", [](std::string_view) { throw std::runtime_error("too ugly"); });
  server.on("takes int", [](int) {});
  const std::string data = pattern(2 * kPiece);
  const auto refused = client.send("refuses", data);
  EXPECT_EQ(refused.error().code(), Errc::handler_failed);
  EXPECT_EQ(refused.error().method(), "refuses");
  EXPECT_EQ(client.send("takes int", data).error().code(), Errc::wrong_arguments);
  int reports = 0;
  const auto absent = client.send("absent", data, [&](Progress) { ++reports; });
  EXPECT_EQ(absent.error().code(), Errc::no_such_method);
  EXPECT_EQ(absent.error().method(), "absent");
  EXPECT_EQ(reports, 1);  // the error came before anything was sent
}

TEST(LayerReceive, ReceiverSeesProgressAndMayCancel) {
  std::atomic<std::uint64_t> seen{0};
  Server server;
  server.on("upload", [](std::string_view data) { return int(data.size()); });
  server.on_receiving([&](const Caller& caller, Progress p) {
    EXPECT_EQ(caller.method(), "upload");
    seen = p.done();
    if (p.total() > 10 * kPiece) p.cancel();
  });
  const auto where = fresh();
  server.listen(where);
  Client client = connect(where);
  EXPECT_EQ(client.send<int>("upload", pattern(3 * kPiece)).value(), int(3 * kPiece));
  EXPECT_EQ(seen, 3 * kPiece);
  const auto cancelled = client.send("upload", pattern(11 * kPiece));
  EXPECT_EQ(cancelled.error().code(), Errc::handler_failed);
  EXPECT_EQ(seen, kPiece);
}

TEST(LayerReceive, WatchedDataOfACallerHaveABound) {
  constexpr std::uint64_t kMost = 2'147'483'643;
  Gate gate;
  Server server;
  server.on("upload", [](const bytes&) {});
  // What is under way neither ends nor grows.
  server.on_receiving([gate](const Caller&, Progress) mutable { gate.pass(); });
  const auto where = fresh();
  server.listen(where);
  Client client = connect(where);
  const auto send = [&](std::uint64_t total, std::stop_token stop) {
    const auto none = [&](std::span<std::byte> to) {
      return stop.stop_requested() ? 0 : std::min<std::size_t>(to.size(), kPiece);
    };
    return client.send("upload", from_function(total, none));
  };
  EXPECT_EQ(send(kMost + 1, {}).error().code(), Errc::too_large);
  EXPECT_EQ(gate.entered(), 0);
  std::jthread first([&](const std::stop_token& stop) { (void)send(kMost, stop); });
  const OpenAtEnd open(gate);
  EXPECT_TRUE(gate.wait_entered());
  EXPECT_EQ(send(1, {}).error().code(), Errc::busy);
}

TEST(LayerReceive, CatchAllGetsTheWholeData) {
  Server server;
  server.on("pieces", [](std::string_view data) { return int(data.size()); });
  server.on_any([](const Caller& caller, const Values& all) {
    return Values().add(caller.method()).add(int(all.at(0).get<bytes>().size())).add(all.at(1));
  });
  const auto where = fresh();
  server.listen(where);
  Client client = connect(where);
  std::vector<std::uint64_t> done;
  const auto note = [&](Progress p) { done.push_back(p.done()); };
  const auto any = client.send<Values>("any", pattern(2 * kPiece), note, "x");
  EXPECT_EQ(any.value(), Values().add("any").add(int(2 * kPiece)).add("x"));
  EXPECT_THAT(done, testing::ElementsAre(0U, kPiece, 2 * kPiece));
  done.clear();
  EXPECT_EQ(client.send<int>("pieces", pattern(2 * kPiece), note).value(), int(2 * kPiece));
  EXPECT_THAT(done, testing::ElementsAre(0U, kPiece, 2 * kPiece));
}

TEST(LayerReceive, ExceptionOfTheReceiverReachesTheSender) {
  std::atomic<int> called{0};
  std::atomic<std::uint64_t> done{0};
  Server server;
  server.on("upload", [&](std::string_view) { ++called; });
  // A failure ends the call at once: what is confirmed right before it may not be reported.
  server.on_receiving([&](const Caller&, Progress p) {
    if (p.done() > kPiece && eventually([&] { return done == kPiece; })) {
      throw std::runtime_error("disk full");
    }
    if (p.total() < kPiece) throw 1;
  });
  const auto where = fresh();
  server.listen(where);
  Client client = connect(where);
  const auto result =
      client.send("upload", pattern(3 * kPiece), [&](Progress p) { done = p.done(); });
  EXPECT_EQ(result.error().code(), Errc::handler_failed);
  EXPECT_EQ(result.error().detail(), "disk full");
  EXPECT_EQ(done, kPiece);
  EXPECT_EQ(client.send("upload", pattern(5)).error().code(), Errc::handler_failed);
  EXPECT_EQ(called, 0);
}

TEST(LayerTransfers, MalformedPieceIsAnsweredWithAnError) {
  const auto address = fresh_address(Transport::pipe);
  Server server;
  server.on("upload", [](std::string_view) {});
  server.listen(layered(address));
  RawClient client(address);
  const auto kind = [&](const BlockWriter& block) {
    const auto answer = client.call("tolk.piece", 1, block.bytes());
    return answer ? answer->text("tolk.kind").value_or("none") : "no answer";
  };
  EXPECT_EQ(kind(BlockWriter()), "arguments");
  EXPECT_EQ(kind(BlockWriter().keyed("tolk.transfer", 1)), "arguments");
  const auto piece = [](double total) {
    return BlockWriter()
        .keyed("tolk.transfer", 1)
        .keyed("tolk.method", "upload")
        .keyed("tolk.offset", 0.0)
        .keyed("tolk.total", total)
        .add(Stream{"abc"});
  };
  EXPECT_EQ(kind(piece(-1.0)), "arguments");
  EXPECT_EQ(kind(piece(1e300)), "arguments");
  EXPECT_EQ(kind(piece(6.0)), "none");
}

}  // namespace
}  // namespace tolk::test
