// Blocks of the C interface that free themselves.
#pragma once

#include <gtest/gtest.h>
#include <tolk/c.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "params/encoder.h"

namespace tolk::test {

class CBlock {
 public:
  CBlock() : block_(tolk_block_new()) {}
  explicit CBlock(tolk_block* adopted) : block_(adopted) {}
  CBlock(CBlock&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  CBlock& operator=(CBlock&& other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~CBlock() { tolk_block_free(block_); }

  operator tolk_block*() const { return block_; }  // NOLINT(google-explicit-constructor)
  tolk_block* get() const { return block_; }

 private:
  tolk_block* block_;
};

inline std::string encoded(tolk_block* block) {
  std::size_t size = 0;
  const void* const bytes = tolk_block_encode(block, &size);
  EXPECT_NE(bytes, nullptr);
  return {static_cast<const char*>(bytes), size};
}

inline CBlock parsed(std::string_view bytes) {
  tolk_block* block = nullptr;
  EXPECT_EQ(tolk_block_parse(bytes.data(), bytes.size(), &block, nullptr, nullptr), TOLK_OK);
  return CBlock(block);
}

// Appends "tolk.types" to encoded records.
inline void append_types(std::string& records, std::string_view types) {
  Encoder encoder(records, 0);
  encoder.add_key("tolk.types");
  encoder.add_string(types);
}

}  // namespace tolk::test
