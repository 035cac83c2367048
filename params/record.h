// Numbers of the block encoding: record tags, record sizes, little-endian words.
//
// A block is a sequence of records from offset 0. A scalar record ends with a check word: the
// offset of the check word itself in the block. Thread: any; there is no state. Owner: none.
// Failure: none.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tolk {

// The first byte of a record. Not the numbers of TolkValue::Type.
enum class Tag : unsigned char {
  Int = 0,
  Bool = 1,
  Double = 2,
  String = 3,
  Stream = 4,
  KeyValue = 5,
  List = 6,
  Map = 7,
};

inline constexpr std::size_t int_record_bytes = 1 + 4 + 4;
inline constexpr std::size_t bool_record_bytes = 1 + 1 + 4;
inline constexpr std::size_t double_record_bytes = 1 + 8 + 4;
inline constexpr std::size_t list_header_bytes = 1 + 4;

// `size`: the bytes of the text, which fit in 32 bits.
constexpr std::size_t string_record_bytes(std::size_t size) { return 1 + 4 + size + 4; }
constexpr std::size_t stream_record_bytes(std::size_t size) { return 1 + 4 + size + 4; }

// A key-and-value record whose value is a record of `value_record_bytes`.
constexpr std::size_t keyed_bytes(std::size_t key_size, std::size_t value_record_bytes) {
  return 1 + string_record_bytes(key_size) + value_record_bytes;
}

// The same number with its bytes in reverse order. Compilers make one instruction of it.
constexpr std::uint32_t reversed(std::uint32_t word) {
  return word << 24 | (word & 0xFF00) << 8 | (word >> 8 & 0xFF00) | word >> 24;
}

constexpr std::uint64_t reversed(std::uint64_t word) {
  const std::uint64_t low = reversed(static_cast<std::uint32_t>(word));
  return low << 32 | reversed(static_cast<std::uint32_t>(word >> 32));
}

// The same number with its bytes in little-endian order, and back.
template <class Word>
constexpr Word little_endian(Word word) {
  return std::endian::native == std::endian::little ? word : reversed(word);
}

// These copy, since a record may start at any address.
inline void store32(char* to, std::uint32_t word) {
  word = little_endian(word);
  std::memcpy(to, &word, sizeof word);
}

inline void store64(char* to, std::uint64_t word) {
  word = little_endian(word);
  std::memcpy(to, &word, sizeof word);
}

inline std::uint32_t load32(const char* from) {
  std::uint32_t word;
  std::memcpy(&word, from, sizeof word);
  return little_endian(word);
}

inline std::uint64_t load64(const char* from) {
  std::uint64_t word;
  std::memcpy(&word, from, sizeof word);
  return little_endian(word);
}

inline std::int32_t load_int(const char* from) { return static_cast<std::int32_t>(load32(from)); }
inline double load_double(const char* from) { return std::bit_cast<double>(load64(from)); }

}  // namespace tolk
