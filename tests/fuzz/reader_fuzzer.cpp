// Any bytes as a connection's stream, cut into any reads: the reader and the naive one must hand on
// the same payloads after each read, and as many bytes must wait.
//
// The input: a byte that says how many frames are wanted (0: all); a byte whose low half says how
// many read sizes follow; those sizes, a byte each, which take turns; the stream. Without sizes the
// stream is one read.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fuzz/finding.h"
#include "tests/params/hex.h"
#include "tests/transport/naive_frame_reader.h"
#include "transport/frame_reader.h"

extern "C" {
int LLVMFuzzerInitialize(int* argument_count, char*** arguments);
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
}

namespace {

using Payloads = std::vector<std::string>;

std::string text_of(const Payloads& payloads) {
  std::string text;
  for (const std::string& payload : payloads) text += "[" + tolk::test::to_hex(payload) + "]\n";
  return text;
}

// Both readers of one stream.
class Connection {
 public:
  explicit Connection(std::size_t wanted) : wanted_(wanted == 0 ? SIZE_MAX : wanted) {}

  // False when as many frames have come as are wanted.
  bool read(std::string_view bytes) {
    Payloads expected = naive_.feed(bytes);
    if (expected.size() >= wanted_) expected.resize(wanted_);
    const Payloads seen = feed(bytes);
    if (seen != expected) tolk::test::finding("payloads", text_of(seen), text_of(expected));
    wanted_ -= seen.size();
    if (wanted_ == 0) return false;
    tolk::test::expect_same("bytes that wait", std::to_string(reader_.pending_bytes()),
                            std::to_string(naive_.waiting_bytes()));
    return true;
  }

 private:
  // From memory of exactly that size, so that the sanitizer sees any read past its end.
  Payloads feed(std::string_view bytes) {
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    bytes.copy(exact.get(), bytes.size());
    Payloads seen;
    reader_.feed({exact.get(), bytes.size()}, [&](const tolk::SharedBytes& payload) {
      seen.emplace_back(payload.view);
      return seen.size() < wanted_;
    });
    return seen;
  }

  tolk::FrameReader reader_;
  tolk::test::NaiveFrameReader naive_;
  std::size_t wanted_;
};

void read_in_parts(Connection& connection, std::string_view stream, std::string_view sizes) {
  // Nothing but empty reads would never end.
  if (sizes.find_first_not_of('\0') == std::string_view::npos) sizes = {};
  for (std::size_t turn = 0; !stream.empty(); ++turn) {
    const std::size_t bytes =
        sizes.empty() ? stream.size() : static_cast<unsigned char>(sizes[turn % sizes.size()]);
    const std::string_view part = stream.substr(0, bytes);
    if (!connection.read(part)) return;
    stream.remove_prefix(part.size());
  }
}

}  // namespace

// Once, since it takes as long as a thousand inputs: a frame so large that the reader frees its
// buffer afterwards, and one more.
int LLVMFuzzerInitialize(int*, char***) {
  Connection connection(0);
  connection.read(std::string_view("\x00\x00\x20\x00", 4));
  connection.read(std::string(std::size_t{2} << 20, 'L'));
  connection.read(std::string_view("\x00\x00\x00\x00\x01", 5));
  return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t size_count = std::min<std::size_t>(data[1] % 16, size - 2);
  input.remove_prefix(2);
  Connection connection(data[0]);
  read_in_parts(connection, input.substr(size_count), input.substr(0, size_count));
  return 0;
}
