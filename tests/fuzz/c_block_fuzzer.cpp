// Any bytes as a block of the C interface: it must agree with the required parser on plain blocks,
// and be the same block after it was copied, changed back and encoded again.

#include <tolk/TolkParams.h>
#include <tolk/c.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capi/block.h"
#include "tests/capi/c_block_text.h"
#include "tests/fuzz/block_repair.h"
#include "tests/fuzz/finding.h"
#include "tests/params/block_text.h"

extern "C" {
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed);
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);
}

namespace {

using tolk::test::expect;
using tolk::test::expect_same;

struct Free {
  void operator()(tolk_block* block) const { tolk_block_free(block); }
};
using Block = std::unique_ptr<tolk_block, Free>;

std::string described(const tolk_block* block);

std::string hex_of(const void* bytes, std::size_t size) {
  return tolk::test::NaiveParser::hexed(std::string(static_cast<const char*>(bytes), size));
}

template <class Number>
std::string numbers_of(const tolk_block* block, std::size_t index,
                       std::size_t read(const tolk_block*, std::size_t, Number*, std::size_t)) {
  std::vector<Number> numbers(read(block, index, nullptr, 0));
  expect("a list has as many numbers again",
         read(block, index, numbers.data(), numbers.size()) == numbers.size());
  return hex_of(numbers.data(), numbers.size() * sizeof(Number));
}

// A value as every function reads it.
std::string described_value(const tolk_block* block, std::size_t index) {
  std::string words = std::to_string(tolk_block_kind(block, index));
  words += ' ' + std::to_string(tolk_block_bool(block, index));
  words += ' ' + std::to_string(tolk_block_int(block, index));
  words += ' ' + std::to_string(tolk_block_uint(block, index));
  const double real = tolk_block_double(block, index);
  words += ' ' + hex_of(&real, sizeof real);
  words += " [" + numbers_of(block, index, tolk_block_ints);
  words += "] [" + numbers_of(block, index, tolk_block_doubles) + ']';
  std::size_t size = 0;
  std::size_t text_size = 0;
  const void* const bytes = tolk_block_bytes(block, index, &size);
  const char* const text = tolk_block_text(block, index, &text_size);
  expect("texts are bytes", (bytes == nullptr) == (text == nullptr) && size == text_size);
  if (bytes != nullptr) {
    expect("a text ends with a zero byte", text[size] == '\0');
    words += ' ' + hex_of(bytes, size);
    expect_same("the text", hex_of(text, size), hex_of(bytes, size));
  }
  const tolk_block* const inner = tolk_block_inner(block, index);
  expect("an inner block stays", tolk_block_inner(block, index) == inner);
  return inner == nullptr ? words + '\n' : words + " {\n" + described(inner) + "}\n";
}

bool is_reserved(const char* key) { return key != nullptr && tolk::is_reserved_key(key); }

// Without the reserved keys, which no encoded block has.
std::string described(const tolk_block* block) {
  const std::size_t count = tolk_block_count(block);
  const std::size_t total = tolk_block_total(block);
  expect("no more positional values than values", count <= total);
  std::string lines;
  for (std::size_t i = 0; i < total; ++i) {
    const char* const key = tolk_block_key(block, i);
    expect("a value behind the positional ones has a key", (key != nullptr) == (i >= count));
    expect("there is a value", tolk_block_kind(block, i) != TOLK_MISSING);
    if (is_reserved(key)) continue;
    // A key with a zero byte inside is not found by its first part.
    if (key != nullptr && block->index().at(i)->key_size == std::string_view(key).size()) {
      expect("a key is found", tolk_block_find(block, key) == i);
      lines += hex_of(key, std::string_view(key).size()) + '=';
    }
    lines += described_value(block, i);
  }
  expect("nothing behind the last value", tolk_block_kind(block, total) == TOLK_MISSING);
  return lines;
}

// Its notes may be more than a block of its size can need, if that has lost values.
Block encoded_again(tolk_block* block) {
  std::size_t size = 0;
  const void* const bytes = tolk_block_encode(block, &size);
  expect("there is memory to encode", bytes != nullptr);
  tolk_block* again = nullptr;
  const tolk_status status = tolk_block_parse(bytes, size, &again, nullptr, nullptr);
  expect("an encoded block is well formed", status == TOLK_OK || !block->types().empty());
  return Block(again);
}

void expect_as_the_required_parser(std::string_view bytes) {
  TolkParams plain;
  const bool verdict = plain.Parser(bytes.data(), static_cast<int>(bytes.size()));
  const auto received = tolk_block::of_message({nullptr, bytes}, {}, tolk_block::Reserved::kept);
  expect_same("verdict and values",
              tolk::test::c_block_text(received.is_well_formed(), received.block->index()),
              tolk::test::block_text(verdict, plain));
}

// A list, and a map, of its values read as it does.
void expect_same_inside(tolk_block* block) {
  const Block outer(tolk_block_new());
  tolk_block_add_list(outer.get(), block);
  tolk_block_add_key(outer.get(), "k");
  tolk_block_add_list(outer.get(), block);
  tolk_block_add_map(outer.get(), block);
  const tolk_block* const list = tolk_block_inner(outer.get(), 0);
  expect("a list has the positional values", tolk_block_total(list) == tolk_block_count(block));
  expect_same("a list under a key", described(tolk_block_inner(outer.get(), 2)), described(list));
  const Block again = encoded_again(outer.get());
  if (again) expect_same("the lists, parsed", described(again.get()), described(outer.get()));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  expect_as_the_required_parser(bytes);
  tolk_block* parsed = nullptr;
  std::size_t wrong_at = TOLK_NOWHERE;
  const tolk_status status = tolk_block_parse(data, size, &parsed, &wrong_at, nullptr);
  expect("malformed bytes are wrong somewhere", (status == TOLK_OK) == (wrong_at == TOLK_NOWHERE));
  if (status != TOLK_OK) return 0;
  const Block block(parsed);
  const std::string values = described(block.get());
  const Block again = encoded_again(block.get());
  if (again) expect_same("the block, encoded and parsed", described(again.get()), values);
  const Block copy(tolk_block_copy(block.get()));
  expect_same("a copy", described(copy.get()), values);
  tolk_block_add_key(copy.get(), "dropped");  // a change that adds no value
  expect_same("a copy that became a built one", described(copy.get()), values);
  expect_same_inside(block.get());
  expect_same("the block after all", described(block.get()), values);
  return 0;
}

// As of the required parser.
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed) {
  const std::size_t changed = LLVMFuzzerMutate(data, size, max_size);
  if (seed % 4 == 0) return changed;
  tolk::test::BlockRepair repair(reinterpret_cast<char*>(data), changed);
  const std::size_t whole = repair.run();
  return seed % 4 == 1 || whole == 0 ? changed : whole;
}
