// What blocks, envelopes and frames cost without any I/O.
#include <benchmark/benchmark.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "bench/samples.h"
#include "transport/envelope.h"
#include "transport/frame.h"
#include "transport/frame_reader.h"

namespace {

using Fill = void (*)(TolkParams&);

std::string encoded(Fill fill) {
  TolkParams block;
  fill(block);
  return *block.GetParamas();
}

void count_bytes(benchmark::State& state, std::size_t bytes_each) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes_each));
}

void encode(benchmark::State& state, Fill fill) {
  for (auto _ : state) {
    TolkParams block;
    fill(block);
    benchmark::DoNotOptimize(block.GetParamasPtr());
  }
  count_bytes(state, encoded(fill).size());
}
BENCHMARK_CAPTURE(encode, small, bench::fill_small);
BENCHMARK_CAPTURE(encode, typical, bench::fill_typical);
BENCHMARK_CAPTURE(encode, large, bench::fill_large);

void parse(benchmark::State& state, Fill fill) {
  const std::string bytes = encoded(fill);
  for (auto _ : state) {
    TolkParams block;
    if (!block.Parser(bytes.data(), static_cast<int>(bytes.size()))) {
      state.SkipWithError("malformed");
    }
    benchmark::DoNotOptimize(block.GetValue(0));
  }
  count_bytes(state, bytes.size());
}
BENCHMARK_CAPTURE(parse, small, bench::fill_small);
BENCHMARK_CAPTURE(parse, typical, bench::fill_typical);
BENCHMARK_CAPTURE(parse, large, bench::fill_large);

// The floor under parse and encode: the same bytes, moved.
void copy(benchmark::State& state, Fill fill) {
  const std::string bytes = encoded(fill);
  for (auto _ : state) {
    std::string copied(bytes);
    benchmark::DoNotOptimize(copied.data());
  }
  count_bytes(state, bytes.size());
}
BENCHMARK_CAPTURE(copy, small, bench::fill_small);
BENCHMARK_CAPTURE(copy, typical, bench::fill_typical);
BENCHMARK_CAPTURE(copy, large, bench::fill_large);

// Both ends of one call: a block is built, and another one reads its bytes.
void build_and_parse(benchmark::State& state, Fill fill) {
  for (auto _ : state) {
    TolkParams sent;
    fill(sent);
    TolkParams received;
    if (!received.Parser(sent.GetParamasPtr(), sent.Size())) state.SkipWithError("malformed");
    benchmark::DoNotOptimize(received.GetValue(0));
  }
  count_bytes(state, encoded(fill).size());
}

// Eight fields of all types, three of them by key.
void fill_mixed(TolkParams& block) {
  static const std::string bytes(64, 'b');
  block.AddInt(7);
  block.AddBool(true);
  block.AddDouble(1.5);
  block.AddString("ssssssssssssssss");
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  block.AddKeyValueInt("alpha", 1);
  block.AddKeyValueInt("beta", 2);
  block.AddKeyValueString("gamma", "ssssssssssssssss");
}

template <int Mebibytes>
const std::string& stream_of() {
  static const std::string bytes(std::size_t{Mebibytes} << 20, 'z');
  return bytes;
}

template <int Mebibytes>
void fill_stream(TolkParams& block) {
  const std::string& bytes = stream_of<Mebibytes>();
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
}
BENCHMARK_CAPTURE(build_and_parse, mixed, fill_mixed);
BENCHMARK_CAPTURE(build_and_parse, stream_1_mib, fill_stream<1>);
BENCHMARK_CAPTURE(build_and_parse, stream_16_mib, fill_stream<16>);

// The floor under a stream that is built and parsed.
template <int Mebibytes>
void copy_twice(benchmark::State& state) {
  const std::string& bytes = stream_of<Mebibytes>();
  for (auto _ : state) {
    const std::unique_ptr<char[]> first(new char[bytes.size()]);
    std::memcpy(first.get(), bytes.data(), bytes.size());
    const std::unique_ptr<char[]> second(new char[bytes.size()]);
    std::memcpy(second.get(), first.get(), bytes.size());
    benchmark::DoNotOptimize(second.get());
  }
  count_bytes(state, bytes.size());
}
BENCHMARK(copy_twice<1>);
BENCHMARK(copy_twice<16>);

void look_up_key(benchmark::State& state, Fill fill, const char* key) {
  const std::string bytes = encoded(fill);
  TolkParams block;
  block.Parser(bytes.data(), static_cast<int>(bytes.size()));
  if (block.GetMap(key) == nullptr) state.SkipWithError("no such key");
  for (auto _ : state) benchmark::DoNotOptimize(block.GetMap(key));
}
BENCHMARK_CAPTURE(look_up_key, typical, bench::fill_typical, "visible");
BENCHMARK_CAPTURE(look_up_key, large, bench::fill_large, "key number 503");

tolk::Frame call_frame(std::string_view arguments) {
  return tolk::call_frame("a.method", 12345, arguments, std::uint64_t{0x7f0012345678});
}

void build_call_frame(benchmark::State& state, Fill fill) {
  const std::string arguments = encoded(fill);
  std::size_t bytes = 0;
  for (auto _ : state) {
    const tolk::Frame frame = call_frame(arguments);
    bytes = frame.payload_bytes();
    benchmark::DoNotOptimize(bytes);
  }
  count_bytes(state, bytes);
}
BENCHMARK_CAPTURE(build_call_frame, small, bench::fill_small);
BENCHMARK_CAPTURE(build_call_frame, large, bench::fill_large);

void scan_envelope(benchmark::State& state, Fill fill) {
  const tolk::Frame frame = call_frame(encoded(fill));
  const std::string_view payload = frame.bytes().substr(tolk::Frame::kPrefixBytes);
  for (auto _ : state) {
    const tolk::Envelope envelope = tolk::Envelope::scan(payload);
    if (!envelope.arguments) state.SkipWithError("no arguments");
    benchmark::DoNotOptimize(envelope);
  }
}
BENCHMARK_CAPTURE(scan_envelope, small, bench::fill_small);
BENCHMARK_CAPTURE(scan_envelope, large, bench::fill_large);

// Small frames as they come in when a peer posts without a pause: in reads of 64 KiB.
void read_small_frames(benchmark::State& state) {
  constexpr std::size_t kReadBytes = 65536;
  std::string_view content = "sixteen bytes...";
  // GCC warns of cases that a constant length excludes.
  benchmark::DoNotOptimize(content);
  const tolk::Frame frame = tolk::Frame::copy_of(content);
  std::string stream;
  while (stream.size() < 16 * kReadBytes) stream.append(frame.bytes());
  const std::size_t expected = stream.size() / frame.bytes().size();
  for (auto _ : state) {
    tolk::FrameReader reader;
    std::size_t frames = 0;
    for (std::string_view rest = stream; !rest.empty();
         rest.remove_prefix(std::min(kReadBytes, rest.size()))) {
      reader.feed(rest.substr(0, kReadBytes), [&](const auto&) { return ++frames > 0; });
    }
    if (frames != expected) state.SkipWithError("frames were lost");
  }
  count_bytes(state, stream.size());
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(expected));
}
BENCHMARK(read_small_frames);

}  // namespace
