// Connections that send the corpus of the fuzzers, most of which is malformed. Another client is
// served all along, and nothing leaks.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/e2e/support/raw_peer.h"
#include "tests/params/hex.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/served.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

namespace fs = std::filesystem;

// A seed is a file with comments, the corpus a file with an input a line.
std::string bytes_of(const std::string& text) {
  std::string digits;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '#') at = std::min(text.find('\n', at), text.size() - 1);
    const auto digit = static_cast<unsigned char>(text[at]);
    if (std::isxdigit(digit) != 0) digits += static_cast<char>(std::toupper(digit));
  }
  return test::hex(digits);
}

// A stream as it is, or a payload with its length in front. Requests to close the server are left
// out: any client may make one, and the row would end.
void add_input(std::vector<std::string>& inputs, const fs::path& from, const std::string& text) {
  std::string bytes = bytes_of(text);
  if (bytes.find("close_server") != std::string::npos) return;
  const bool is_stream = from.string().find("reader") != std::string::npos;
  inputs.push_back(is_stream ? bytes.substr(std::min<std::size_t>(2, bytes.size())) : bytes);
  if (!is_stream) inputs.push_back(test::frame(bytes));
}

std::vector<std::string> read_inputs() {
  std::vector<std::string> inputs;
  for (const auto& entry : fs::recursive_directory_iterator(TOLK_FUZZ_INPUTS)) {
    if (entry.path().extension() != ".hex") continue;
    std::ifstream file(entry.path());
    const bool is_corpus = entry.path().parent_path().filename() == "corpus";
    std::string text;
    while (std::getline(file, text, is_corpus ? '\n' : '\0')) {
      add_input(inputs, entry.path(), text);
    }
  }
  std::sort(inputs.begin(), inputs.end());  // a directory has no defined order
  return inputs;
}

// One or several inputs, then an end of any kind.
void attack(const test::Address& address, const std::vector<std::string>& inputs, Random& random) {
  test::RawClient client(address, false);
  const int count = random.between(1, 3);
  for (int i = 0; i < count; ++i) {
    const auto at =
        static_cast<std::size_t>(random.between(0, static_cast<int>(inputs.size()) - 1));
    if (!client.socket.send(inputs[at], Milliseconds(1000))) break;
  }
  // Waits now and then, so that the server reads the bytes before the end.
  if (random.one_in(10)) client.socket.is_quiet(Milliseconds(2));
  if (!address.is_pipe() && !random.one_in(20)) {
    client.socket.reset();
  } else if (random.one_in(4)) {
    client.socket.end_sending();
    client.socket.ended(Milliseconds(200));
  }
}

class Attack {
 public:
  Attack(Run& run, test::Transport transport, std::string name)
      : run_(run), name_(std::move(name)), server_(run, transport) {}

  void launch(const std::vector<std::string>& inputs, int count) {
    Bystander bystander(run_, server_.address(), 1);
    some(inputs, 100, 1);
    Latencies quiet = bystander.call_for(run_.seconds(1, 10));
    const Held before = server_.held();
    const Stopwatch clock;
    std::atomic<bool> done{false};
    Latencies attacked;
    {
      const Meanwhile attacking([&](const std::atomic<bool>&) {
        some(inputs, count, 2);
        done = true;
      });
      attacked = bystander.call_until(done);
    }
    const double seconds = static_cast<double>(clock.elapsed().count()) / 1000;
    const Held after = server_.expect_back_to(before, count + 4096L);
    run_.figure("connections, " + name_, count, "");
    run_.figure("connections a second, " + name_, count / std::max(seconds, 0.001), "");
    run_.figure("p99 of a bystander, quiet, " + name_, quiet.percentile_us(99) / 1000, "ms");
    run_.figure("p99 of a bystander, attacked, " + name_, attacked.percentile_us(99) / 1000, "ms");
    run_.figure("growth for each connection, " + name_,
                1024.0 * static_cast<double>(after.resident_kib - before.resident_kib) / count,
                "bytes");
    run_.figure("descriptors more than before, " + name_, after.descriptors - before.descriptors,
                "");
    if (!run_.holds_times()) return;
    run_.expect(attacked.percentile_us(99) <= 2 * quiet.percentile_us(99) + kGraceUs,
                "the bystander's p99 is more than twice the quiet one");
  }

 private:
  // Attackers and server share the machine's processors with the bystander; a p99 of some tens of
  // microseconds doubles from that alone.
  static constexpr double kGraceUs = 1000;
  static constexpr int kThreads = 2;

  void some(const std::vector<std::string>& inputs, int count, std::uint64_t stream) {
    std::atomic<int> left{count};
    on_threads(kThreads, [&](int i) {
      Random random = run_.random(stream * 100 + static_cast<std::uint64_t>(i));
      while (left.fetch_sub(1) > 0 && run_.passed()) {
        attack(server_.address(), inputs, random);
        // At this rate the attack is no test of how many connections the machine can take.
        if (run_.holds_times()) std::this_thread::sleep_for(Milliseconds(1));
      }
    });
  }

  Run& run_;
  const std::string name_;
  Served server_;
};

}  // namespace

void connect_hostile_peers(Run& run) {
  const std::vector<std::string> inputs = read_inputs();
  run.figure("different inputs", static_cast<double>(inputs.size()), "");
  if (!run.expect(inputs.size() > 100, "the inputs of the fuzzers are not there")) return;
  const int count = run.rounds(1500, 100000);
  run.at("pipe, seed ", run.seed());
  Attack(run, test::Transport::pipe, "pipe").launch(inputs, count / 2);
  run.at("TCP, seed ", run.seed());
  Attack(run, test::Transport::tcp4, "TCP").launch(inputs, count - count / 2);
}

}  // namespace tolk::stress
