#include "params/content.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "params/parser.h"
#include "params/value_access.h"

namespace {

using Access = TolkValueAccess;
using Content = TolkParamsAccess::Content;

std::unique_ptr<TolkValue> make_value(const tolk::Scalar& scalar) {
  switch (scalar.type) {
    case TolkValue::Bool:
      return std::make_unique<TolkValue>(scalar.boolean);
    case TolkValue::Int:
      return std::make_unique<TolkValue>(scalar.integer);
    case TolkValue::Double:
      return std::make_unique<TolkValue>(scalar.real);
    default:
      return std::make_unique<TolkValue>(scalar.bytes.data(),
                                         static_cast<long>(scalar.bytes.size()), scalar.type);
  }
}

// The sink of the parser that fills a content with values.
class Filler {
 public:
  explicit Filler(Content& content) : content_(content) {}

  void positional(const tolk::Scalar& scalar) {
    Access::adopt(content_.values, make_value(scalar));
  }

  void erase_key(std::string_view cut_key) {
    const auto entry = content_.keyed.find(cut_key);
    if (entry == content_.keyed.end()) return;
    TolkValue* const value = entry->second;
    content_.keyed.erase(entry);
    Access::release(value);
  }

  void keyed(std::string_view key, const tolk::Scalar& scalar) {
    Access::put(content_.keyed, key, make_value(scalar));
  }

  void begin_list() { open_ = std::make_unique<TolkValue>(TolkValue::List); }
  void list_element(const tolk::Scalar& scalar) {
    Access::adopt(Access::list(*open_), make_value(scalar));
  }
  void end_list() { Access::adopt(content_.values, std::move(open_)); }

  void begin_map() { open_ = std::make_unique<TolkValue>(TolkValue::Map); }
  void map_entry(std::string_view cut_key, const tolk::Scalar& scalar) {
    Access::put(Access::map(*open_), cut_key, make_value(scalar));
  }
  void end_map() { Access::adopt(content_.values, std::move(open_)); }

 private:
  Content& content_;
  std::unique_ptr<TolkValue> open_;  // the list or map that the parser is inside
};

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

TolkParams::Content::Content(const Content& other)
    : buffer(other.buffer), values(other.values), keyed(other.keyed) {
  Access::retain_all(values);
  Access::retain_all_of(keyed);
}

bool TolkParams::Content::parse(std::string&& bytes) {
  drop_values();
  buffer = std::move(bytes);
  Filler filler(*this);
  return tolk::parse_records(buffer, filler);
}

bool TolkParams::Content::parse_own_bytes() {
  drop_values();
  Filler filler(*this);
  return tolk::parse_records(buffer, filler);
}

void TolkParams::Content::clear() {
  std::string().swap(buffer);
  drop_values();
}

void TolkParams::Content::drop_values() noexcept {
  view.clear();  // first: its keys point into the nodes of `keyed`
  Access::release_all(values);
  std::vector<TolkValue*>().swap(values);
  Access::release_all_of(keyed);
}

std::map<const char*, TolkValue*>& TolkParams::Content::keyed_view() {
  // On purpose: a view that has entries is never updated. Only the next parse empties it.
  if (view.empty()) {
    std::map<const char*, TolkValue*> filled;
    for (const auto& [key, value] : keyed) filled.emplace(key.c_str(), value);
    view.swap(filled);
  }
  return view;
}

TolkParamsAccess::Content& TolkParamsAccess::content(const TolkParams& block) noexcept {
  if (!block.refreshable_) return *block.content_;
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

std::string TolkParamsAccess::take_bytes(TolkParams& block) {
  Content& held = content(block);
  return held.owners == 1 ? std::move(held.buffer) : held.buffer;
}

tolk::SharedBytes TolkParamsAccess::share_bytes(const TolkParams& block) {
  const auto copy = std::make_shared<const std::string>(bytes(block));
  return {copy, *copy};
}

bool TolkParamsAccess::parse_shared(TolkParams& block, const tolk::SharedBytes& bytes) {
  return parse_owned(block, std::string(bytes.view));
}

TolkParamsAccess::ContentRef TolkParamsAccess::parsed(std::string_view bytes) {
  ContentRef fresh(new Content);
  fresh.get()->parse(std::string(bytes));
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
