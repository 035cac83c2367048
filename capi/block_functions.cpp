// The exported functions that make and change blocks.

#include <cstring>
#include <exception>
#include <string>

#include "capi/block.h"
#include "capi/context.h"
#include "capi/error.h"

using tolk::SharedBytes;

namespace {

std::string_view bytes_of(const void* bytes, std::size_t size) {
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes), size};
}

std::string_view text_of(const char* text, std::size_t size) {
  if (text == nullptr) return {};
  return {text, size == TOLK_TO_ZERO ? std::strlen(text) : size};
}

// What the host adds without a block: nothing, as that of a block without memory.
const tolk_block& block_or_empty(const tolk_block* block) {
  static const tolk_block empty;
  return block == nullptr ? empty : *block;
}

}  // namespace

tolk_block* tolk_block_new() {
  auto* const block = new (std::nothrow) tolk::BlockWithRoom;
  return block != nullptr ? block : tolk_block::without_memory();
}

tolk_block* tolk_block_copy(const tolk_block* block) {
  if (block == nullptr) return tolk_block_new();
  try {
    return block->copy();
  } catch (const std::exception&) {
    return tolk_block::without_memory();
  }
}

void tolk_block_free(tolk_block* block) {
  if (block != tolk_block::without_memory()) delete block;
}

void tolk_block_clear(tolk_block* block) {
  if (block != nullptr) block->clear();
}

void tolk_block_add_key(tolk_block* block, const char* key) {
  if (block != nullptr) block->add_key(key);
}

void tolk_block_add_none(tolk_block* block) {
  if (block != nullptr) block->add_none();
}

void tolk_block_add_bool(tolk_block* block, bool value) {
  if (block != nullptr) block->add_bool(value);
}

void tolk_block_add_int(tolk_block* block, int64_t value) {
  if (block != nullptr) block->add_int(value);
}

void tolk_block_add_uint(tolk_block* block, uint64_t value) {
  if (block != nullptr) block->add_uint(value);
}

void tolk_block_add_double(tolk_block* block, double value) {
  if (block != nullptr) block->add_double(value);
}

void tolk_block_add_text(tolk_block* block, const char* text, size_t size) {
  if (block != nullptr) block->add_text(text_of(text, size));
}

void tolk_block_add_bytes(tolk_block* block, const void* bytes, size_t size) {
  if (block != nullptr) block->add_bytes(bytes_of(bytes, size));
}

void tolk_block_add_bytes_held(tolk_block* block, const void* bytes, size_t size, void* context,
                               tolk_release free_context) {
  try {
    SharedBytes held{tolk::Context(context, free_context).owner(), bytes_of(bytes, size)};
    if (block != nullptr) block->add_held(std::move(held));
  } catch (const std::exception&) {
    if (block != nullptr) block->run_out_of_memory();
  }
}

void tolk_block_add_list(tolk_block* block, const tolk_block* elements) {
  if (block != nullptr) block->add_list(block_or_empty(elements));
}

void tolk_block_add_map(tolk_block* block, const tolk_block* entries) {
  if (block != nullptr) block->add_map(block_or_empty(entries));
}

void tolk_block_add_ints(tolk_block* block, const int64_t* values, size_t count) {
  if (block != nullptr) block->add_ints(values, values == nullptr ? 0 : count);
}

void tolk_block_add_doubles(tolk_block* block, const double* values, size_t count) {
  if (block != nullptr) block->add_doubles(values, values == nullptr ? 0 : count);
}

const void* tolk_block_encode(tolk_block* block, size_t* size) {
  if (size != nullptr) *size = 0;
  if (block == nullptr || block->status() != TOLK_OK) return nullptr;
  try {
    const std::string_view bytes = block->encode();
    if (size != nullptr) *size = bytes.size();
    return bytes.data() != nullptr ? bytes.data() : "";
  } catch (const std::exception&) {
    return nullptr;
  }
}

tolk_status tolk_block_parse(const void* bytes, size_t size, tolk_block** block, size_t* wrong_at,
                             tolk_error** error) {
  if (block != nullptr) *block = nullptr;
  return tolk::guarded_call(error, [&] {
    if (block == nullptr || (bytes == nullptr && size != 0)) {
      return tolk::fail(error, {.status = TOLK_MISUSE, .reason = "a pointer is null"});
    }
    if (size > tolk::frame_format::kMaxPayloadBytes) {
      return tolk::fail(error, {.status = TOLK_TOO_LARGE});
    }
    tolk_block::Received received = tolk_block::of_copy(bytes_of(bytes, size));
    if (received.is_well_formed()) {
      *block = received.block.release();
      return TOLK_OK;
    }
    if (wrong_at != nullptr) *wrong_at = received.wrong_at;
    return tolk::fail(error, {.status = TOLK_MALFORMED,
                              .reason = "the bytes are not a block from offset " +
                                        std::to_string(received.wrong_at) + " on"});
  });
}
