#include "params/content.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "params/argument.h"
#include "params/parser.h"
#include "params/value_access.h"

namespace {

using Access = TolkValueAccess;
using Content = TolkParamsAccess::Content;
using tolk::Arena;
using tolk::ArenaRef;
using tolk::SharedBytes;

// Room for the values of most small blocks, and for the first values of others.
std::size_t room_for(std::size_t encoded_bytes) {
  const std::size_t values = std::min<std::size_t>(encoded_bytes / 24 + 1, 64);
  return values * (sizeof(TolkValue) + sizeof(Content::Keyed));
}

// The sink of the parser that fills a content with values.
class Filler {
 public:
  explicit Filler(Content& content) : content_(content), arena_(*content.home) {}

  void positional(const tolk::Scalar& scalar) {
    add_scalar(scalar, [this](TolkValue* value) { content_.values.push_back(arena_, value); });
  }

  // The keyed values are a log until the end of the parse: what was put last under a key counts.
  // An entry without a value drops the key.
  void erase_key(std::string_view cut_key) {
    if (!content_.keyed.empty()) content_.keyed.push_back(arena_, {cut_key, nullptr});
  }

  void keyed(std::string_view key, const tolk::Scalar& scalar) {
    add_scalar(scalar, [&](TolkValue* value) { put(key, value); });
    end_text(key);
  }

  void begin_list() { open_ = new_value(TolkValue::List); }
  void list_element(const tolk::Scalar& scalar) {
    add_scalar(scalar, [this](TolkValue* value) { Access::list(*open_).push_back(value); });
  }
  void end_list() { adopt_open(); }

  void begin_map() { open_ = new_value(TolkValue::Map); }
  void map_entry(std::string_view cut_key, const tolk::Scalar& scalar) {
    add_scalar(scalar, [&](TolkValue* value) {
      TolkValue*& entry = Access::map(*open_).try_emplace(std::string(cut_key)).first->second;
      if (entry != nullptr) Access::release(entry);
      entry = value;
    });
  }
  void end_map() { adopt_open(); }

  // `until`: where the parse has stopped.
  void finish(std::uint64_t until) noexcept {
    if (has_text_ends_) arena_.set_text_ends(until);
    settle_keys();
  }

 private:
  using NewValue = TolkValueAccess::NewValue;

  // Makes a value. `place` stores its address, and is the last step that may throw.
  template <class Place>
  void add_scalar(const tolk::Scalar& scalar, Place place) {
    void* const memory = arena_.allocate(sizeof(TolkValue));
    const bool is_text = scalar.has_bytes();
    const bool stays = is_text && stays_where_it_is(scalar);
    const std::string_view text = is_text && !stays ? copied_text(scalar) : scalar.bytes;
    place(static_cast<TolkValue*>(memory));
    TolkValue& value = *Access::make(memory, arena_);
    if (is_text) {
      Access::set(value, scalar.type, text);
      if (stays) end_text(text);
    } else {
      set_number(value, scalar);
    }
  }

  static void set_number(TolkValue& value, const tolk::Scalar& scalar) noexcept {
    if (scalar.type == TolkValue::Int) Access::set(value, scalar.integer);
    if (scalar.type == TolkValue::Bool) Access::set(value, scalar.boolean);
    if (scalar.type == TolkValue::Double) Access::set(value, scalar.real);
  }

  // A text needs a zero behind it, which can take the place of a check word alone. A length that a
  // long cannot hold counts as 0.
  static bool stays_where_it_is(const tolk::Scalar& scalar) noexcept {
    return scalar.checked && static_cast<long>(scalar.bytes.size()) >= 0;
  }

  std::string_view copied_text(const tolk::Scalar& scalar) {
    const std::string_view text =
        tolk::bytes_of(scalar.bytes.data(), static_cast<long>(scalar.bytes.size()));
    return {arena_.copy_text(text), text.size()};
  }

  void end_text(std::string_view text) noexcept {
    Arena::end_text(text);
    has_text_ends_ = true;
  }

  void put(std::string_view key, TolkValue* value) {
    auto& log = content_.keyed;
    const bool has_dropped_it = !log.empty() && log.back().value == nullptr &&
                                log.back().key.data() == key.data() &&
                                log.back().key.size() == key.size();
    if (has_dropped_it) log.pop_back();
    log.push_back(arena_, {key, value});
  }

  NewValue new_value(TolkValue::Type type) {
    NewValue value(Access::make(arena_.allocate(sizeof(TolkValue)), arena_));
    Access::set_type(*value, type);
    return value;
  }

  void adopt_open() {
    content_.values.push_back(arena_, open_.get());
    static_cast<void>(open_.release());
  }

  // Keys lie in the bytes, so that the later one of two equal keys has the higher address.
  static bool is_before(const Content::Keyed& left, const Content::Keyed& right) noexcept {
    const int order = left.key.compare(right.key);
    return order != 0 ? order < 0 : left.key.data() < right.key.data();
  }

  // Each entry has a value and a key of its own, and they are in order: nothing is left to settle.
  bool keys_are_settled() const noexcept {
    const auto& log = content_.keyed;
    for (std::size_t i = 0; i < log.size(); ++i) {
      if (log[i].value == nullptr) return false;
      if (i > 0 && log[i - 1].key >= log[i].key) return false;
    }
    return true;
  }

  void settle_keys() noexcept {
    if (keys_are_settled()) return;
    const auto& log = content_.keyed;
    std::sort(log.begin(), log.end(), is_before);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < log.size(); ++i) {
      const Content::Keyed entry = log[i];
      if (entry.value == nullptr) continue;
      const bool counts = i + 1 == log.size() || log[i + 1].key != entry.key;
      if (counts) {
        log[kept++] = entry;
      } else {
        Access::release(entry.value);
      }
    }
    content_.keyed.cut(kept);
  }

  Content& content_;
  Arena& arena_;
  bool has_text_ends_ = false;
  NewValue open_;  // the list or map that the parser is inside
};

// Fills the content from its arena.
bool fill(Content& content) {
  Filler filler(content);
  tolk::RecordParser<Filler> parser(content.home->bytes(), filler);
  struct AtEnd {
    ~AtEnd() { filler.finish(parser.offset()); }
    Filler& filler;
    const tolk::RecordParser<Filler>& parser;
  };
  const AtEnd at_end{filler, parser};
  return parser.run();
}

SharedBytes held(ArenaRef arena) {
  const std::string_view bytes = arena->bytes();
  return {std::shared_ptr<const void>(arena.take(), [](Arena* ended) { ended->release(); }), bytes};
}

// The mark of a used content is a bit of the pointer itself. So reading the pointer and marking it
// is one step, and no refresh can come between, even if several threads read.
constexpr std::uintptr_t touched_bit = 1;
static_assert(alignof(Content) > touched_bit);

std::uintptr_t number_of(Content* content) { return reinterpret_cast<std::uintptr_t>(content); }
bool is_touched(Content* content) { return (number_of(content) & touched_bit) != 0; }

Content* with_mark(Content* content) {
  return reinterpret_cast<Content*>(number_of(content) | touched_bit);
}

Content* address_of(Content* content) {
  return reinterpret_cast<Content*>(number_of(content) & ~touched_bit);
}

}  // namespace

TolkParams::Content::Content(const Content& other) : buffer(other.buffer), place(other.place) {
  if (!other.home) return;
  home = ArenaRef(Arena::with_copy({}, 0));
  values.reserve(*home, other.values.size());
  keyed.reserve(*home, other.keyed.size());
  for (const Keyed& entry : other.keyed) {
    keyed.push_back(*home, {{home->copy_text(entry.key), entry.key.size()}, entry.value});
  }
  for (TolkValue* value : other.values) values.push_back(*home, value);
  Access::retain_all(values);
  for (const Keyed& entry : keyed) Access::retain(*entry.value);
}

bool TolkParams::Content::parse(std::string&& bytes) {
  if (given) {
    ArenaRef arena(Arena::with_copy(bytes, room_for(bytes.size())));
    return parse_in(std::move(arena), std::move(bytes));
  }
  return parse_in(ArenaRef(Arena::with_string(std::move(bytes), room_for(bytes.size()))), {});
}

bool TolkParams::Content::parse(const SharedBytes& bytes) {
  ArenaRef arena(Arena::with_shared(bytes, room_for(bytes.view.size())));
  return parse_in(std::move(arena), given ? std::string(bytes.view) : std::string());
}

bool TolkParams::Content::parse_copy(std::string_view bytes) {
  ArenaRef arena(Arena::with_copy(bytes, room_for(bytes.size())));
  return parse_in(std::move(arena), given ? std::string(bytes) : std::string());
}

bool TolkParams::Content::parse_own_bytes() {
  std::string& bytes = own_bytes();
  if (!given) return parse(std::move(bytes));
  drop_values();
  home = ArenaRef(Arena::with_copy(bytes, room_for(bytes.size())));
  return fill(*this);
}

// Puts the bytes of `arena` into the block. A host who can look at `buffer` sees `encoded` there.
bool TolkParams::Content::parse_in(ArenaRef arena, std::string encoded) {
  drop_values();
  buffer.swap(encoded);
  place = given ? ArenaRef() : arena;
  home = std::move(arena);
  return fill(*this);
}

void TolkParams::Content::clear() {
  std::string().swap(buffer);
  place = ArenaRef();
  drop_values();
}

void TolkParams::Content::drop_values() noexcept {
  view.clear();  // first: its keys point into the arena
  if (!home) return;
  Access::ReleaseIn release(*home);
  for (TolkValue* value : values) release(value);
  for (const Keyed& entry : keyed) release(entry.value);
  release.finish();
  values = {};
  keyed = {};
  home = ArenaRef();
}

TolkValue* TolkParams::Content::find(std::string_view key) const {
  const auto is_before = [](const Keyed& entry, std::string_view text) { return entry.key < text; };
  const Keyed* const entry = std::lower_bound(keyed.begin(), keyed.end(), key, is_before);
  return entry != keyed.end() && entry->key == key ? entry->value : nullptr;
}

std::map<const char*, TolkValue*>& TolkParams::Content::keyed_view() {
  // On purpose: a view that has entries is never updated. Only the next parse empties it.
  if (view.empty()) {
    std::map<const char*, TolkValue*> filled;
    for (const Keyed& entry : keyed) filled.emplace(entry.key.data(), entry.value);
    view.swap(filled);
  }
  return view;
}

std::string& TolkParams::Content::bring_home() {
  buffer = place->has_one_holder() ? place->take_encoded() : place->encoded();
  place = ArenaRef();
  return buffer;
}

SharedBytes TolkParams::Content::share() {
  const std::lock_guard<std::mutex> lock(senders);
  if (given) return held(ArenaRef(Arena::with_copy(buffer, 0)));
  if (!place) {
    place = ArenaRef(Arena::with_string(std::move(buffer), 0));
  } else if (place->has_text_ends()) {
    place = ArenaRef(Arena::with_string(place->encoded(), 0));
  }
  return held(place);
}

std::string TolkParams::Content::take() {
  if (owners != 1) return place ? place->encoded() : buffer;
  if (place) drop_values();  // they may be the only other holder of the bytes
  return std::move(own_bytes());
}

TolkParamsAccess::Content& TolkParamsAccess::refreshable_content(const TolkParams& block) noexcept {
  const std::atomic_ref<Content*> pointer(block.content_);
  Content* seen = pointer.load(std::memory_order_acquire);
  while (!is_touched(seen)) {
    if (pointer.compare_exchange_weak(seen, with_mark(seen), std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
      break;
    }
  }
  return *address_of(seen);
}

std::string TolkParamsAccess::take_bytes(TolkParams& block) { return content(block).take(); }

TolkParamsAccess::ContentRef TolkParamsAccess::parsed(std::string_view bytes) {
  ContentRef fresh(new Content);
  fresh.get()->parse_copy(bytes);
  return fresh;
}

TolkParamsAccess::ContentRef TolkParamsAccess::parsed_shared(const SharedBytes& bytes) {
  ContentRef fresh(new Content);
  fresh.get()->parse(bytes);
  return fresh;
}

TolkParamsAccess::ContentRef TolkParamsAccess::exchange(TolkParams& block, ContentRef fresh,
                                                        bool* touched) noexcept {
  const std::atomic_ref<Content*> pointer(block.content_);
  Content* const old = pointer.exchange(fresh.take(), std::memory_order_acq_rel);
  // A block that is not refreshable has no mark, so its content counts as used.
  *touched = is_touched(old) || !block.refreshable_;
  return ContentRef(address_of(old));
}

void TolkParamsAccess::replace(TolkParams& block, Content* content) noexcept {
  bool ignored = false;
  exchange(block, ContentRef(content), &ignored);
}
