// The library's own access to TolkValue: counted elements, and bytes without a type mistake.
//
// Thread: any thread may count; all else as TolkValue.
// Owner: every list, map and block that holds an element has one count of it, and the last one to
// release its count deletes the element. A value that is not an element (on a host's stack) has
// count 0.
// Failure: `adopt`, `put` and `put_and_drop` may throw std::bad_alloc and then change nothing.
#pragma once

#include <tolk/TolkValue.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct TolkValueAccess {
  using List = std::vector<TolkValue*>;

  static TolkValue::Type type(const TolkValue& value) { return value.type_; }

  // The bytes of a String or Stream; empty for every other type.
  static std::string_view bytes(const TolkValue& value) {
    const std::string* const text = owned_bytes(value);
    return text == nullptr ? std::string_view() : std::string_view(*text);
  }

  static List& list(TolkValue& value) { return value.list_; }
  static std::map<std::string, TolkValue*>& map(TolkValue& value) { return value.map_; }

  static std::uint32_t owners(TolkValue& value) {
    return std::atomic_ref(value.owners_).load(std::memory_order_relaxed);
  }

  static void retain(TolkValue& value) noexcept {
    std::atomic_ref(value.owners_).fetch_add(1, std::memory_order_relaxed);
  }

  static void release(TolkValue* value) noexcept {
    if (std::atomic_ref(value->owners_).fetch_sub(1, std::memory_order_acq_rel) == 1) delete value;
  }

  static void retain_all(const List& values) noexcept {
    for (TolkValue* value : values) retain(*value);
  }

  // Empties `values`.
  static void release_all(List& values) noexcept {
    for (TolkValue* value : values) release(value);
    values.clear();
  }

  template <class Map>
  static void retain_all_of(const Map& entries) noexcept {
    for (const auto& [key, value] : entries) retain(*value);
  }

  // Empties `entries`.
  template <class Map>
  static void release_all_of(Map& entries) noexcept {
    for (const auto& [key, value] : entries) release(value);
    entries.clear();
  }

  // Appends a new value, which is counted from then on.
  static void adopt(List& values, std::unique_ptr<TolkValue> value) {
    values.push_back(value.get());
    retain(*value.release());
  }

  // Sets an entry to a new value and releases the earlier one.
  template <class Map>
  static void put(Map& entries, std::string_view key, std::unique_ptr<TolkValue> value) {
    TolkValue* const earlier = exchange(entries, key, std::move(value));
    if (earlier != nullptr) release(earlier);
  }

  // Sets an entry to a new value. The earlier one is not deleted, though nobody else may hold it.
  template <class Map>
  static void put_and_drop(Map& entries, std::string_view key, std::unique_ptr<TolkValue> value) {
    TolkValue* const earlier = exchange(entries, key, std::move(value));
    if (earlier != nullptr) release_unless_last(*earlier);
  }

 private:
  // What other maps share lives on until the last of them releases it.
  static void release_unless_last(TolkValue& value) noexcept {
    const std::atomic_ref owners(value.owners_);
    std::uint32_t count = owners.load(std::memory_order_relaxed);
    while (count > 1 &&
           !owners.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) {
    }
  }

  template <class Map>
  static TolkValue* exchange(Map& entries, std::string_view key, std::unique_ptr<TolkValue> value) {
    TolkValue*& entry = entries.try_emplace(std::string(key)).first->second;
    retain(*value);
    return std::exchange(entry, value.release());
  }

  static const std::string* owned_bytes(const TolkValue& value) {
    const bool has_bytes = value.type_ == TolkValue::String || value.type_ == TolkValue::Stream;
    return has_bytes ? value.value_.bytes : nullptr;
  }
};
