// Clients connect and disconnect, some in the middle of a frame of 1 MiB. All that remains of each
// connection is the block that keeps its id from being reused.
#include <array>
#include <atomic>
#include <string>

#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kFrameBytes = 1 << 20;

// One in ten sends half a frame, one in ten makes a call, the others say nothing.
void come_and_go(Run& run, const test::Address& address, Random& random) {
  test::RawClient client(address, false);
  if (!run.expect(client.socket.is_open(), "a connect was refused")) return;
  const int kind = random.between(0, 9);
  if (kind == 0) {
    client.socket.send(test::prefix(kFrameBytes) + std::string(kFrameBytes / 2, 'x'));
  } else if (kind == 1) {
    const auto answer = client.call("echo", 1, test::BlockWriter().add(5).bytes());
    run.expect(answer.has_value(), "a call was not answered");
  }
  // A TCP port that was reset can be used again at once; half a frame would be lost with it.
  if (kind != 0 && !address.is_pipe()) client.socket.reset();
}

void connect_on(Run& run, test::Transport transport, const std::string& name, int count) {
  Served server(run, transport);
  const auto some = [&](int how_many, std::uint64_t stream) {
    std::atomic<int> left{how_many};
    on_threads(4, [&](int i) {
      Random random = run.random(stream + static_cast<std::uint64_t>(i));
      while (left.fetch_sub(1) > 0 && run.passed()) come_and_go(run, server.address(), random);
    });
    eventually([&] { return server.held().clients == 0; });
  };
  some(200, 100);  // what is made once is made now
  const Held before = server.held();
  some(count, 200);
  const long allowed_kib = count + 2048;  // the 2 MiB: what an allocator cannot give back
  const Held after = server.expect_back_to(before, allowed_kib);
  run.figure("connections, " + name, count, "");
  run.figure("growth for each, " + name,
             1024.0 * static_cast<double>(after.resident_kib - before.resident_kib) / count,
             "bytes");
  run.figure("descriptors more than before, " + name, after.descriptors - before.descriptors, "");
}

}  // namespace

void connect_often(Run& run) {
  const int count = run.rounds(3000, 100000);
  run.at("pipe, seed ", run.seed());
  connect_on(run, test::Transport::pipe, "pipe", count / 2);
  run.at("TCP, seed ", run.seed());
  connect_on(run, test::Transport::tcp4, "TCP", count - count / 2);
}

}  // namespace tolk::stress
