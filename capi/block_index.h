// Where the values of a block lie: its index, made in one pass over the records.
//
// Texts have no zero byte behind them in a block: short ones are copied when the index is made,
// others when somebody asks for them. Inner blocks are made then, too, and live as long as the
// index of the outermost block, which frees them one by one: a peer decides how deep they are.
//
// Thread: any; what is made late is published once. Owner: counted; only outermost indexes are.
// Failure: std::bad_alloc. Malformed records end the index, see wrong_at.
#pragma once

#include <tolk/c.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "capi/type_notes.h"
#include "params/arena.h"
#include "params/record.h"
#include "params/shared_bytes.h"

namespace tolk {

// One value, or the key and value of a map.
struct Item {
  const char* at = nullptr;   // what follows the tag: a number, bytes, the first element
  const char* key = nullptr;  // null: positional. In an index it ends with a zero byte
  std::uint32_t size = 0;     // of bytes; of all elements
  std::uint32_t key_size = 0;
  std::uint32_t record = 0;  // counts the values of the block, for its notes
  Tag tag = Tag::Int;
  bool is_dropped = false;  // by a later value of the same key

  // Made late, by whoever is first.
  mutable const char* text = nullptr;
  mutable tolk_block* inner = nullptr;

  std::string_view bytes() const { return {at, size}; }
  std::string_view key_view() const { return {key, key_size}; }
  bool has_bytes() const { return tag == Tag::String || tag == Tag::Stream; }
};

inline bool is_reserved_key(std::string_view key) {
  return key.starts_with("s_c_") || key.starts_with("tolk.");
}

// Reads records that a parser has accepted, one by one: those of a list or a map.
class RecordWalk {
 public:
  explicit RecordWalk(const Item& list) : at_(list.at), end_(list.at + list.size) {}
  bool next(Item& item);

 private:
  bool next_key(Item& item);

  const char* at_;
  const char* end_;
  std::uint32_t record_ = 0;
};

class BlockIndex;

// One count of an outermost index, or none.
class IndexRef {
 public:
  IndexRef() = default;
  explicit IndexRef(BlockIndex* adopted) noexcept : index_(adopted) {}
  IndexRef(const IndexRef& other) noexcept;
  IndexRef(IndexRef&& other) noexcept : index_(other.take()) {}
  IndexRef& operator=(IndexRef other) noexcept {
    std::swap(index_, other.index_);
    return *this;
  }
  ~IndexRef();

  BlockIndex* operator->() const noexcept { return index_; }
  BlockIndex* get() const noexcept { return index_; }
  BlockIndex* take() noexcept { return std::exchange(index_, nullptr); }

 private:
  BlockIndex* index_ = nullptr;
};

class BlockIndex {
 public:
  // What a value is, with its note.
  static tolk_kind kind_of(const Item& item, const TypeNotes* notes) {
    constexpr std::array kinds{TOLK_INT,   TOLK_BOOL,    TOLK_DOUBLE, TOLK_TEXT,
                               TOLK_BYTES, TOLK_MISSING, TOLK_LIST,   TOLK_MAP};
    if (item.tag == Tag::Stream && notes != nullptr) return kind_of_stream(item, *notes);
    return kinds[static_cast<std::size_t>(item.tag)];
  }

  // Of bytes that `bytes.owner` keeps; and of bytes that are copied.
  static IndexRef of_shared(const SharedBytes& bytes);
  static IndexRef of_copy(std::string_view bytes);

  void retain() noexcept { root_->owners_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept;

  std::size_t count() const { return count_; }
  std::size_t total() const { return items_.size(); }
  const Item* at(std::size_t index) const {
    return index < items_.size() ? &items_[index] : nullptr;
  }
  std::size_t find(std::string_view key) const;
  tolk_kind kind(const Item& item) const { return kind_of(item, notes_); }
  const char* text(const Item& item) const;
  const tolk_block* inner(const Item& item) const;
  // Null if there are none.
  const TypeNotes* notes() const { return notes_; }
  const TypeNotes* notes_inside(const Item& item) const {
    return notes_ == nullptr ? nullptr : notes_->inside(item.record);
  }

  // The bytes; none for the inner block of a list or a map.
  std::string_view bytes() const { return bytes_; }
  bool has_bytes() const { return has_bytes_; }
  bool is_outermost() const { return root_ == this; }
  std::size_t wrong_at() const { return wrong_at_; }
  // There are keys that begin with "s_c_" or "tolk.".
  bool has_reserved() const { return has_reserved_; }

  // Before others see the index. A false says that the notes are more than the records can need.
  bool set_notes(std::string_view text);
  void copy_notes(const TypeNotes* notes);
  void borrow_notes(const TypeNotes& notes) { notes_ = notes.empty() ? nullptr : &notes; }
  void drop_reserved();
  // Removes a keyed value and returns its bytes.
  std::string_view take(std::string_view key);

 private:
  friend class IndexSink;

  static tolk_kind kind_of_stream(const Item& item, const TypeNotes& notes);
  BlockIndex(Arena* arena, BlockIndex* root) noexcept
      : arena_(arena), root_(root == nullptr ? this : root) {}
  ~BlockIndex() = default;
  static BlockIndex* make(ArenaRef arena, BlockIndex* root);
  std::span<Item> keyed() const { return {items_.begin() + count_, items_.size() - count_}; }
  Item& add_positional() {
    if (has_keyed_) {
      is_mixed_ = true;
    } else {
      ++count_;
    }
    return items_.add(*arena_) = Item();
  }
  Item& add_keyed(std::string_view key) {
    has_keyed_ = true;
    Item& item = items_.add(*arena_) = Item();
    item.key = key.data();
    item.key_size = static_cast<std::uint32_t>(key.size());
    return item;
  }
  void parse(std::string_view bytes);
  void read_elements(const Item& list);
  void settle();
  bool drop_replaced();
  void drop_replaced_of_many();
  void sort_keys();
  void remove_dropped();
  tolk_block* new_inner(const Item& item) const;
  void add_inner(tolk_block* block) const;
  static void delete_inner(tolk_block* block) noexcept;
  void destroy() noexcept;
  void free_memory() noexcept;

  struct LateText {
    LateText* next;
  };

  std::atomic<std::size_t> owners_ = 1;
  Arena* const arena_;  // of the items, and of this object
  BlockIndex* const root_;
  std::string_view bytes_;
  bool has_bytes_ = false;
  bool has_keyed_ = false;
  bool is_mixed_ = false;  // a positional value comes behind a keyed one
  bool has_reserved_ = false;
  std::size_t wrong_at_ = TOLK_NOWHERE;
  ArenaArray<Item> items_;            // as they came; then the positional ones first
  std::size_t count_ = 0;             // of the positional ones
  ArenaArray<std::uint32_t> by_key_;  // of many keyed values, counted from the first one
  TypeNotes own_notes_;
  const TypeNotes* notes_ = nullptr;
  mutable std::atomic<LateText*> late_texts_ = nullptr;
  mutable std::atomic<tolk_block*> inner_blocks_ = nullptr;  // of all depths, at the root
};

inline IndexRef::IndexRef(const IndexRef& other) noexcept : index_(other.index_) {
  if (index_ != nullptr) index_->retain();
}

inline IndexRef::~IndexRef() {
  if (index_ != nullptr) index_->release();
}

}  // namespace tolk
