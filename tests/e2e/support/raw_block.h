// Blocks and messages as bytes, written and read without the library, to test it independently.
//
// A block is a sequence of records; a scalar record ends with a check word, which is its own
// offset.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tolk::test {

// A value of type stream.
struct Stream {
  std::string bytes;
  bool operator==(const Stream&) const = default;
};

using Scalar = std::variant<int, bool, double, std::string, Stream>;
using List = std::vector<Scalar>;

// The first byte of each record.
inline constexpr char kIntTag = 0;
inline constexpr char kBoolTag = 1;
inline constexpr char kDoubleTag = 2;
inline constexpr char kStringTag = 3;
inline constexpr char kStreamTag = 4;
inline constexpr char kKeyTag = 5;
inline constexpr char kListTag = 6;
inline constexpr char kMapTag = 7;

// The four bytes of a number, and the number in the four bytes from `at` on.
std::string word(std::uint32_t value);
std::uint32_t word_at(std::string_view bytes, std::size_t at = 0);

class BlockWriter {
 public:
  BlockWriter() = default;
  // For records that follow `bytes_before` bytes of the same block.
  explicit BlockWriter(std::size_t bytes_before) : bytes_before_(bytes_before) {}

  BlockWriter& add(const Scalar& value);
  BlockWriter& list(const List& elements);
  BlockWriter& map(const std::vector<std::pair<std::string, Scalar>>& entries);
  BlockWriter& keyed(std::string_view key, const Scalar& value);
  // A key without a value; what is added next takes the place of the value.
  BlockWriter& lone_key(std::string_view key);

  const std::string& bytes() const { return bytes_; }

 private:
  void number(std::size_t value) { bytes_ += word(static_cast<std::uint32_t>(value)); }
  void check_word() { number(bytes_before_ + bytes_.size()); }
  void text(char tag, std::string_view data);

  std::size_t bytes_before_ = 0;
  std::string bytes_;
};

// A block as read: positional scalars and lists, keyed values, both in wire order.
struct Block {
  std::vector<std::variant<Scalar, List>> values;
  std::vector<std::pair<std::string, Scalar>> keyed;

  const Scalar* find(std::string_view key) const;  // the last of that key
  const Scalar* at(std::size_t position) const;    // null when absent or a list
  std::string string_at(std::size_t position) const;
  std::vector<std::string> keys() const;
};

// Nothing when the bytes are not a well-formed block, to the last byte.
std::optional<Block> read_block(std::string_view bytes);

// A message: a block with an envelope.
struct Message : Block {
  std::string payload;

  std::optional<std::string> text(std::string_view key) const;  // string or stream
  std::optional<int> number(std::string_view key) const;
  std::string name() const { return text("s_c_sw_name").value_or(""); }
  std::optional<int> call_id() const { return number("s_c_sw_threadid"); }
  std::optional<std::string> arguments() const { return text("s_c_sw_data"); }
  std::optional<std::string> token() const { return text("s_c_sw_semid"); }
};

std::optional<Message> read_message(std::optional<std::string> payload);

// A call; without a token a posted call.
std::string call_payload(std::string_view name, int call_id,
                         const std::optional<std::string>& arguments = {},
                         const std::optional<std::string>& token = {});
// An answer to `call`, with `values` in front; in the order in which a server writes it.
std::string reply_payload(const Message& call, BlockWriter values = {});

inline constexpr char kVersion[] = "Tolk Version: 1.1.0.12";
std::string version_arguments(std::string_view version = kVersion);

// A payload with its length in front, and that length alone.
std::string frame(std::string_view payload);
std::string prefix(std::int32_t length);

}  // namespace tolk::test
