// The exported functions that read blocks.

#include <cstdint>
#include <exception>

#include "capi/block.h"
#include "params/record.h"

using tolk::BlockIndex;
using tolk::Item;
using tolk::RecordWalk;
using tolk::Tag;
using tolk::TypeNotes;

namespace {

// Without memory to read the block, as without a block, there is nothing in it.
template <class Result, class Read>
Result read_or(Result nothing, const tolk_block* block, Read&& read) noexcept {
  if (block == nullptr || block->status() != TOLK_OK) return nothing;
  try {
    return read(block->index());
  } catch (const std::exception&) {
    return nothing;
  }
}

// Reads the value of an index, and what it is.
template <class Result, class Read>
Result read_value_or(Result nothing, const tolk_block* block, std::size_t at,
                     Read&& read) noexcept {
  return read_or(nothing, block, [&](const BlockIndex& index) {
    const Item* const item = index.at(at);
    return item == nullptr ? nothing : read(index, *item, index.kind(*item));
  });
}

std::uint64_t integer_of(const Item& item) {
  if (item.tag == Tag::Stream) return tolk::load64(item.at);
  return static_cast<std::uint64_t>(std::int64_t{tolk::load_int(item.at)});
}

double real_of(const Item& item, tolk_kind kind) {
  if (kind == TOLK_DOUBLE) return tolk::load_double(item.at);
  const std::uint64_t integer = integer_of(item);
  return kind == TOLK_UINT ? static_cast<double>(integer)
                           : static_cast<double>(static_cast<std::int64_t>(integer));
}

bool is_text_or_bytes(tolk_kind kind) { return kind == TOLK_TEXT || kind == TOLK_BYTES; }
bool is_number(tolk_kind kind) {
  return kind == TOLK_DOUBLE || kind == TOLK_INT || kind == TOLK_UINT;
}

// Calls `take(element, kind)` for each element until that says no.
template <class Take>
bool take_elements(const BlockIndex& index, const Item& list, Take&& take) {
  if (list.tag == Tag::List) {
    const TypeNotes* const notes = index.notes_inside(list);
    RecordWalk walk(list);
    Item element;
    while (walk.next(element)) {
      if (!take(element, BlockIndex::kind_of(element, notes))) return false;
    }
    return true;
  }
  const tolk_block* const inner = index.inner(list);
  if (inner == nullptr) return false;
  const BlockIndex& elements = inner->index();
  for (std::size_t i = 0; i < elements.count(); ++i) {
    if (!take(*elements.at(i), elements.kind(*elements.at(i)))) return false;
  }
  return true;
}

// Copies the numbers of a list: those that `read(element, kind, number)` reads.
template <class Number, class Read>
std::size_t copy_numbers(const tolk_block* block, std::size_t at, Number* to, std::size_t capacity,
                         Read&& read) {
  return read_value_or(
      std::size_t{0}, block, at, [&](const BlockIndex& index, const Item& item, tolk_kind kind) {
        std::size_t count = 0;
        const auto take = [&](const Item& element, tolk_kind element_kind) {
          Number number{};
          if (!read(element, element_kind, number)) return false;
          if (to != nullptr && count < capacity) to[count] = number;
          ++count;
          return true;
        };
        return kind == TOLK_LIST && take_elements(index, item, take) ? count : std::size_t{0};
      });
}

}  // namespace

size_t tolk_block_count(const tolk_block* block) {
  return read_or(std::size_t{0}, block, [](const BlockIndex& index) { return index.count(); });
}

size_t tolk_block_total(const tolk_block* block) {
  return read_or(std::size_t{0}, block, [](const BlockIndex& index) { return index.total(); });
}

size_t tolk_block_find(const tolk_block* block, const char* key) {
  if (key == nullptr) {
    return TOLK_NOWHERE;
  }
  return read_or(TOLK_NOWHERE, block, [&](const BlockIndex& index) { return index.find(key); });
}

const char* tolk_block_key(const tolk_block* block, size_t index) {
  return read_value_or<const char*>(
      nullptr, block, index,
      [](const BlockIndex&, const Item& item, tolk_kind) { return item.key; });
}

tolk_kind tolk_block_kind(const tolk_block* block, size_t index) {
  return read_value_or(TOLK_MISSING, block, index,
                       [](const BlockIndex&, const Item&, tolk_kind kind) { return kind; });
}

bool tolk_block_bool(const tolk_block* block, size_t index) {
  return read_value_or(false, block, index,
                       [](const BlockIndex&, const Item& item, tolk_kind kind) {
                         return kind == TOLK_BOOL && *item.at == '1';
                       });
}

int64_t tolk_block_int(const tolk_block* block, size_t index) {
  return read_value_or(std::int64_t{0}, block, index,
                       [](const BlockIndex&, const Item& item, tolk_kind kind) {
                         return kind == TOLK_INT ? static_cast<std::int64_t>(integer_of(item)) : 0;
                       });
}

uint64_t tolk_block_uint(const tolk_block* block, size_t index) {
  return read_value_or(std::uint64_t{0}, block, index,
                       [](const BlockIndex&, const Item& item, tolk_kind kind) -> std::uint64_t {
                         if (kind != TOLK_INT && kind != TOLK_UINT) return 0;
                         const std::uint64_t value = integer_of(item);
                         return kind == TOLK_INT && value > INT64_MAX ? 0 : value;
                       });
}

double tolk_block_double(const tolk_block* block, size_t index) {
  return read_value_or(0.0, block, index, [](const BlockIndex&, const Item& item, tolk_kind kind) {
    return is_number(kind) ? real_of(item, kind) : 0.0;
  });
}

const char* tolk_block_text(const tolk_block* block, size_t index, size_t* size) {
  if (size != nullptr) *size = 0;
  return read_value_or<const char*>(
      nullptr, block, index,
      [&](const BlockIndex& values, const Item& item, tolk_kind kind) -> const char* {
        if (!is_text_or_bytes(kind)) return nullptr;
        const char* const text = values.text(item);
        if (size != nullptr) *size = item.size;
        return text;
      });
}

const void* tolk_block_bytes(const tolk_block* block, size_t index, size_t* size) {
  if (size != nullptr) *size = 0;
  return read_value_or<const char*>(
      nullptr, block, index,
      [&](const BlockIndex&, const Item& item, tolk_kind kind) -> const char* {
        if (!is_text_or_bytes(kind)) return nullptr;
        if (size != nullptr) *size = item.size;
        return item.at;
      });
}

const tolk_block* tolk_block_inner(const tolk_block* block, size_t index) {
  return read_value_or<const tolk_block*>(
      nullptr, block, index,
      [](const BlockIndex& values, const Item& item, tolk_kind) { return values.inner(item); });
}

size_t tolk_block_ints(const tolk_block* block, size_t index, int64_t* to, size_t capacity) {
  return copy_numbers(block, index, to, capacity,
                      [](const Item& item, tolk_kind kind, std::int64_t& number) {
                        if (kind != TOLK_INT) return false;
                        number = static_cast<std::int64_t>(integer_of(item));
                        return true;
                      });
}

size_t tolk_block_doubles(const tolk_block* block, size_t index, double* to, size_t capacity) {
  return copy_numbers(block, index, to, capacity,
                      [](const Item& item, tolk_kind kind, double& number) {
                        if (!is_number(kind)) return false;
                        number = real_of(item, kind);
                        return true;
                      });
}
