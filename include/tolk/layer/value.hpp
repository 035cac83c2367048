/// @file
/// Values whose types are known only at run time, and the layer's hold on the blocks under them.
///
/// Thread: values, one thread at a time. Owner: copies of a value share what it holds. Failure:
/// std::bad_alloc; Value::get throws std::bad_variant_access.
#pragma once

#include <tolk/c.h>

#include <concepts>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tolk {
inline namespace v1 {

/// Any bytes, zero bytes included.
using bytes = std::vector<std::byte>;

/// @cond internal
namespace detail {
template <class T, class... Of>
concept OneOf = (std::same_as<T, Of> || ...);

template <class T>
concept Integer = std::integral<T> && !OneOf<T, bool, char, wchar_t, char8_t, char16_t, char32_t>;

// What the C interface gives and takes by pointer, or none.
template <class T, void (*Free)(T*)>
class Held {
 public:
  Held() = default;
  explicit Held(T* owned) noexcept : held_(owned) {}
  Held(Held&& other) noexcept : held_(other.release()) {}
  Held& operator=(Held&& other) noexcept {
    std::swap(held_, other.held_);
    return *this;
  }
  ~Held() { Free(held_); }

  T* get() const noexcept { return held_; }
  T* release() noexcept { return std::exchange(held_, nullptr); }
  T** place() noexcept { return &held_; }

 private:
  T* held_ = nullptr;
};

// As each block of the C interface, it carries a lack of memory along.
using Block = Held<tolk_block, tolk_block_free>;
using CError = Held<tolk_error, tolk_error_free>;

inline Block new_block() noexcept { return Block(tolk_block_new()); }

inline const char* name_of(tolk_kind kind) noexcept {
  constexpr const char* kNames[] = {"nothing", "nothing", "bool",  "int",  "int",
                                    "double",  "string",  "bytes", "list", "map"};
  return kind <= TOLK_MAP ? kNames[kind] : "unknown";
}

// One value of a block that is read. It may be missing. `why`, if not null, receives why the value
// does not fit: a text that follows the name of the argument.
struct From {
  const tolk_block* block = nullptr;
  std::size_t index = 0;
  std::string* why = nullptr;

  tolk_kind kind() const noexcept { return tolk_block_kind(block, index); }
  bool is_nothing() const noexcept { return kind() <= TOLK_NONE; }

  // Of a text or bytes: older peers do not tell these apart.
  bool has_bytes() const noexcept { return kind() == TOLK_TEXT || kind() == TOLK_BYTES; }
  std::string_view bytes() const noexcept {
    std::size_t size = 0;
    const void* const first = tolk_block_bytes(block, index, &size);
    return {static_cast<const char*>(first), size};
  }

  // The values of a list or a map, null without. Older peers send both as bytes.
  const tolk_block* inside(tolk_kind wanted) const noexcept {
    const tolk_kind is = kind();
    return is == wanted || is == TOLK_BYTES ? tolk_block_inner(block, index) : nullptr;
  }
  From at(const tolk_block* inner, std::size_t i) const noexcept { return {inner, i, why}; }
  // Behind the last position there is nothing: the block has its keyed values there.
  static From position(const tolk_block* of, std::size_t i, std::string* why = nullptr) noexcept {
    return {of, i < tolk_block_count(of) ? i : TOLK_NOWHERE, why};
  }

  // For a value that does not fit. They return false.
  bool refuse(std::string_view text) const {
    if (why != nullptr) *why = text;
    return false;
  }
  // An element has said why.
  bool refuse_in(std::string_view place) const {
    if (why != nullptr) why->insert(0, place);
    return false;
  }
};

// The next value's key. One with a zero byte is refused like a reserved one: it would be cut.
inline void put_key(tolk_block* to, const std::string& key) noexcept {
  const bool has_zero = key.find('\0') != std::string::npos;
  tolk_block_add_key(to, has_zero ? "tolk." : key.c_str());
}

inline void put_text(tolk_block* to, std::string_view text) noexcept {
  tolk_block_add_text(to, text.data() == nullptr ? "" : text.data(), text.size());
}

// Adds a list or a map that `fill` fills.
template <class Fill>
void put_inner(tolk_block* to, tolk_kind kind, const Fill& fill) {
  const Block inner = new_block();
  fill(inner.get());
  kind == TOLK_MAP ? tolk_block_add_map(to, inner.get()) : tolk_block_add_list(to, inner.get());
}
}  // namespace detail
/// @endcond

/// One value: nothing, bool, an integer, double, string, bytes, a list or a map. A struct is a map.
class Value {
 public:
  /// The elements of a list.
  using List = std::vector<Value>;
  /// The values of a map, or the fields of a struct.
  using Map = std::map<std::string, Value>;

  /// Nothing.
  Value() = default;
  /// A bool.
  Value(bool v) { hold(v); }
  /// An integer. It is held as int if it fits, else as std::int64_t, else as std::uint64_t.
  template <detail::Integer T>
  Value(T v) {
    if (std::in_range<int>(v)) {
      hold(static_cast<int>(v));
    } else if (std::in_range<std::int64_t>(v)) {
      hold(static_cast<std::int64_t>(v));
    } else {
      hold(static_cast<std::uint64_t>(v));
    }
  }
  /// A double.
  Value(double v) { hold(v); }
  /// A string.
  Value(const char* v) : Value(std::string(v)) {}
  /// A std::string, bytes, a list or a map.
  template <detail::OneOf<std::string, bytes, List, Map> T>
  Value(T v) : held_as_(kOf<T>), shared_(new T(std::move(v)), drop<T>) {}

  /// Whether the value is nothing.
  bool is_none() const noexcept { return held_as_ == 0; }
  /// Whether the value is held as a `T`: bool, int, std::int64_t, std::uint64_t, double,
  /// std::string, bytes, List or Map.
  template <class T>
  bool is() const noexcept {
    return held_as_ == kOf<T>;
  }
  /// Returns the value that is held as a `T`. Throws std::bad_variant_access for another type.
  template <class T>
  const T& get() const {
    if (const T* const held = get_if<T>()) return *held;
    throw std::bad_variant_access();
  }
  /// Returns a pointer to the value that is held as a `T`, or null.
  template <class T>
  const T* get_if() const noexcept {
    if (!is<T>()) return nullptr;
    const void* const held = std::is_arithmetic_v<T> ? scalar_ : shared_.get();
    return static_cast<const T*>(held);
  }
  /// Returns the value as any type that travels, such as a struct, or nothing if it does not fit.
  template <class T>
  std::optional<T> to() const;

  /// Whether both values have the same type and are equal.
  bool operator==(const Value& other) const {
    bool is_same = held_as_ == other.held_as_;
    visit([&]<class T>(const T& held) { is_same = is_same && held == other.get<T>(); });
    return is_same;
  }

  /// The name of the type: `"int"`, `"list"`, `"nothing"`.
  const char* type_name() const noexcept {
    return detail::name_of(static_cast<tolk_kind>(held_as_ < 3 ? held_as_ + 1 : held_as_));
  }

  /// @cond internal
  static Value of(detail::From from) {
    const auto [block, index, why] = from;
    switch (from.kind()) {
      case TOLK_BOOL:
        return tolk_block_bool(block, index);
      case TOLK_INT:
        return tolk_block_int(block, index);
      case TOLK_UINT:
        return tolk_block_uint(block, index);
      case TOLK_DOUBLE:
        return tolk_block_double(block, index);
      case TOLK_TEXT:
        return std::string(from.bytes());
      case TOLK_BYTES: {
        const auto* const first = reinterpret_cast<const std::byte*>(from.bytes().data());
        return bytes(first, first + from.bytes().size());
      }
      case TOLK_LIST:
        return list_of(tolk_block_inner(block, index));
      case TOLK_MAP:
        return map_of(tolk_block_inner(block, index));
      default:
        return {};
    }
  }
  static List list_of(const tolk_block* block) {
    List list(tolk_block_count(block));
    for (std::size_t i = 0; i < list.size(); ++i) list[i] = of({block, i});
    return list;
  }
  static Map map_of(const tolk_block* block) {
    Map map;
    const std::size_t total = tolk_block_total(block);
    for (std::size_t i = tolk_block_count(block); i < total; ++i) {
      const std::string key = tolk_block_key(block, i);
      map[key] = of({block, i});
    }
    return map;
  }

  void put(tolk_block* to) const;
  /// @endcond

 private:
  // A std::variant of all of them costs each file that includes this a fifth of a second.
  template <class T, class... Of>
  static constexpr unsigned index_in() {
    unsigned index = 0;
    (void)((++index, std::same_as<T, Of>) || ...);
    return index;
  }
  template <class T>
  static constexpr unsigned kOf =
      index_in<T, bool, int, std::int64_t, std::uint64_t, double, std::string, bytes, List, Map>();

  template <class T>
  static void drop(const void* held) {
    delete static_cast<const T*>(held);
  }
  template <class T>
  void hold(T v) {
    held_as_ = kOf<T>;
    std::construct_at(reinterpret_cast<T*>(scalar_), v);
  }
  // Nothing is not visited.
  template <class Visit>
  void visit(const Visit& to) const {
    visit_as<bool, int, std::int64_t, std::uint64_t, double, std::string, bytes, List, Map>(to);
  }
  template <class... Of, class Visit>
  void visit_as(const Visit& to) const {
    (void)((is<Of>() && (to(get<Of>()), true)) || ...);
  }

  unsigned held_as_ = 0;
  alignas(8) std::byte scalar_[8] = {};
  std::shared_ptr<const void> shared_;
};

/// The arguments or the results of a call, of any types: positional values and keyed values.
///
/// It can be an argument (its values are inserted among the other arguments), the result type of a
/// call, the return type of a handler, and the only positional parameter of a handler.
class Values {
 public:
  /// Adds a positional value.
  Values& add(Value value) {
    positional_.push_back(std::move(value));
    return *this;
  }
  /// Sets the value of a key, and replaces an earlier one. A call with a key that begins with
  /// `s_c_` or `tolk.` fails, because the library reserves these.
  Values& add(const std::string& key, Value value) {
    keyed_[key] = std::move(value);
    return *this;
  }

  /// The positional values, in order.
  const Value::List& positional() const noexcept { return positional_; }
  /// The keyed values.
  const Value::Map& keyed() const noexcept { return keyed_; }
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

  /// Parses a complete block, such as the bytes of a struct from an older peer.
  static std::optional<Values> parse(std::string_view text) {
    detail::Block block;
    tolk_block_parse(text.data(), text.size(), block.place(), nullptr, nullptr);
    if (block.get() == nullptr) return std::nullopt;
    return of(block.get());
  }

  /// @cond internal
  // `before`: a block whose values come first.
  static Values of(const tolk_block* block, const tolk_block* before = nullptr) {
    Values values;
    values.positional_ = Value::list_of(before);
    for (Value& value : Value::list_of(block)) values.add(std::move(value));
    values.keyed_ = Value::map_of(block);
    return values;
  }
  /// @endcond

 private:
  static const Value& nothing() noexcept {
    static const Value none;
    return none;
  }

  Value::List positional_;
  Value::Map keyed_;
};

}  // namespace v1
}  // namespace tolk
