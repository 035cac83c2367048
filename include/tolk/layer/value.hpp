/// @file
/// Values whose types are known only at run time: one Value, and the Values of a call.
///
/// Thread: values, one thread at a time. Owner: each value owns its bytes and does not point into a
/// library block. Failure: std::bad_alloc; the accessors of Value throw std::bad_variant_access.
#pragma once

#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tolk {
inline namespace v1 {

/// Any bytes, zero bytes included. They are sent as a byte stream.
using bytes = std::vector<std::byte>;

/// @cond internal
namespace detail {

inline std::string_view chars(const std::byte* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline bytes to_bytes(std::string_view text) {
  const auto* const first = reinterpret_cast<const std::byte*>(text.data());
  return {first, first + text.size()};
}

inline bool has_bytes(const TolkValue& value) { return value.IsString() || value.IsStream(); }

// The bytes of a string or a stream; valid as long as the value.
inline std::string_view bytes_of(const TolkValue& value) {
  long size = 0;
  const char* const data = value.GetStream(size);
  return {data, static_cast<std::size_t>(size)};
}

// The three places of a scalar: a position, a key, and a list element.
struct Position {
  TolkParams& block;
  void boolean(bool v) const { block.AddBool(v); }
  void integer(int v) const { block.AddInt(v); }
  void real(double v) const { block.AddDouble(v); }
  void string(const char* text, std::size_t) const { block.AddString(text); }
  void stream(std::string_view v) const { block.AddStream(v.data(), static_cast<long>(v.size())); }
};

struct Key {
  TolkParams& block;
  const char* key;
  void boolean(bool v) const { block.AddKeyValueBool(key, v); }
  void integer(int v) const { block.AddKeyValueInt(key, v); }
  void real(double v) const { block.AddKeyValueDouble(key, v); }
  void string(const char* text, std::size_t) const { block.AddKeyValueString(key, text); }
  void stream(std::string_view v) const {
    block.AddKeyValueStream(key, v.data(), static_cast<long>(v.size()));
  }
};

struct Element {
  ListParams& list;
  void boolean(bool v) const { list.AddBool(v); }
  void integer(int v) const { list.AddInt(v); }
  void real(double v) const { list.AddDouble(v); }
  void string(const char* text, std::size_t size) const {
    list.AddString(text, static_cast<long>(size));
  }
  void stream(std::string_view v) const { list.AddStream(v.data(), static_cast<long>(v.size())); }
};

// A string record ends at its first zero byte, so a string with a zero byte is sent as a stream.
template <class Place>
void put_text(const Place& place, const char* text, std::size_t size) {
  if (std::memchr(text, 0, size) == nullptr) {
    place.string(text, size);
  } else {
    place.stream({text, size});
  }
}

// Adds a list. `fill` adds its elements.
template <class Fill>
void put_list(TolkParams& block, const Fill& fill) {
  ListParams* const list = TolkParams::CreateListParams();
  try {
    fill(Element{*list});
  } catch (...) {
    TolkParams().AddList(list);  // only a block can free it
    throw;
  }
  block.AddList(list);
}

// Sends a value without a wire type as a stream that holds a block.
template <class Place, class Fill>
void put_block(const Place& place, const Fill& fill) {
  TolkParams inner;
  fill(inner);
  place.stream(*inner.GetParamas());
}

inline bool parse_block(TolkParams& block, std::string_view text) {
  return block.Parser(text.data(), static_cast<int>(text.size()));
}

// The library reserves the keys of the envelope and of this layer.
inline bool is_reserved(std::string_view name) {
  return name.starts_with("s_c_") || name.starts_with("tolk.");
}

}  // namespace detail
/// @endcond

/// One value of any type that can be sent: nothing, bool, int, double, string, bytes, or a list.
/// A received map reads as nothing.
class Value {
 public:
  /// The elements of a list. On the wire, a list inside a list is a stream that holds a block.
  using List = std::vector<Value>;

  /// Nothing.
  Value() = default;
  /// A bool.
  Value(bool v) : held_(v) {}
  /// An int.
  Value(int v) : held_(v) {}
  /// A double.
  Value(double v) : held_(v) {}
  /// A string.
  Value(std::string v) : held_(std::move(v)) {}
  /// A string.
  Value(const char* v) : held_(std::string(v)) {}
  /// Bytes.
  Value(bytes v) : held_(std::move(v)) {}
  /// A list.
  Value(List v) : held_(std::move(v)) {}

  /// Whether the value is nothing.
  bool is_none() const noexcept { return held_.index() == 0; }
  /// Whether the value is of type `T`: bool, int, double, std::string, bytes or List.
  template <class T>
  bool is() const noexcept {
    return std::holds_alternative<T>(held_);
  }
  /// Returns the value as a `T`. Throws std::bad_variant_access for another type.
  template <class T>
  const T& get() const {
    return std::get<T>(held_);
  }
  /// Returns a pointer to the value as a `T`, or null for another type.
  template <class T>
  const T* get_if() const noexcept {
    return std::get_if<T>(&held_);
  }

  /// Whether both values have the same type and are equal.
  bool operator==(const Value& other) const = default;

  /// The name of the type: `"int"`, `"list"`, `"nothing"`.
  const char* type_name() const noexcept {
    static constexpr const char* kNames[] = {"nothing", "bool",  "int", "double",
                                             "string",  "bytes", "list"};
    return kNames[held_.index()];
  }

  /// @cond internal
  static Value of(const TolkValue* from) {
    if (from == nullptr) return {};
    if (from->IsBool()) return from->GetBool();
    if (from->IsInt()) return from->GetInt();
    if (from->IsDouble()) return from->GetDouble();
    if (from->IsString()) return std::string(detail::bytes_of(*from));
    if (from->IsStream()) return detail::to_bytes(detail::bytes_of(*from));
    if (!from->IsList()) return {};
    List elements;
    for (const TolkValue* element : *from->GetList()) elements.push_back(of(element));
    return elements;
  }

  template <class Place>
  void put(const Place& place) const {
    if (const bool* v = get_if<bool>()) return place.boolean(*v);
    if (const int* v = get_if<int>()) return place.integer(*v);
    if (const double* v = get_if<double>()) return place.real(*v);
    if (const auto* v = get_if<std::string>()) {
      return detail::put_text(place, v->data(), v->size());
    }
    if (const auto* v = get_if<bytes>()) return place.stream(detail::chars(v->data(), v->size()));
    if (const List* v = get_if<List>()) put_list(place, *v);
  }
  /// @endcond

 private:
  static void put_list(const detail::Position& place, const List& list) {
    detail::put_list(place.block, [&](const detail::Element& element) {
      for (const Value& value : list) value.put(element);
    });
  }
  template <class Place>
  static void put_list(const Place& place, const List& list) {
    detail::put_block(place, [&](TolkParams& inner) {
      for (const Value& value : list) value.put(detail::Position{inner});
    });
  }

  std::variant<std::monostate, bool, int, double, std::string, bytes, List> held_;
};

/// The arguments or the results of a call, of any types: positional values and keyed values.
///
/// It can be an argument (its values are inserted among the other arguments), the result type of a
/// call, the return type of a handler, and the only positional parameter of a handler.
/// @code
/// tolk::Values arguments;
/// arguments.add(3).add("name", "x.txt");
/// tolk::Values results = client.call<tolk::Values>("anything", arguments).value();
/// @endcode
class Values {
 public:
  /// Adds a positional value. A value that is nothing is not sent, so the following values move up.
  Values& add(Value value) {
    positional_.push_back(std::move(value));
    return *this;
  }
  /// Sets the value of a key, and replaces an earlier one. The library reserves keys that begin
  /// with `s_c_` or `tolk.`; they do not arrive.
  Values& add(const std::string& key, Value value) {
    keyed_[key] = std::move(value);
    return *this;
  }

  /// The positional values, in order.
  const std::vector<Value>& positional() const noexcept { return positional_; }
  /// The keyed values.
  const std::map<std::string, Value>& keyed() const noexcept { return keyed_; }
  /// The number of positional values.
  std::size_t size() const noexcept { return positional_.size(); }
  /// A positional value, or nothing beyond the last one.
  const Value& at(std::size_t position) const noexcept {
    return position < positional_.size() ? positional_[position] : nothing();
  }
  /// The value of a key, or nothing.
  const Value& at(const std::string& key) const noexcept {
    const auto found = keyed_.find(key);
    return found == keyed_.end() ? nothing() : found->second;
  }
  /// Whether all values are equal.
  bool operator==(const Values& other) const = default;

  /// Parses a complete block, such as the stream of a struct or of an inner list.
  static std::optional<Values> parse(std::string_view text) {
    TolkParams block;
    if (!detail::parse_block(block, text)) return std::nullopt;
    return of(block);
  }

  /// @cond internal
  // `first`, if not null, replaces the first positional value.
  static Values of(TolkParams& block, const TolkValue* first = nullptr) {
    Values values;
    for (int i = 0; i < block.ParamsSize(); ++i) {
      values.add(Value::of(i == 0 && first != nullptr ? first : block.GetValue(i)));
    }
    for (const auto& [key, value] : *block.GetMapPtr()) {
      if (!detail::is_reserved(key)) values.keyed_[key] = Value::of(value);
    }
    return values;
  }

  void put(TolkParams& block) const {
    for (const Value& value : positional_) value.put(detail::Position{block});
    for (const auto& [key, value] : keyed_) value.put(detail::Key{block, key.c_str()});
  }

  // Removes the value that the library adds after the answer of a catch-all handler.
  void drop_last() { positional_.pop_back(); }
  /// @endcond

 private:
  static const Value& nothing() noexcept {
    static const Value none;
    return none;
  }

  std::vector<Value> positional_;
  std::map<std::string, Value> keyed_;
};

}  // namespace v1
}  // namespace tolk
