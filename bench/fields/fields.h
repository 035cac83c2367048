// Row F: one message of eight mixed fields, and one byte string of 1 MiB, each built, encoded and
// parsed again. A program defines the three functions; fields.cpp has the main function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

// An int 7, a bool, a double, a text of 16 bytes, 64 bytes, and three named values: "alpha" 1,
// "beta" 2, "gamma" a text of 16 bytes. Returns what was parsed: 7 + 64 + the value of "beta".
std::uint64_t build_and_parse_fields();
constexpr std::uint64_t kFieldsSum = 7 + 64 + 2;

// The length that was parsed.
std::size_t build_and_parse_stream(const std::string& bytes);

inline const std::string kText(16, 't');
inline const std::string kBytes(64, 'b');

}  // namespace bench
