// The library's own access to TolkValue: counted elements, and bytes without a type mistake.
//
// Thread: any thread may count; all else as TolkValue.
// Owner: every list, map and block that holds an element has one count of it, and the last one to
// release its count deletes the element. A value that is not an element (on a host's stack) has
// count 0. A value that lies in an arena has a count of the arena.
// Failure: `adopt`, `put` and `put_and_drop` may throw std::bad_alloc and then change nothing.
#pragma once

#include <tolk/TolkValue.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "params/arena.h"

struct TolkValueAccess {
  using List = std::vector<TolkValue*>;
  using Map = std::map<std::string, TolkValue*>;

  struct Release {
    void operator()(TolkValue* value) const noexcept { release(value); }
  };
  // A count of a value that nothing else holds yet.
  using NewValue = std::unique_ptr<TolkValue, Release>;

  static TolkValue::Type type(const TolkValue& value) { return value.type_; }

  // The bytes of a String or Stream; empty for every other type.
  static std::string_view bytes(const TolkValue& value) {
    return has_text(value) ? std::string_view(value.value_.text, value.text_size_)
                           : std::string_view();
  }

  static bool has_text(const TolkValue& value) {
    const bool may_have = value.type_ == TolkValue::String || value.type_ == TolkValue::Stream;
    return may_have && value.value_.text != nullptr;
  }

  static List& list(TolkValue& value) { return value.list_; }
  static Map& map(TolkValue& value) {
    if (value.map_ == nullptr) value.map_ = new Map;
    return *value.map_;
  }

  // Makes a value with one count in memory that was allocated in `home`.
  static TolkValue* make(void* memory, tolk::Arena& home) noexcept {
    home.retain_alone();
    return new (memory) TolkValue(&home);
  }

  static void set(TolkValue& value, bool v) noexcept {
    value.type_ = TolkValue::Bool;
    value.value_.boolean = v;
  }
  static void set(TolkValue& value, std::int32_t v) noexcept {
    value.type_ = TolkValue::Int;
    value.value_.integer = v;
  }
  static void set(TolkValue& value, double v) noexcept {
    value.type_ = TolkValue::Double;
    value.value_.real = v;
  }
  static void set_type(TolkValue& value, TolkValue::Type type) noexcept { value.type_ = type; }
  // `text` lies in the value's arena and ends with a zero.
  static void set(TolkValue& value, TolkValue::Type type, std::string_view text) noexcept {
    value.type_ = type;
    value.value_.text = text.data();
    value.text_size_ = text.size();
  }

  static std::uint32_t owners(TolkValue& value) {
    return std::atomic_ref(value.owners_).load(std::memory_order_relaxed);
  }

  static void retain(TolkValue& value) noexcept {
    std::atomic_ref(value.owners_).fetch_add(1, std::memory_order_relaxed);
  }

  static void release(TolkValue* value) noexcept {
    if (!give_up(*value)) return;
    tolk::Arena* const home = value->home_;
    if (home == nullptr) {
      delete value;
    } else {
      end(*value);
      home->release();
    }
  }

  // Releases values most of which lie in `home`, which the caller holds: counted there at once.
  class ReleaseIn {
   public:
    explicit ReleaseIn(tolk::Arena& home) : home_(home) {}
    void operator()(TolkValue* value) noexcept {
      if (value->home_ != &home_) {
        release(value);
      } else if (give_up(*value)) {
        end(*value);
        ++ended_;
      }
    }
    void finish() noexcept {
      if (ended_ > 0) home_.release(std::exchange(ended_, 0));
    }

   private:
    tolk::Arena& home_;
    std::size_t ended_ = 0;
  };

  template <class Values>
  static void retain_all(const Values& values) noexcept {
    for (TolkValue* value : values) retain(*value);
  }

  // Empties `values`.
  static void release_all(List& values) noexcept {
    for (TolkValue* value : values) release(value);
    values.clear();
  }

  static void retain_all_of(const Map& entries) noexcept {
    for (const auto& [key, value] : entries) retain(*value);
  }

  // Empties `entries`.
  static void release_all_of(Map& entries) noexcept {
    for (const auto& [key, value] : entries) release(value);
    entries.clear();
  }

  // Appends a new value, which is counted from then on.
  static void adopt(List& values, std::unique_ptr<TolkValue> value) {
    values.push_back(value.get());
    retain(*value.release());
  }

  // Sets an entry to a new value. The earlier one is not deleted, though nobody else may hold it.
  static void put_and_drop(Map& entries, std::string_view key, std::unique_ptr<TolkValue> value) {
    TolkValue*& entry = entries.try_emplace(std::string(key)).first->second;
    retain(*value);
    TolkValue* const earlier = std::exchange(entry, value.release());
    if (earlier != nullptr) release_unless_last(*earlier);
  }

 private:
  // True for the last count. Nobody else can count a value that one holder has.
  static bool give_up(TolkValue& value) noexcept {
    const std::atomic_ref owners(value.owners_);
    return owners.load(std::memory_order_acquire) == 1 ||
           owners.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }

  // Most values in an arena have nothing of their own to free.
  static void end(TolkValue& value) noexcept {
    const bool plain = !value.owns_text_ && value.list_.capacity() == 0 && value.map_ == nullptr;
    if (!plain) value.~TolkValue();
  }

  // What other maps share lives on until the last of them releases it.
  static void release_unless_last(TolkValue& value) noexcept {
    const std::atomic_ref owners(value.owners_);
    std::uint32_t count = owners.load(std::memory_order_relaxed);
    while (count > 1 &&
           !owners.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) {
    }
  }
};
