// What both sides send each other: every kind of value, and large data.
#pragma once

#include <tolk/tolk.h>

#include <string>

namespace interop {

// A block with every kind of value, positional, keyed and in a list, extremes among them.
// `side` marks whose it is.
void fill(TolkParams* block, int side);
// What is wrong with such a block; "" when nothing is.
std::string fault(TolkParams* block, int side);

// Some bytes that are not the same anywhere.
std::string large_data(std::size_t bytes, int side);
inline constexpr std::size_t kLargeBytes = 16u << 20;

inline constexpr int kOfClient = 1;
inline constexpr int kOfServer = 2;

}  // namespace interop
