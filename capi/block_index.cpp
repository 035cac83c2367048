#include "capi/block_index.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>

#include "capi/block.h"
#include "params/parser.h"
#include "platform/text.h"

namespace tolk {
namespace {

// Up to here a text is copied with the index, without memory of its own.
constexpr std::size_t kShortText = 64;
// Room for so many values is made at once.
constexpr std::size_t kUsualItems = 6;
// So many keys are compared one by one.
constexpr std::size_t kFewKeys = 8;

Tag tag_at(const char* at) { return static_cast<Tag>(static_cast<unsigned char>(*at)); }

// Reads a scalar record that a parser has accepted. Returns its end.
const char* read_scalar_at(const char* at, Item& item) {
  item.tag = tag_at(at);
  item.at = at + 1;
  switch (item.tag) {
    case Tag::Bool:
      return at + bool_record_bytes;
    case Tag::Double:
      return at + double_record_bytes;
    case Tag::String:
    case Tag::Stream:
      item.size = load32(at + 1);
      item.at = at + 5;
      return at + string_record_bytes(item.size);
    default:
      return at + int_record_bytes;
  }
}

Tag tag_of(TolkValue::Type type) {
  switch (type) {
    case TolkValue::Bool:
      return Tag::Bool;
    case TolkValue::Double:
      return Tag::Double;
    case TolkValue::String:
      return Tag::String;
    case TolkValue::Stream:
      return Tag::Stream;
    default:
      return Tag::Int;
  }
}

// About how much memory the items of so many bytes need.
std::size_t room_for(std::size_t bytes) {
  return sizeof(BlockIndex) + bytes / 4 + (bytes / 24 + 2) * sizeof(Item);
}

// A note that does not fit its value is passed over.
tolk_kind noted_kind(const Item& item, TypeNote note) {
  switch (note) {
    case TypeNote::none:
      return item.size == 0 ? TOLK_NONE : TOLK_BYTES;
    case TypeNote::int64:
      return item.size == 8 ? TOLK_INT : TOLK_BYTES;
    case TypeNote::uint64:
      if (item.size != 8) return TOLK_BYTES;
      return load64(item.at) > INT64_MAX ? TOLK_UINT : TOLK_INT;
    case TypeNote::text:
      return TOLK_TEXT;
    case TypeNote::list:
      return TOLK_LIST;
    case TypeNote::map:
      return TOLK_MAP;
  }
  return TOLK_BYTES;
}

// Publishes what a thread has made, unless another one was quicker.
template <class T>
bool publish(T*& place, T* made, T*& first) {
  first = nullptr;
  return std::atomic_ref<T*>(place).compare_exchange_strong(first, made, std::memory_order_acq_rel);
}

template <class T>
T* published(T*& place) {
  return std::atomic_ref<T*>(place).load(std::memory_order_acquire);
}

}  // namespace

// The values of one pass. It needs the parser's offset, where the elements of a list begin and end.
class IndexSink {
 public:
  explicit IndexSink(BlockIndex& index, std::string_view input)
      : index_(index), input_(input), parser_(input, *this) {}

  void run() {
    if (!parser_.run()) index_.wrong_at_ = static_cast<std::size_t>(parser_.offset());
  }

  void positional(const Scalar& scalar) {
    index_.positional_.push_back(*index_.arena_, item_of(scalar));
  }
  void erase_key(std::string_view key) {
    Item erased;
    erased.key = key.data();
    erased.key_size = static_cast<std::uint32_t>(key.size());
    erased.is_dropped = true;
    index_.keyed_.push_back(*index_.arena_, erased);
  }
  void keyed(std::string_view key, const Scalar& scalar) {
    Item item = item_of(scalar);
    item.key = index_.arena_->copy_text(key);
    item.key_size = static_cast<std::uint32_t>(key.size());
    if (is_reserved_key(key)) index_.has_reserved_ = true;
    // The value itself replaces earlier ones of its key.
    if (index_.keyed_.back().key_view() == key) index_.keyed_.pop_back();
    index_.keyed_.push_back(*index_.arena_, item);
  }
  void begin_list() { first_ = here(); }
  void list_element(const Scalar&) {}
  void end_list() { add_elements(Tag::List); }
  void begin_map() { first_ = here(); }
  void map_entry(std::string_view, const Scalar&) {}
  void end_map() { add_elements(Tag::Map); }

 private:
  const char* here() const { return input_.data() + static_cast<std::size_t>(parser_.offset()); }

  Item item_of(const Scalar& scalar) {
    Item item;
    item.tag = tag_of(scalar.type);
    item.record = records_++;
    if (!scalar.has_bytes()) {
      item.at = here() + 1;
      return item;
    }
    item.at = scalar.bytes.data();
    item.size = static_cast<std::uint32_t>(scalar.bytes.size());
    const bool is_short_text = scalar.type == TolkValue::String && item.size <= kShortText;
    if (is_short_text) item.text = index_.arena_->copy_text(scalar.bytes);
    return item;
  }

  void add_elements(Tag tag) {
    Item item;
    item.tag = tag;
    item.at = first_;
    item.size = static_cast<std::uint32_t>(here() - first_);
    item.record = records_++;
    index_.positional_.push_back(*index_.arena_, item);
  }

  BlockIndex& index_;
  const std::string_view input_;
  RecordParser<IndexSink> parser_;
  const char* first_ = nullptr;
  std::uint32_t records_ = 0;
};

bool is_reserved_key(std::string_view key) {
  return key.starts_with("s_c_") || key.starts_with("tolk.");
}

bool RecordWalk::next(Item& item) {
  item = Item();
  if (at_ != end_ && tag_at(at_) == Tag::KeyValue && !next_key(item)) return false;
  if (at_ == end_) return false;
  item.record = record_++;
  at_ = read_scalar_at(at_, item);
  return true;
}

// A key without a value is passed over, as in the parser.
bool RecordWalk::next_key(Item& item) {
  while (at_ != end_ && tag_at(at_) == Tag::KeyValue) {
    item.key = at_ + 6;
    item.key_size = load32(at_ + 2);
    at_ += 1 + string_record_bytes(item.key_size);
  }
  return at_ != end_;
}

BlockIndex* BlockIndex::make(ArenaRef arena, BlockIndex* root) {
  void* const place = arena->allocate(sizeof(BlockIndex));
  return new (place) BlockIndex(arena.take(), root);
}

IndexRef BlockIndex::of_shared(const SharedBytes& bytes) {
  IndexRef index(make(ArenaRef(Arena::with_shared(bytes, room_for(bytes.view.size()))), nullptr));
  index->parse(bytes.view);
  return index;
}

IndexRef BlockIndex::of_buffer(const RecordBuffer& buffer, std::size_t size) {
  IndexRef index = of_shared({nullptr, buffer.view().substr(0, size)});
  index->buffer_ = buffer;
  return index;
}

// A copy of its own is quicker than one in the arena: both pieces are then of sizes that
// allocators keep at hand.
IndexRef BlockIndex::of_copy(std::string_view bytes) {
  RecordBuffer copy;
  copy.make_room(bytes.size());
  if (!bytes.empty()) copy.append(bytes.data(), bytes.size());
  return of_buffer(copy, bytes.size());
}

void BlockIndex::release() noexcept {
  BlockIndex& root = *root_;
  // Nobody else holds the index, so nobody else can count.
  const bool last = root.owners_.load(std::memory_order_acquire) == 1 ||
                    root.owners_.fetch_sub(1, std::memory_order_acq_rel) == 1;
  if (last) root.destroy();
}

// One by one, since the blocks may be deeper than the stack.
void BlockIndex::destroy() noexcept {
  tolk_block* block = inner_blocks_.load(std::memory_order_acquire);
  while (block != nullptr) {
    tolk_block* const next = block->next_inner_;
    delete_inner(block);
    block = next;
  }
  free_memory();
}

void BlockIndex::delete_inner(tolk_block* block) noexcept {
  BlockIndex* const index = block->index_.exchange(nullptr, std::memory_order_acq_rel);
  delete block;
  index->free_memory();
}

void BlockIndex::free_memory() noexcept {
  LateText* text = late_texts_.load(std::memory_order_acquire);
  while (text != nullptr) ::operator delete(std::exchange(text, text->next));
  const ArenaRef arena(arena_);
  this->~BlockIndex();
}

void BlockIndex::parse(std::string_view bytes) {
  bytes_ = bytes;
  has_bytes_ = true;
  positional_.reserve(*arena_, std::min(bytes.size() / int_record_bytes + 1, kUsualItems));
  IndexSink(*this, bytes).run();
  settle_keys();
}

void BlockIndex::read_elements(const Item& list) {
  RecordWalk walk(list);
  Item item;
  while (walk.next(item)) {
    if (list.tag == Tag::List) {
      positional_.push_back(*arena_, item);
      continue;
    }
    const std::string_view key = cut_at_zero(item.key_view());
    item.key = arena_->copy_text(key);
    item.key_size = static_cast<std::uint32_t>(key.size());
    keyed_.push_back(*arena_, item);
  }
  settle_keys();
}

// Of equal keys the last one counts.
void BlockIndex::settle_keys() {
  const auto is_replaced_later = [this](const Item& item) {
    return std::any_of(&item + 1, static_cast<const Item*>(keyed_.end()),
                       [&](const Item& later) { return later.key_view() == item.key_view(); });
  };
  if (keyed_.size() <= kFewKeys) {
    for (Item& item : keyed_) item.is_dropped = item.is_dropped || is_replaced_later(item);
  } else {
    sort_keys();
    for (std::size_t i = 0; i + 1 < by_key_.size(); ++i) {
      Item& item = keyed_[by_key_[i]];
      if (item.key_view() == keyed_[by_key_[i + 1]].key_view()) item.is_dropped = true;
    }
  }
  remove_dropped();
}

void BlockIndex::remove_dropped() {
  const Item* const end = std::remove_if(keyed_.begin(), keyed_.end(),
                                         [](const Item& item) { return item.is_dropped; });
  keyed_.cut(static_cast<std::size_t>(end - keyed_.begin()));
  by_key_.cut(0);
  if (keyed_.size() > kFewKeys) sort_keys();
}

void BlockIndex::sort_keys() {
  by_key_.cut(0);
  by_key_.reserve(*arena_, keyed_.size());
  for (std::size_t i = 0; i < keyed_.size(); ++i) {
    by_key_.push_back(*arena_, static_cast<std::uint32_t>(i));
  }
  std::sort(by_key_.begin(), by_key_.end(), [this](std::uint32_t left, std::uint32_t right) {
    const int order = keyed_[left].key_view().compare(keyed_[right].key_view());
    return order != 0 ? order < 0 : left < right;
  });
}

std::size_t BlockIndex::find(std::string_view key) const {
  const auto has_key = [key](const Item& item) { return item.key_view() == key; };
  const Item* found = keyed_.end();
  if (by_key_.empty()) {
    found = std::find_if(keyed_.begin(), keyed_.end(), has_key);
  } else {
    const std::uint32_t* const at = std::lower_bound(
        by_key_.begin(), by_key_.end(), key, [this](std::uint32_t left, std::string_view right) {
          return keyed_[left].key_view() < right;
        });
    if (at != by_key_.end() && has_key(keyed_[*at])) found = &keyed_[*at];
  }
  if (found == keyed_.end()) {
    return TOLK_NOWHERE;
  }
  return positional_.size() + static_cast<std::size_t>(found - keyed_.begin());
}

const Item* BlockIndex::at(std::size_t index) const {
  if (index < positional_.size()) return &positional_[index];
  index -= positional_.size();
  return index < keyed_.size() ? &keyed_[index] : nullptr;
}

tolk_kind BlockIndex::kind_of(const Item& item, const TypeNotes* notes) {
  switch (item.tag) {
    case Tag::Int:
      return TOLK_INT;
    case Tag::Bool:
      return TOLK_BOOL;
    case Tag::Double:
      return TOLK_DOUBLE;
    case Tag::String:
      return TOLK_TEXT;
    case Tag::List:
      return TOLK_LIST;
    case Tag::Map:
      return TOLK_MAP;
    default:
      break;
  }
  const std::optional<TypeNote> note = notes == nullptr ? std::nullopt : notes->of(item.record);
  return note ? noted_kind(item, *note) : TOLK_BYTES;
}

const char* BlockIndex::text(const Item& item) const {
  if (const char* const made = published(item.text)) return made;
  void* const memory = ::operator new(sizeof(LateText) + item.size + 1);
  auto* const late = new (memory) LateText{};
  char* const text = reinterpret_cast<char*>(late + 1);
  if (item.size != 0) std::memcpy(text, item.at, item.size);
  text[item.size] = '\0';
  const char* first = nullptr;
  if (!publish<const char>(item.text, text, first)) {
    ::operator delete(memory);
    return first;
  }
  late->next = late_texts_.load(std::memory_order_relaxed);
  while (!late_texts_.compare_exchange_weak(late->next, late, std::memory_order_acq_rel)) {
  }
  return text;
}

const tolk_block* BlockIndex::inner(const Item& item) const {
  const tolk_kind kind = this->kind(item);
  if (kind != TOLK_LIST && kind != TOLK_MAP && kind != TOLK_BYTES) return nullptr;
  if (const tolk_block* const made = published(item.inner)) return made;
  tolk_block* const block = new_inner(item);
  tolk_block* first = nullptr;
  if (block == nullptr || publish(item.inner, block, first)) {
    if (block != nullptr) add_inner(block);
    return block;
  }
  delete_inner(block);
  return first;
}

void BlockIndex::add_inner(tolk_block* block) const {
  std::atomic<tolk_block*>& all = root_->inner_blocks_;
  block->next_inner_ = all.load(std::memory_order_relaxed);
  while (!all.compare_exchange_weak(block->next_inner_, block, std::memory_order_acq_rel)) {
  }
}

// Null for bytes that are not a block.
tolk_block* BlockIndex::new_inner(const Item& item) const {
  struct Free {
    void operator()(BlockIndex* index) const { index->free_memory(); }
  };
  const SharedBytes bytes{nullptr, item.has_bytes() ? item.bytes() : std::string_view()};
  const std::size_t room = room_for(item.size);
  std::unique_ptr<BlockIndex, Free> index(make(ArenaRef(Arena::with_shared(bytes, room)), root_));
  if (item.has_bytes()) {
    index->parse(bytes.view);
  } else {
    index->read_elements(item);
  }
  if (index->wrong_at_ != TOLK_NOWHERE) return nullptr;
  index->notes_ = notes_inside(item);
  auto* const block = new tolk_block(index.get());
  static_cast<void>(index.release());
  return block;
}

bool BlockIndex::set_notes(std::string_view text) {
  if (text.empty()) return true;
  // Each note is about a record, and those that may have one take at least so much.
  constexpr std::size_t kLeastBytes = 7;
  std::optional<TypeNotes> notes = TypeNotes::parse(text, bytes_.size() / kLeastBytes + 1);
  if (!notes) return false;
  own_notes_ = std::move(*notes);
  notes_ = own_notes_.empty() ? nullptr : &own_notes_;
  return true;
}

void BlockIndex::copy_notes(const TypeNotes* notes) {
  if (notes == nullptr) return;
  own_notes_ = *notes;
  notes_ = &own_notes_;
}

void BlockIndex::drop_reserved() {
  for (Item& item : keyed_) item.is_dropped = is_reserved_key(item.key_view());
  remove_dropped();
}

std::string_view BlockIndex::take(std::string_view key) {
  const Item* const item = at(find(key));
  if (item == nullptr) return {};
  const std::string_view text = item->has_bytes() ? item->bytes() : std::string_view();
  keyed_[static_cast<std::size_t>(item - keyed_.begin())].is_dropped = true;
  remove_dropped();
  return text;
}

}  // namespace tolk
