// A client that never reads, and very many posts to it: they accumulate in the server's memory, as
// documented, and delay no other client. When it disconnects, the memory is freed.
#include <string>

#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

constexpr int kBytes = 16;             // of the arguments of a post
constexpr int kMostBytesBeyond = 512;  // of each post, beyond its frame: request and bookkeeping

void flood_one_client(Run& run, test::Transport transport, const std::string& name) {
  const int posts = run.rounds(20000, 1000000);
  Served server(run, transport);
  Bystander bystander(run, server.address(), 1);
  Latencies quiet = bystander.call_for(run.seconds(1, 5));
  test::RawClient deaf(server.address());
  // Its own answer, and the frame of one post: what the growth is compared with.
  deaf.call("hello", 1);
  server.process().ask("flood 1 " + std::to_string(kBytes));
  const auto one = deaf.socket.read_frame();
  if (!run.expect(one.has_value(), "a post did not come")) return;
  const auto frame_bytes = static_cast<double>(one->size() + 4);
  const Held before = server.held();
  const Stopwatch clock;
  server.process().tell("flood " + std::to_string(posts) + " " + std::to_string(kBytes));
  std::atomic<bool> flooded{false};
  Latencies flooding;
  {
    const Meanwhile waiting([&](const std::atomic<bool>&) {
      run.expect(server.process().read_line(std::chrono::minutes(5)).has_value(),
                 "the posts did not return");
      flooded = true;
    });
    flooding = bystander.call_until(flooded);
  }
  const double seconds = static_cast<double>(clock.elapsed().count()) / 1000;
  const Held full = server.held();
  const double each = 1024.0 * static_cast<double>(full.resident_kib - before.resident_kib) / posts;
  deaf.socket.reset();
  const Held after = server.expect_back_to(before, 1024);
  run.figure("posts, " + name, posts, "");
  run.figure("posts a second, " + name, posts / seconds, "");
  run.figure("frame of a post, " + name, frame_bytes, "bytes");
  run.figure("growth for each post, " + name, each, "bytes");
  run.figure("growth that is left when the peer has gone, " + name,
             static_cast<double>(after.resident_kib - before.resident_kib), "KiB");
  run.figure("p99 of a bystander, quiet, " + name, quiet.percentile_us(99) / 1000, "ms");
  run.figure("p99 of a bystander meanwhile, " + name, flooding.percentile_us(99) / 1000, "ms");
  if (run.holds_memory()) {
    run.expect(each < frame_bytes + kMostBytesBeyond, "a post takes ", each, " bytes");
  }
}

}  // namespace

void post_to_who_never_reads(Run& run) {
  run.at("pipe, seed ", run.seed());
  flood_one_client(run, test::Transport::pipe, "pipe");
  run.at("TCP, seed ", run.seed());
  flood_one_client(run, test::Transport::tcp4, "TCP");
}

}  // namespace tolk::stress
