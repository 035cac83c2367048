// Connections that send one byte a second of a frame with a declared length of 2 GiB: the server's
// memory must follow the bytes received, not the declared length.
#include <string>
#include <vector>

#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kPromised = 0x7fffffff;
constexpr int kBytesThen = 65536;

double kib_each(const Held& now, const Held& before, int count) {
  return static_cast<double>(now.resident_kib - before.resident_kib) / count;
}

}  // namespace

void send_slowly(Run& run) {
  const int count = run.rounds(200, 1000);
  Served server(run, test::Transport::tcp4);
  Bystander bystander(run, server.address(), 1);
  bystander.call_for(Milliseconds(100));
  const Held before = server.held();
  std::vector<test::RawSocket> senders;
  for (int i = 0; i < count; ++i) {
    senders.push_back(test::RawSocket::connect_to(server.address()));
    run.expect(senders.back().send(test::prefix(kPromised)), "a connect was refused");
  }
  Latencies latencies;
  const int seconds = static_cast<int>(run.seconds(2, 30).count());
  for (int second = 0; second < seconds && run.passed(); ++second) {
    run.at("second ", second, ", seed ", run.seed());
    for (test::RawSocket& sender : senders) {
      run.expect(sender.send("x"), "a slow sender lost its connection");
    }
    latencies.add_all(bystander.call_for(std::chrono::seconds(1)));
  }
  const Held idle = server.held();
  // Then some more bytes: the memory follows them.
  const std::string more(kBytesThen, 'x');
  for (test::RawSocket& sender : senders) sender.send(more);
  bystander.call_for(Milliseconds(500));
  const Held filled = server.held();
  senders.clear();
  const Held after = server.expect_back_to(before, count + 2048L);
  run.figure("connections that promise 2 GiB each", count, "");
  run.figure("seconds, a byte each", seconds, "");
  run.figure("memory of each connection", kib_each(idle, before, count), "KiB");
  run.figure("memory of each after 64 KiB", kib_each(filled, before, count), "KiB");
  run.figure("memory of each after its end", kib_each(after, before, count), "KiB");
  run.figure("p99 of a bystander meanwhile", latencies.percentile_us(99) / 1000, "ms");
  if (!run.holds_memory()) return;
  run.expect(kib_each(idle, before, count) < 8, "a connection takes ",
             kib_each(idle, before, count), " KiB");
  run.expect(kib_each(filled, before, count) < 2.5 * kBytesThen / 1024, "64 KiB take ",
             kib_each(filled, before, count), " KiB");
}

}  // namespace tolk::stress
