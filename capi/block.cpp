#include "capi/block.h"

#include <array>
#include <limits>
#include <new>
#include <stdexcept>

#include "params/encoder.h"
#include "platform/never_destroyed.h"
#include "transport/frame_format.h"

using tolk::BlockIndex;
using tolk::IndexRef;
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

tolk_block::tolk_block(const tolk_block& other) : status_(other.status_) {
  if (!other.is_received_) {
    buffer_ = other.buffer_;
    held_ = other.held_;
    held_bytes_ = other.held_bytes_;
    records_ = other.records_;
    keyed_ = other.keyed_;
    key_at_ = other.key_at_;
    notes_ = other.notes_;
    return;
  }
  const BlockIndex& index = other.index();
  if (!index.is_outermost() && !index.has_bytes()) {
    other.rebuild_into(*this);
    return;
  }
  IndexRef shared;
  if (index.is_outermost()) {
    other.index_.load(std::memory_order_acquire)->retain();
    shared = IndexRef(other.index_.load(std::memory_order_acquire));
  } else {
    shared = BlockIndex::of_shared(other.share());
    shared->copy_notes(index.notes());
  }
  index_ = shared.take();
  is_received_ = true;
}

tolk_block::~tolk_block() { drop_index(); }

tolk_block* tolk_block::without_memory() noexcept {
  static tolk::NeverDestroyed<tolk_block> block;
  static const bool made = (block->status_ = TOLK_NO_MEMORY, true);
  static_cast<void>(made);
  return &*block;
}

tolk_block::Received tolk_block::of_message(const SharedBytes& payload, std::string_view types,
                                            Reserved reserved) {
  return received(BlockIndex::of_shared(payload), types, reserved);
}

tolk_block::Received tolk_block::of_copy(std::string_view encoded) {
  IndexRef index = BlockIndex::of_copy(encoded);
  const std::string_view types = index->take(kTypesKey);
  return received(std::move(index), types, Reserved::kept);
}

tolk_block::Received tolk_block::received(IndexRef index, std::string_view types,
                                          Reserved reserved) {
  Received result;
  result.wrong_at = index->wrong_at();
  if (!index->set_notes(types) && result.is_well_formed()) {
    const std::string_view bytes = index->bytes();
    const bool is_inside =
        types.data() >= bytes.data() && types.data() < bytes.data() + bytes.size();
    result.wrong_at = is_inside ? static_cast<std::size_t>(types.data() - bytes.data()) : 0;
  }
  if (reserved == Reserved::dropped && index->has_reserved()) index->drop_reserved();
  result.block.reset(new tolk_block(index.get()));
  static_cast<void>(index.take());
  return result;
}

// ---- The records ----

bool tolk_block::is_in_one_piece() const {
  if (!is_received_) return held_.empty();
  const BlockIndex& index = this->index();
  return index.has_bytes() && !index.has_reserved() && index.wrong_at() == TOLK_NOWHERE;
}

std::optional<std::string_view> tolk_block::view() const {
  if (!is_in_one_piece()) return std::nullopt;
  return is_received_ ? index().bytes() : buffer_.view().substr(0, buffer_end());
}

SharedBytes tolk_block::share() const {
  if (const auto bytes = view()) {
    if (!is_received_) return {buffer_.share().owner, *bytes};
    BlockIndex* const index = index_.load(std::memory_order_acquire);
    index->retain();
    IndexRef held(index);
    return {std::make_shared<const IndexRef>(std::move(held)), *bytes};
  }
  if (is_received_) {
    tolk_block built;
    rebuild_into(built);
    return built.share();
  }
  const std::size_t whole = size();
  const std::shared_ptr<char[]> memory = std::make_shared_for_overwrite<char[]>(whole);
  char* to = memory.get();
  for (const SharedBytes& piece : pieces()) {
    to = std::copy(piece.view.begin(), piece.view.end(), to);
  }
  return {memory, {memory.get(), whole}};
}

std::vector<SharedBytes> tolk_block::pieces() const {
  if (is_received_ || held_.empty()) return {share()};
  std::vector<SharedBytes> pieces;
  pieces.reserve(2 * held_.size() + 1);
  const SharedBytes own = buffer_.share();
  std::size_t from = 0;
  for (const Held& held : held_) {
    if (held.at >= buffer_end()) break;
    pieces.push_back({own.owner, own.view.substr(from, held.at - from)});
    pieces.push_back(held.bytes);
    from = held.at;
  }
  pieces.push_back({own.owner, own.view.substr(from, buffer_end() - from)});
  return pieces;
}

std::size_t tolk_block::size() const {
  if (!is_received_) return buffer_end() + held_bytes_;
  const auto bytes = view();
  return bytes ? bytes->size() : share().view.size();
}

std::string tolk_block::types() const {
  if (!is_received_) return notes_.text();
  if (is_in_one_piece()) return index().notes() == nullptr ? "" : index().notes()->text();
  tolk_block built;
  rebuild_into(built);
  return built.notes_.text();
}

std::string_view tolk_block::encode() {
  const std::string types = this->types();
  const auto bytes = view();
  if (bytes && types.empty()) return *bytes;
  auto encoded = std::make_unique<std::string>(share().view);
  tolk::Encoder encoder(*encoded, 0);
  if (!types.empty()) {
    encoder.add_key(kTypesKey);
    encoder.add_string(types);
  }
  encoded_ = std::move(encoded);
  return *encoded_;
}

void tolk_block::rebuild_into(tolk_block& built) const {
  const BlockIndex& index = this->index();
  for (std::size_t i = 0; i < index.total(); ++i) {
    const Item& item = *index.at(i);
    const bool is_value = item.key == nullptr || !tolk::is_reserved_key(item.key_view());
    if (is_value) built.put_item(item, index.notes());
  }
}

// ---- The index ----

const BlockIndex& tolk_block::index() const {
  if (const BlockIndex* const made = index_.load(std::memory_order_acquire)) return *made;
  IndexRef index =
      held_.empty() ? BlockIndex::of_buffer(buffer_, buffer_end()) : BlockIndex::of_shared(share());
  index->borrow_notes(notes_);
  BlockIndex* first = nullptr;
  if (!index_.compare_exchange_strong(first, index.get(), std::memory_order_acq_rel)) return *first;
  return *index.take();
}

void tolk_block::drop_index() noexcept {
  BlockIndex* const index = index_.load(std::memory_order_relaxed);
  if (index == nullptr) return;
  index_.store(nullptr, std::memory_order_relaxed);
  index->release();
}

// ---- Changes ----

void tolk_block::become_built() {
  if (!is_received_) {
    drop_index();
    return;
  }
  tolk_block built;
  rebuild_into(built);
  drop_index();
  is_received_ = false;
  buffer_ = std::move(built.buffer_);
  held_ = std::move(built.held_);
  held_bytes_ = built.held_bytes_;
  records_ = built.records_;
  keyed_ = built.keyed_;
  notes_ = std::move(built.notes_);
}

void tolk_block::lose(tolk_status status) noexcept {
  clear();
  status_ = status;
}

void tolk_block::clear() noexcept {
  if (this == without_memory()) return;
  drop_index();
  encoded_.reset();
  buffer_ = {};
  held_.clear();
  held_bytes_ = 0;
  records_ = 0;
  keyed_ = 0;
  key_at_.reset();
  is_received_ = false;
  status_ = TOLK_OK;
  notes_ = {};
}

void tolk_block::value_added() {
  if (end() > kMostBytes) throw std::length_error("block");
  ++records_;
  if (key_at_) ++keyed_;
  key_at_.reset();
}

void tolk_block::put_key(std::string_view key) {
  if (key_at_) buffer_.cut(*key_at_);
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

void tolk_block::add_key(std::string_view key) {
  change([&] {
    if (tolk::is_reserved_key(key)) return lose(TOLK_MISUSE);
    put_key(key);
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
