#include "tests/e2e/support/golden.h"

#include <fstream>
#include <sstream>

#include "tests/e2e/support/raw_block.h"

namespace tolk::test {
namespace {

// Where the value of `key` begins; npos when the payload has no such key.
std::size_t value_of(std::string_view payload, std::string_view key) {
  for (std::size_t at = 0; at < payload.size(); ++at) {
    const std::string record = BlockWriter(at).lone_key(key).bytes();
    if (payload.substr(at, record.size()) == record) return at + record.size();
  }
  return std::string_view::npos;
}

}  // namespace

std::string golden(std::string_view name) {
  std::ifstream in(std::string(TOLK_GOLDEN_DIRECTORY) + "/" + std::string(name) + ".hex");
  std::string bytes;
  for (std::string line; std::getline(in, line);) {
    std::istringstream digits(line.substr(0, line.find('#')));
    for (std::string byte; digits >> byte;) {
      bytes += static_cast<char>(std::stoi(byte, nullptr, 16));
    }
  }
  return bytes;
}

std::string with_token_masked(std::string_view payload) {
  const std::size_t at = value_of(payload, "s_c_sw_semid");
  if (at == std::string_view::npos) return frame(payload);
  const std::string token = BlockWriter(at).add("0x1").bytes();
  return frame(std::string(payload.substr(0, at)) + token);
}

std::string with_call_id(std::string_view payload, int call_id) {
  std::string changed(payload);
  const std::size_t at = value_of(payload, "s_c_sw_threadid");
  if (at != std::string_view::npos) changed.replace(at + 1, 4, prefix(call_id));
  return changed;
}

}  // namespace tolk::test
