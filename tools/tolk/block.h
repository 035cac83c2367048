// Reads a block from raw bytes, and says where and why bytes are none.
//
// The exported parser says only whether a block is well formed, and can not show maps; this one
// keeps every record with its offset. Both agree on what is malformed, which the tests compare.
//
// Thread: any, one at a time. Owner: the texts of a Block point into the bytes that were read.
// Failure: a Flaw beside what stands before it; std::bad_alloc. Memory follows the bytes that are
// there, never a length or a count that they declare.
#pragma once

#include <tolk/TolkValue.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolk::tool {

// What is wrong, and at which byte.
struct Flaw {
  std::uint64_t offset = 0;
  std::string reason;
};

// One record of a block, with what is in it. A key that no value follows has the type None.
struct Record {
  std::size_t offset = 0;
  std::optional<std::string_view> key;
  TolkValue::Type type = TolkValue::None;
  bool boolean = false;
  std::int32_t integer = 0;
  double real = 0;
  std::string_view bytes;        // String, Stream
  std::vector<Record> elements;  // List; Map, where each has a key

  bool has_bytes() const { return type == TolkValue::String || type == TolkValue::Stream; }
};

// The name of a type: "int", "stream"; "nothing" of None.
const char* to_string(TolkValue::Type type);

// The records in the order of their bytes. With a flaw, those before it.
struct Block {
  std::vector<Record> records;
  std::optional<Flaw> flaw;

  // The value that a reader of the block finds under a key; null if it finds none.
  const Record* find(std::string_view key) const;
};

Block read_block(std::string_view bytes);

// The four bytes at the front of `bytes`, little-endian.
std::uint32_t read_word(std::string_view bytes);

}  // namespace tolk::tool
