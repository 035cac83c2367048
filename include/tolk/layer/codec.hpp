/// @file
/// The types that travel: how each becomes a value of a block, and is read from one.
///
/// | type | travels as |
/// |---|---|
/// | bool | bool |
/// | integers of 8 to 64 bits, enumerations | int |
/// | double, float | double |
/// | std::string, std::string_view, `const char*`, paths | string |
/// | tolk::bytes, vectors and spans of bytes | bytes |
/// | std::optional | the value, or nothing |
/// | vector, list, deque, array, set, pair, tuple | list |
/// | map | map; a list of pairs if the keys are no strings |
/// | std::variant | the value |
/// | durations, times of the system clock | int: nanoseconds |
/// | structs: TOLK_FIELDS, or aggregates of up to 16 members | map |
/// | tolk::Value | itself |
/// | a type with a tolk::Converter | what that makes of it |
///
/// Thread: any. Owner: what is read is a copy, except views, which point into the arguments.
#pragma once

#include <exception>
#include <limits>
#include <span>
#include <tolk/layer/error.hpp>
#include <type_traits>

namespace tolk {
inline namespace v1 {

/// The hook for your own types. A specialisation names a type that travels, and converts to and
/// from it. `from_wire` may throw: the text tells the peer what is wrong with the value.
template <class T>
struct Converter {};

/// @cond internal
namespace detail {
// The specialisations have: `kKind`, which the value has at a reader, TOLK_MISSING for any;
// `name()`, the type's name for readers; `put`, which adds one value; `get`, false if the value
// does not fit, with the reason in From::why; some `is_absent`, for a value that need not be sent.
template <class T>
struct Codec {};

template <class T>
concept Travels = requires {
  Codec<T>::kKind;
};

template <class T>
concept Converted = requires {
  typename Converter<T>::Wire;
};

// Calls `visit<I>()` for each index. Stops when it returns false, and returns false.
template <std::size_t Count, class Visit>
bool each_index(const Visit& visit) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    return (visit.template operator()<I>() && ...);
  }
  (std::make_index_sequence<Count>());
}

// Whether T is one of a template, such as std::optional.
template <class T, template <class...> class Of>
inline constexpr bool kIs = false;
template <class... A, template <class...> class Of>
inline constexpr bool kIs<Of<A...>, Of> = true;

// The compiler's message names `Type`.
template <class Type>
constexpr bool does_travel() {
  static_assert(Travels<Type>,
                "tolk: this type does not travel (see the Type above). Types that do are listed in "
                "tolk/layer/codec.hpp. For a struct, write TOLK_FIELDS(Type, its fields); for "
                "another type, specialise tolk::Converter<Type>");
  return true;
}

template <class T>
bool is_absent([[maybe_unused]] const T& value) {
  if constexpr (requires { Codec<T>::is_absent(value); }) {
    return Codec<T>::is_absent(value);
  } else {
    return false;
  }
}

// An element of a list, where each has its place.
template <class T>
void put_element(tolk_block* to, const T& value) {
  if (is_absent(value)) return tolk_block_add_none(to);
  Codec<T>::put(to, value);
}

template <class T>
void put_keyed(tolk_block* to, const char* key, const T& value) {
  if (is_absent(value)) return;
  tolk_block_add_key(to, key);
  Codec<T>::put(to, value);
}

// Positional values. An absent one is sent only if another one follows.
class Positions {
 public:
  explicit Positions(tolk_block* to) : to_(to) {}

  template <class T>
  void add(const T& value) {
    if (is_absent(value)) {
      ++absent_;
      return;
    }
    for (; absent_ > 0; --absent_) tolk_block_add_none(to_);
    Codec<T>::put(to_, value);
  }
  tolk_block* block() const { return to_; }

 private:
  tolk_block* const to_;
  unsigned absent_ = 0;
};

template <class T>
bool refuse(From from) {
  return from.why != nullptr &&
         from.refuse(": wanted " + Codec<T>::name() + ", got " + name_of(from.kind()));
}

// What a codec has of its kind, and of another type.
template <tolk_kind Kind>
struct OfKind {
  static constexpr tolk_kind kKind = Kind;
  static std::string name() { return name_of(Kind); }
};
template <class Wire>
struct Like {
  static constexpr tolk_kind kKind = Codec<Wire>::kKind;
  static std::string name() { return Codec<Wire>::name(); }
};

template <>
struct Codec<bool> : OfKind<TOLK_BOOL> {
  static void put(tolk_block* to, bool v) { tolk_block_add_bool(to, v); }
  static bool get(From from, bool& v) {
    v = tolk_block_bool(from.block, from.index);
    return from.kind() == TOLK_BOOL || refuse<bool>(from);
  }
};

template <Integer T>
struct Codec<T> {
  static constexpr tolk_kind kKind = TOLK_INT;
  static std::string name() {
    if constexpr (sizeof(T) < 4 || (sizeof(T) == 4 && std::is_signed_v<T>)) return "int";
    return (std::is_signed_v<T> ? "int" : "uint") + std::to_string(8 * sizeof(T));
  }
  static void put(tolk_block* to, T v) {
    if constexpr (std::is_signed_v<T>) {
      tolk_block_add_int(to, v);
    } else {
      tolk_block_add_uint(to, v);
    }
  }
  static bool get(From from, T& v) {
    const tolk_kind kind = from.kind();
    if (kind == TOLK_INT) return take(tolk_block_int(from.block, from.index), from, v);
    if (kind == TOLK_UINT) return take(tolk_block_uint(from.block, from.index), from, v);
    return refuse<T>(from);
  }

 private:
  template <class Number>
  static bool take(Number number, From from, T& v) {
    v = static_cast<T>(number);
    return std::in_range<T>(number) || from.refuse(": " + std::to_string(number) + " does not fit");
  }
};

// A type that travels as another one does.
template <class T, class Wire>
struct CodecAs : Like<Wire> {
  static void put(tolk_block* to, T v) { Codec<Wire>::put(to, static_cast<Wire>(v)); }
  static bool get(From from, T& v) {
    Wire wire{};
    const bool fits = Codec<Wire>::get(from, wire);
    v = static_cast<T>(wire);
    return fits;
  }
};

template <class T>
requires(std::is_enum_v<T> && !std::same_as<T, std::byte> && !Converted<T> &&
         Integer<std::underlying_type_t<T>>) struct Codec<T>
    : CodecAs<T, std::underlying_type_t<T>> {
};

template <>
struct Codec<double> : OfKind<TOLK_DOUBLE> {
  static void put(tolk_block* to, double v) { tolk_block_add_double(to, v); }
  static bool get(From from, double& v) {
    v = tolk_block_double(from.block, from.index);
    const tolk_kind kind = from.kind();
    return kind == TOLK_DOUBLE || kind == TOLK_INT || kind == TOLK_UINT || refuse<double>(from);
  }
};

template <>
struct Codec<float> : CodecAs<float, double> {};

template <OneOf<std::string, std::string_view> T>
struct Codec<T> : OfKind<TOLK_TEXT> {
  static void put(tolk_block* to, std::string_view v) { put_text(to, v); }
  static bool get(From from, T& v) {
    if (!from.has_bytes()) return refuse<T>(from);
    v = from.bytes();
    return true;
  }
};

template <>
struct Codec<const char*> : OfKind<TOLK_TEXT> {
  static void put(tolk_block* to, const char* v) { tolk_block_add_text(to, v, TOLK_TO_ZERO); }
};

template <OneOf<std::vector<std::byte>, std::vector<unsigned char>, std::span<const std::byte>> T>
struct Codec<T> : OfKind<TOLK_BYTES> {
  static void put(tolk_block* to, const T& v) { tolk_block_add_bytes(to, v.data(), v.size()); }
  static bool get(From from, T& v) {
    if (!from.has_bytes()) return refuse<T>(from);
    const std::string_view bytes = from.bytes();
    const auto* const first = reinterpret_cast<const typename T::value_type*>(bytes.data());
    v = T(first, first + bytes.size());
    return true;
  }
};

// What is received begins as a value without contents.
template <class Type>
constexpr bool does_arrive() {
  static_assert(!Travels<Type> || std::is_default_constructible_v<Type>,
                "tolk: a type that is received needs a constructor without arguments. If it cannot "
                "have one, receive another type: tolk::Value, or a struct of its fields");
  return does_travel<Type>();
}

// As a handler's parameter these point into the arguments, which are valid until the answer.
template <class T>
concept View = OneOf < T,
        std::string_view, std::span<const std::byte>,
const char* > ;

template <class T>
constexpr bool is_owned() {
  static_assert(!View<T>,
                "tolk: what is received inside of a list, a map or a struct, or as a "
                "result, needs to be owned: std::string or tolk::bytes");
  return does_arrive<T>();
}

template <class T>
struct Codec<std::optional<T>> {
  static_assert(does_travel<T>());
  static constexpr tolk_kind kKind = TOLK_MISSING;
  static std::string name() { return Codec<T>::name() + "?"; }
  static bool is_absent(const std::optional<T>& v) { return !v || detail::is_absent(*v); }
  static void put(tolk_block* to, const std::optional<T>& v) { Codec<T>::put(to, *v); }
  static bool get(From from, std::optional<T>& v) {
    v.reset();
    return from.is_nothing() || Codec<T>::get(from, v.emplace());
  }
};

template <>
struct Codec<Value> {
  static constexpr tolk_kind kKind = TOLK_MISSING;
  static std::string name() { return "any"; }
  static bool is_absent(const Value& v) { return v.is_none(); }
  static void put(tolk_block* to, const Value& v) { v.put(to); }
  static bool get(From from, Value& v) {
    v = Value::of(from);
    return true;
  }
};

template <Converted T>
struct Codec<T> : Like<typename Converter<T>::Wire> {
  using Wire = typename Converter<T>::Wire;
  static_assert(is_owned<Wire>());
  static void put(tolk_block* to, const T& v) { put_element<Wire>(to, Converter<T>::to_wire(v)); }
  static bool get(From from, T& v) {
    Wire wire{};
    if (!Codec<Wire>::get(from, wire)) return false;
    try {
      v = Converter<T>::from_wire(std::move(wire));
      return true;
    } catch (const std::exception& wrong) {
      return from.refuse(std::string(": ") + wrong.what());
    }
  }
};
}  // namespace detail
/// @endcond

template <class T>
std::optional<T> Value::to() const {
  static_assert(detail::is_owned<T>());
  const detail::Block block = detail::new_block();
  put(block.get());
  T value{};
  if (!detail::Codec<T>::get({block.get(), 0}, value)) return std::nullopt;
  return value;
}

}  // namespace v1
}  // namespace tolk
