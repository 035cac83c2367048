// Decodes a block from raw bytes, and says where and why bytes are not a block.
//
// The library's parser says only whether a block is well formed; this decoder keeps every record
// with its offset, and gives the reason for a flaw. The tests compare that both agree on what is
// malformed.
//
// Thread: any. Owner: the texts of a DecodedBlock point into the decoded bytes.
// Failure: a Flaw beside the records before it; std::bad_alloc. Memory depends on the bytes that
// are present, never on a length or a count that they declare.
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

// One record of a block with its content. A key without a value has the type None.
struct DecodedRecord {
  std::size_t offset = 0;
  std::optional<std::string_view> key;
  TolkValue::Type type = TolkValue::None;
  bool boolean = false;
  std::int32_t integer = 0;
  double real = 0;
  std::string_view bytes;               // String, Stream
  std::vector<DecodedRecord> elements;  // List; Map, where each has a key

  bool has_bytes() const { return type == TolkValue::String || type == TolkValue::Stream; }
};

// The name of a type: "int", "stream"; "nothing" of None.
const char* to_string(TolkValue::Type type);

// The records in the order of their bytes. If there is a flaw, the records before it.
struct DecodedBlock {
  std::vector<DecodedRecord> records;
  std::optional<Flaw> flaw;

  // The value that a receiver of the block finds under a key; null if it finds none.
  const DecodedRecord* find(std::string_view key) const;
};

DecodedBlock decode_block(std::string_view bytes);

}  // namespace tolk::tool
