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

// About how many values lie in so many bytes; and the memory that they need, with short texts.
std::size_t usual_items(std::size_t bytes) { return std::min<std::size_t>(bytes / 24 + 1, 64); }
std::size_t room_for(std::size_t bytes) {
  constexpr std::size_t most_texts = 2048;
  return sizeof(BlockIndex) + usual_items(bytes) * sizeof(Item) + std::min(bytes / 2, most_texts);
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
    add_erased();
  }

  void positional(const Scalar& scalar) { read(scalar, index_.add_positional()); }
  void erase_key(std::string_view key) {
    add_erased();
    if (index_.has_keyed_) erased_ = key;
  }
  void keyed(std::string_view key, const Scalar& scalar) {
    // The value itself replaces earlier ones of its key.
    const bool is_same = erased_.data() == key.data() && erased_.size() == key.size();
    if (!is_same) add_erased();
    erased_ = {};
    if (is_reserved_key(key)) index_.has_reserved_ = true;
    read(scalar, index_.add_keyed({index_.arena_->copy_text(key), key.size()}));
  }
  void begin_list() { first_ = here(); }
  void list_element(const Scalar&) {}
  void end_list() { add_elements(Tag::List); }
  void begin_map() { first_ = here(); }
  void map_entry(std::string_view, const Scalar&) {}
  void end_map() { add_elements(Tag::Map); }

 private:
  // An item that only replaces earlier ones.
  void add_erased() {
    if (erased_.data() == nullptr) return;
    index_.add_keyed(erased_).is_dropped = true;
    erased_ = {};
  }

  const char* here() const { return input_.data() + static_cast<std::size_t>(parser_.offset()); }

  void read(const Scalar& scalar, Item& item) {
    item.tag = tag_at(here());
    item.at = here() + 1;
    item.record = records_++;
    if (!scalar.has_bytes()) return;
    item.at = scalar.bytes.data();
    item.size = static_cast<std::uint32_t>(scalar.bytes.size());
    const bool is_short_text = scalar.type == TolkValue::String && item.size <= kShortText;
    if (is_short_text) item.text = index_.arena_->copy_text(scalar.bytes);
  }

  void add_elements(Tag tag) {
    Item& item = index_.add_positional();
    item.tag = tag;
    item.at = first_;
    item.size = static_cast<std::uint32_t>(here() - first_);
    item.record = records_++;
  }

  BlockIndex& index_;
  const std::string_view input_;
  RecordParser<IndexSink> parser_;
  const char* first_ = nullptr;
  std::string_view erased_;  // the last key that erases, unless its value has come
  std::uint32_t records_ = 0;
};

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

IndexRef BlockIndex::of_copy(std::string_view bytes) {
  IndexRef index(make(ArenaRef(Arena::with_copy(bytes, room_for(bytes.size()))), nullptr));
  index->parse(index->arena_->bytes());
  return index;
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
  items_.reserve(*arena_, usual_items(bytes.size()));
  IndexSink(*this, bytes).run();
  settle();
}

void BlockIndex::read_elements(const Item& list) {
  RecordWalk walk(list);
  Item item;
  while (walk.next(item)) {
    if (list.tag == Tag::List) {
      add_positional() = item;
      continue;
    }
    const std::string_view key = cut_at_zero(item.key_view());
    item.key = arena_->copy_text(key);
    item.key_size = static_cast<std::uint32_t>(key.size());
    add_keyed(key) = item;
  }
  settle();
}

void BlockIndex::settle() {
  if (is_mixed_) {
    const Item* const middle = std::stable_partition(
        items_.begin(), items_.end(), [](const Item& item) { return item.key == nullptr; });
    count_ = static_cast<std::size_t>(middle - items_.begin());
  }
  if (!has_keyed_) return;
  if (keyed().size() > kFewKeys) {
    drop_replaced_of_many();
  } else if (!drop_replaced()) {
    return;
  }
  remove_dropped();
}

// Of equal keys the last one counts. False if each one does.
bool BlockIndex::drop_replaced() {
  bool is_any_dropped = false;
  Item* const end = items_.end();
  for (Item* item = items_.begin() + count_; item != end; ++item) {
    for (const Item* later = item + 1; later != end; ++later) {
      if (later->key_view() == item->key_view()) item->is_dropped = true;
    }
    is_any_dropped = is_any_dropped || item->is_dropped;
  }
  return is_any_dropped;
}

void BlockIndex::drop_replaced_of_many() {
  const std::span<Item> keyed = this->keyed();
  sort_keys();
  for (std::size_t i = 0; i + 1 < by_key_.size(); ++i) {
    Item& item = keyed[by_key_[i]];
    if (item.key_view() == keyed[by_key_[i + 1]].key_view()) item.is_dropped = true;
  }
}

void BlockIndex::remove_dropped() {
  const std::span<Item> keyed = this->keyed();
  const auto end =
      std::remove_if(keyed.begin(), keyed.end(), [](const Item& item) { return item.is_dropped; });
  items_.cut(count_ + static_cast<std::size_t>(end - keyed.begin()));
  by_key_.cut(0);
  if (this->keyed().size() > kFewKeys) sort_keys();
}

void BlockIndex::sort_keys() {
  const std::span<Item> keyed = this->keyed();
  by_key_.cut(0);
  by_key_.reserve(*arena_, keyed.size());
  for (std::size_t i = 0; i < keyed.size(); ++i) {
    by_key_.push_back(*arena_, static_cast<std::uint32_t>(i));
  }
  std::sort(by_key_.begin(), by_key_.end(), [keyed](std::uint32_t left, std::uint32_t right) {
    const int order = keyed[left].key_view().compare(keyed[right].key_view());
    return order != 0 ? order < 0 : left < right;
  });
}

std::size_t BlockIndex::find(std::string_view key) const {
  const std::span<Item> keyed = this->keyed();
  const auto has_key = [key](const Item& item) { return item.key_view() == key; };
  if (by_key_.empty()) {
    const auto found = std::find_if(keyed.begin(), keyed.end(), has_key);
    return found == keyed.end() ? TOLK_NOWHERE
                                : count_ + static_cast<std::size_t>(found - keyed.begin());
  }
  const std::uint32_t* const at = std::lower_bound(
      by_key_.begin(), by_key_.end(), key, [keyed](std::uint32_t left, std::string_view right) {
        return keyed[left].key_view() < right;
      });
  return at == by_key_.end() || !has_key(keyed[*at]) ? TOLK_NOWHERE : count_ + *at;
}

tolk_kind BlockIndex::kind_of_stream(const Item& item, const TypeNotes& notes) {
  const std::optional<TypeNote> note = notes.of(item.record);
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
  for (Item& item : keyed()) item.is_dropped = is_reserved_key(item.key_view());
  remove_dropped();
}

std::string_view BlockIndex::take(std::string_view key) {
  const std::size_t index = find(key);
  if (index == TOLK_NOWHERE) return {};
  Item& item = items_[index];
  const std::string_view text = item.has_bytes() ? item.bytes() : std::string_view();
  item.is_dropped = true;
  remove_dropped();
  return text;
}

}  // namespace tolk
