#include <tolk/c.h>

#include "bench/fields/fields.h"

namespace bench {
namespace {

tolk_block* parsed(tolk_block* built) {
  std::size_t size = 0;
  const void* const bytes = tolk_block_encode(built, &size);
  tolk_block* block = nullptr;
  tolk_block_parse(bytes, size, &block, nullptr, nullptr);
  tolk_block_free(built);
  return block;
}

}  // namespace

std::uint64_t build_and_parse_fields() {
  tolk_block* const built = tolk_block_new();
  tolk_block_add_int(built, 7);
  tolk_block_add_bool(built, true);
  tolk_block_add_double(built, 1.5);
  tolk_block_add_text(built, kText.data(), kText.size());
  tolk_block_add_bytes(built, kBytes.data(), kBytes.size());
  tolk_block_add_key(built, "alpha");
  tolk_block_add_int(built, 1);
  tolk_block_add_key(built, "beta");
  tolk_block_add_int(built, 2);
  tolk_block_add_key(built, "gamma");
  tolk_block_add_text(built, kText.data(), kText.size());
  tolk_block* const block = parsed(built);
  std::size_t size = 0;
  tolk_block_bytes(block, 4, &size);
  const std::uint64_t sum =
      tolk_block_uint(block, 0) + size + tolk_block_uint(block, tolk_block_find(block, "beta"));
  tolk_block_free(block);
  return sum;
}

std::size_t build_and_parse_stream(const std::string& bytes) {
  tolk_block* const built = tolk_block_new();
  tolk_block_add_bytes(built, bytes.data(), bytes.size());
  tolk_block* const block = parsed(built);
  std::size_t size = 0;
  tolk_block_bytes(block, 0, &size);
  tolk_block_free(block);
  return size;
}

}  // namespace bench
