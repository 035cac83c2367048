// What the host adds to a block: keys and scalars.

#include <array>
#include <limits>
#include <stdexcept>

#include "capi/block.h"
#include "params/encoder.h"

using tolk::Item;
using tolk::SharedBytes;
using tolk::Tag;
using tolk::TypeNote;

namespace {

// Less than that is copied: it costs less than an owner, and the block stays in one piece.
constexpr std::size_t kLeastHeldBytes = 4096;

bool fits_an_int(std::int64_t value) {
  return value >= std::numeric_limits<std::int32_t>::min() &&
         value <= std::numeric_limits<std::int32_t>::max();
}

}  // namespace

void tolk_block::value_added() {
  if (end() > kMostBytes) throw std::length_error("block");
  ++records_;
  if (has_key()) ++keyed_;
  key_at_ = kNoKey;
}

void tolk_block::put_key(std::string_view key) {
  if (has_key()) buffer_.cut(key_at_);
  const std::size_t at = buffer_.size();
  put(tolk::keyed_bytes(checked(key).size(), 0), [&](auto& encoder) { encoder.add_key(key); });
  key_at_ = at;
}

std::string_view tolk_block::checked(std::string_view bytes) {
  if (bytes.size() > kMostBytes) throw std::length_error("value");
  return bytes;
}

void tolk_block::put_header(Tag tag, std::size_t word) {
  std::array<char, 5> header{static_cast<char>(tag)};
  tolk::store32(header.data() + 1, static_cast<std::uint32_t>(word));
  buffer_.make_room(header.size());
  buffer_.append(header.data(), header.size());
}

void tolk_block::put_check_word() {
  std::array<char, 4> word{};
  tolk::store32(word.data(), static_cast<std::uint32_t>(end()));
  buffer_.make_room(word.size());
  buffer_.append(word.data(), word.size());
}

// The record of a scalar, as it was except for its place.
void tolk_block::put_scalar(const Item& item) {
  put(tolk::stream_record_bytes(item.size) + tolk::double_record_bytes, [&](auto& encoder) {
    switch (item.tag) {
      case Tag::Bool:
        return encoder.add_bool(*item.at == '1');
      case Tag::Double:
        return encoder.add_double(tolk::load_double(item.at));
      case Tag::String:
        return encoder.add_string(item.bytes());
      case Tag::Stream:
        return encoder.add_stream(item.bytes());
      default:
        return encoder.add_int(tolk::load_int(item.at));
    }
  });
}

void tolk_block::put_stream(std::string_view bytes) {
  put(tolk::stream_record_bytes(checked(bytes).size()),
      [&](auto& encoder) { encoder.add_stream(bytes); });
}

// The record of a stream that holds a block. It has the block's held bytes without a copy.
void tolk_block::put_block(const tolk_block& inner) {
  if (const auto bytes = inner.view()) return put_stream(*bytes);
  const std::vector<SharedBytes> pieces = inner.pieces();
  put_header(Tag::Stream, inner.size());
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const bool is_held = i % 2 == 1;
    if (is_held) {
      held_.push_back({buffer_.size(), pieces[i]});
      held_bytes_ += pieces[i].view.size();
    } else {
      buffer_.make_room(pieces[i].view.size());
      buffer_.append(pieces[i].view.data(), pieces[i].view.size());
    }
  }
  put_check_word();
}

// ---- Scalars ----

void tolk_block::add_key(const char* key) {
  change([&] {
    if (key == nullptr) return refuse("a key is null");
    if (!tolk::is_reserved_key(key)) return put_key(key);
    refuse("the key \"" + std::string(key) + "\" is one of the library's own");
  });
}

template <class Encode>
void tolk_block::add_record(std::size_t room, Encode&& encode) {
  change([&] {
    put(room, encode);
    value_added();
  });
}

void tolk_block::add_noted(std::string_view bytes, TypeNote note) {
  change([&] {
    put_stream(bytes);
    notes_.add(records_, note);
    value_added();
  });
}

void tolk_block::add_none() { add_noted({}, TypeNote::none); }

void tolk_block::add_bool(bool value) {
  add_record(tolk::bool_record_bytes, [&](auto& encoder) { encoder.add_bool(value); });
}

void tolk_block::add_int(std::int64_t value) {
  if (!fits_an_int(value)) return add_wide(static_cast<std::uint64_t>(value), TypeNote::int64);
  add_record(tolk::int_record_bytes,
             [&](auto& encoder) { encoder.add_int(static_cast<std::int32_t>(value)); });
}

void tolk_block::add_uint(std::uint64_t value) {
  constexpr std::uint64_t most_int = std::numeric_limits<std::int64_t>::max();
  if (value > most_int) return add_wide(value, TypeNote::uint64);
  add_int(static_cast<std::int64_t>(value));
}

void tolk_block::add_wide(std::uint64_t value, TypeNote note) {
  std::array<char, 8> bytes{};
  tolk::store64(bytes.data(), value);
  add_noted({bytes.data(), bytes.size()}, note);
}

void tolk_block::add_double(double value) {
  add_record(tolk::double_record_bytes, [&](auto& encoder) { encoder.add_double(value); });
}

void tolk_block::add_text(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return add_noted(text, TypeNote::text);
  change([&] {
    put(tolk::string_record_bytes(checked(text).size()),
        [&](auto& encoder) { encoder.add_string(text); });
    value_added();
  });
}

void tolk_block::add_bytes(std::string_view bytes) {
  change([&] {
    put_stream(bytes);
    value_added();
  });
}

void tolk_block::add_held(SharedBytes bytes) {
  if (bytes.view.size() < kLeastHeldBytes) return add_bytes(bytes.view);
  change([&] {
    put_header(Tag::Stream, checked(bytes.view).size());
    held_bytes_ += bytes.view.size();
    held_.push_back({buffer_.size(), std::move(bytes)});
    put_check_word();
    value_added();
  });
}
