/// @file
/// The C++ types that can be sent, and their types on the wire.
///
/// | C++ | on the wire |
/// |---|---|
/// | bool | bool |
/// | int and smaller integers, enumerations | int; a value that does not fit is a wrong type |
/// | double, float | double; an int is accepted as a double |
/// | std::string, std::string_view | string; with a zero byte inside, a stream |
/// | const char* | string; send only, a handler takes std::string |
/// | tolk::bytes, std::vector<unsigned char>, std::span<const std::byte> | stream |
/// | std::vector<T> | list; under a key, in a struct or a list: a stream that holds a block |
/// | std::optional<T> | the value, or nothing |
/// | tolk::Value, tolk::Values | the contained values |
/// | a struct with a tolk::describe | a stream that holds a block of keyed values |
///
/// A string is accepted as a stream, and a stream as a string. Wider integers do not compile,
/// because the wire has only 32-bit integers. Failure: `get` returns false for a value of another
/// type.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <limits>
#include <span>
#include <tolk/layer/value.hpp>
#include <tuple>
#include <type_traits>

namespace tolk {
inline namespace v1 {

/// @cond internal
namespace detail {

struct Undescribed {};

template <class Struct, class Member>
struct Field {
  const char* name;
  Member Struct::*member;
};

template <class... Fields>
struct FieldList {
  std::tuple<Fields...> all;
};

constexpr FieldList<> make_fields() { return {}; }

template <class Struct, class Member, class... More>
constexpr auto make_fields(const char* name, Member Struct::*member, More... more) {
  const auto rest = make_fields(more...);
  const auto first = std::make_tuple(Field<Struct, Member>{name, member});
  const auto all = std::tuple_cat(first, rest.all);
  return std::apply([](auto... field) { return FieldList<decltype(field)...>{{field...}}; }, all);
}

}  // namespace detail
/// @endcond

/// Lists the fields of a struct, as pairs of a name and a pointer to the member. See
/// tolk::describe.
template <class... NamesAndMembers>
constexpr auto fields(NamesAndMembers... names_and_members) {
  static_assert(sizeof...(names_and_members) % 2 == 0,
                "tolk::fields takes pairs: a name and a pointer to the member");
  return detail::make_fields(names_and_members...);
}

/// The fields of a struct. A specialisation lets the struct be an argument, a result, a field of
/// another struct and an element of a list. The struct must be default-constructible.
/// @code
/// struct Point { int x = 0; int y = 0; };
/// template <>
/// inline constexpr auto tolk::describe<Point> = tolk::fields("x", &Point::x, "y", &Point::y);
/// @endcode
template <class T>
inline constexpr auto describe = detail::Undescribed{};

/// @cond internal
namespace detail {

template <class T>
struct Codec;  // defined for every type that can be sent

template <class T>
concept Described = !std::same_as<std::remove_cvref_t<decltype(describe<T>)>, Undescribed>;

template <class T>
concept Carried = requires {
  Codec<T>::name();
};

template <class T>
concept Character = std::same_as<T, char> || std::same_as<T, wchar_t> || std::same_as<T, char8_t> ||
    std::same_as<T, char16_t> || std::same_as<T, char32_t>;

template <class T>
concept Integer = std::integral<T> && !std::same_as<T, bool> && !Character<T>;

template <class T>
concept NarrowInteger = Integer<T> &&(sizeof(T) < sizeof(std::int32_t) ||
                                      (sizeof(T) == sizeof(std::int32_t) && std::is_signed_v<T>));

template <class T>
concept NarrowEnum =
    std::is_enum_v<T> && NarrowInteger<std::underlying_type_t<T>> && !std::same_as<T, std::byte>;

// The compiler's messages for unsupported types, in one place.
template <class T>
constexpr bool check_carried() {
  static_assert(!Integer<T> || NarrowInteger<T>,
                "tolk: the wire carries signed 32-bit integers only. Pass an int, or the number as "
                "a double or a string");
  static_assert(!std::is_enum_v<T> || NarrowEnum<T>,
                "tolk: the wire carries signed 32-bit integers only, so the enumeration needs an "
                "underlying type that fits");
  static_assert(
      (Integer<T> && !NarrowInteger<T>) || (std::is_enum_v<T> && !NarrowEnum<T>) || Carried<T>,
      "tolk: this type does not travel. Types that do: bool, int, double, string, "
      "bytes, vectors of them, and structs that tolk::describe knows");
  return true;
}

template <>
struct Codec<bool> {
  static std::string name() { return "bool"; }
  template <class Place>
  static void put(const Place& place, bool v) {
    place.boolean(v);
  }
  static bool get(const TolkValue* from, bool& to) {
    if (from == nullptr || !from->IsBool()) return false;
    to = from->GetBool();
    return true;
  }
};

template <NarrowInteger T>
struct Codec<T> {
  static std::string name() { return "int"; }
  template <class Place>
  static void put(const Place& place, T v) {
    place.integer(static_cast<int>(v));
  }
  static bool get(const TolkValue* from, T& to) {
    if (from == nullptr || !from->IsInt()) return false;
    const int v = from->GetInt();
    if (v < (std::numeric_limits<T>::min)() || v > (std::numeric_limits<T>::max)()) return false;
    to = static_cast<T>(v);
    return true;
  }
};

template <NarrowEnum T>
struct Codec<T> {
  using Number = std::underlying_type_t<T>;
  static std::string name() { return "int"; }
  template <class Place>
  static void put(const Place& place, T v) {
    Codec<Number>::put(place, static_cast<Number>(v));
  }
  static bool get(const TolkValue* from, T& to) {
    Number v{};
    if (!Codec<Number>::get(from, v)) return false;
    to = static_cast<T>(v);
    return true;
  }
};

template <class T>
requires(std::same_as<T, double> || std::same_as<T, float>) struct Codec<T> {
  static std::string name() { return "double"; }
  template <class Place>
  static void put(const Place& place, T v) {
    place.real(static_cast<double>(v));
  }
  static bool get(const TolkValue* from, T& to) {
    if (from == nullptr || !(from->IsDouble() || from->IsInt())) return false;
    to = static_cast<T>(from->IsInt() ? from->GetInt() : from->GetDouble());
    return true;
  }
};

template <>
struct Codec<std::string> {
  static std::string name() { return "string"; }
  template <class Place>
  static void put(const Place& place, const std::string& v) {
    put_text(place, v.c_str(), v.size());
  }
  static bool get(const TolkValue* from, std::string& to) {
    if (from == nullptr || !has_bytes(*from)) return false;
    to = bytes_of(*from);
    return true;
  }
};

template <>
struct Codec<const char*> {
  static std::string name() { return "string"; }
  template <class Place>
  static void put(const Place& place, const char* v) {
    place.string(v, std::strlen(v));
  }
};

// As a handler's parameter it points into the arguments, which are valid while the handler runs.
template <>
struct Codec<std::string_view> {
  static std::string name() { return "string"; }
  template <class Place>
  static void put(const Place& place, std::string_view v) {
    Codec<std::string>::put(place, std::string(v));
  }
  static bool get(const TolkValue* from, std::string_view& to) {
    if (from == nullptr || !has_bytes(*from)) return false;
    to = bytes_of(*from);
    return true;
  }
};

template <>
struct Codec<std::span<const std::byte>> {
  static std::string name() { return "bytes"; }
  template <class Place>
  static void put(const Place& place, std::span<const std::byte> v) {
    place.stream(chars(v.data(), v.size()));
  }
  static bool get(const TolkValue* from, std::span<const std::byte>& to) {
    if (from == nullptr || !has_bytes(*from)) return false;
    const std::string_view text = bytes_of(*from);
    to = {reinterpret_cast<const std::byte*>(text.data()), text.size()};
    return true;
  }
};

template <class T>
concept ByteVector =
    std::same_as<T, std::vector<std::byte>> || std::same_as<T, std::vector<unsigned char>>;

template <ByteVector T>
struct Codec<T> {
  static std::string name() { return "bytes"; }
  template <class Place>
  static void put(const Place& place, const T& v) {
    place.stream({reinterpret_cast<const char*>(v.data()), v.size()});
  }
  static bool get(const TolkValue* from, T& to) {
    if (from == nullptr || !has_bytes(*from)) return false;
    const std::string_view text = bytes_of(*from);
    const auto* const first = reinterpret_cast<const typename T::value_type*>(text.data());
    to.assign(first, first + text.size());
    return true;
  }
};

template <class T>
concept View = std::same_as<T, std::string_view> || std::same_as<T, std::span<const std::byte>> ||
    std::same_as<T, const char*>;

template <class T>
requires(!ByteVector<std::vector<T>>) struct Codec<std::vector<T>> {
  static_assert(check_carried<T>());

  static std::string name() { return "[" + Codec<T>::name() + "]"; }

  static void put(const Position& place, const std::vector<T>& v) {
    put_list(place.block, [&](const Element& element) { put_all(element, v); });
  }
  template <class Place>
  static void put(const Place& place, const std::vector<T>& v) {
    put_block(place, [&](TolkParams& inner) { put_all(Position{inner}, v); });
  }
  static bool get(const TolkValue* from, std::vector<T>& to) {
    static_assert(!View<T>, "tolk: the elements of a received list need to be owned: std::string");
    to.clear();
    return each(from, [&](const TolkValue* element) { return append(element, to); });
  }
  // Returns false when there is no list, or when `take` refuses an element.
  template <class Take>
  static bool each(const TolkValue* from, const Take& take) {
    if (from == nullptr) return false;
    if (from->IsList()) {
      const auto& elements = *from->GetList();
      return std::all_of(elements.begin(), elements.end(), take);
    }
    TolkParams inner;
    if (!from->IsStream() || !parse_block(inner, bytes_of(*from))) return false;
    for (int i = 0; i < inner.ParamsSize(); ++i) {
      if (!take(inner.GetValue(i))) return false;
    }
    return true;
  }

 private:
  template <class Place>
  static void put_all(const Place& place, const std::vector<T>& v) {
    for (const auto& element : v) Codec<T>::put(place, element);
  }
  static bool append(const TolkValue* from, std::vector<T>& to) {
    T element{};
    if (!Codec<T>::get(from, element)) return false;
    to.push_back(std::move(element));
    return true;
  }
};

template <class T>
struct Codec<std::optional<T>> {
  static_assert(check_carried<T>());

  static std::string name() { return Codec<T>::name() + "?"; }
  template <class Place>
  static void put(const Place& place, const std::optional<T>& v) {
    if (v) Codec<T>::put(place, *v);
  }
  static bool get(const TolkValue* from, std::optional<T>& to) {
    to.reset();
    return from == nullptr || Codec<T>::get(from, to.emplace());
  }
};

template <>
struct Codec<Value> {
  static std::string name() { return "any"; }
  template <class Place>
  static void put(const Place& place, const Value& v) {
    v.put(place);
  }
  static bool get(const TolkValue* from, Value& to) {
    to = Value::of(from);
    return true;
  }
};

template <Described T>
struct Codec<T> {
  static std::string name() {
    std::string text = "{";
    each([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(std::declval<T&>().*field.member)>;
      if (text.size() > 1) text += ", ";
      text += field.name;
      text += ": " + Codec<Member>::name();
      return true;
    });
    return text + "}";
  }

  template <class Place>
  static void put(const Place& place, const T& v) {
    put_block(place, [&](TolkParams& inner) { put_fields(inner, v); });
  }
  static bool get(const TolkValue* from, T& to) {
    TolkParams inner;
    if (from == nullptr || !from->IsStream()) return false;
    return parse_block(inner, bytes_of(*from)) && get_fields(inner, to);
  }

  static void put_fields(TolkParams& block, const T& v) {
    each([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(v.*field.member)>;
      static_assert(check_carried<Member>());
      Codec<Member>::put(Key{block, field.name}, v.*field.member);
      return true;
    });
  }
  static bool get_fields(TolkParams& block, T& to) {
    return each([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(to.*field.member)>;
      static_assert(check_carried<Member>());
      static_assert(!View<Member>, "tolk: the fields of a received struct need to be owned");
      return Codec<Member>::get(block.GetMap(field.name), to.*field.member);
    });
  }
  // Stops at the first field for which `visit` returns false, and returns false.
  template <class Visit>
  static bool each(const Visit& visit) {
    return std::apply([&](const auto&... field) { return (visit(field) && ...); }, describe<T>.all);
  }
};

// The type of a received value, for an error text.
inline std::string type_of(const TolkValue* value) { return Value::of(value).type_name(); }

// The error text for a value that Codec<T> refuses; it follows the name of the argument. It names
// the first element of a list, or the first field of a struct, that does not fit.
template <class T>
struct Misfit {
  static std::string text(const TolkValue* from) {
    return ": wanted " + Codec<T>::name() + ", got " + type_of(from);
  }
};

template <class T>
requires(NarrowInteger<T> || NarrowEnum<T>) struct Misfit<T> {
  static std::string text(const TolkValue* from) {
    if (from == nullptr || !from->IsInt()) return ": wanted int, got " + type_of(from);
    return ": " + std::to_string(from->GetInt()) + " does not fit";
  }
};

template <class T>
requires(!ByteVector<std::vector<T>>) struct Misfit<std::vector<T>> {
  static std::string text(const TolkValue* from) {
    int number = 0;
    std::string misfit;
    Codec<std::vector<T>>::each(from, [&](const TolkValue* element) {
      ++number;
      T ignored{};
      if (Codec<T>::get(element, ignored)) return true;
      misfit = ", element " + std::to_string(number) + Misfit<T>::text(element);
      return false;
    });
    if (!misfit.empty()) return misfit;
    return ": wanted " + Codec<std::vector<T>>::name() + ", got " + type_of(from);
  }
};

template <Described T>
struct Misfit<T> {
  static std::string text(const TolkValue* from) {
    TolkParams inner;
    if (from != nullptr && from->IsStream() && parse_block(inner, bytes_of(*from))) {
      return of_fields(inner);
    }
    return ": wanted " + Codec<T>::name() + ", got " + type_of(from);
  }
  static std::string of_fields(TolkParams& block) {
    std::string misfit;
    Codec<T>::each([&](const auto& field) {
      using Member = std::remove_cvref_t<decltype(std::declval<T&>().*field.member)>;
      const TolkValue* const from = block.GetMap(field.name);
      Member ignored{};
      if (Codec<Member>::get(from, ignored)) return true;
      misfit = ", field \"" + std::string(field.name) + "\"" + Misfit<Member>::text(from);
      return false;
    });
    return misfit;
  }
};

// Reads a value of `block`. Without a positional value (`from` is null), a struct is read from the
// keyed values of the block, because the plain interface writes a struct so.
template <class T>
struct Placed {
  static bool get(const TolkValue* from, TolkParams& block, T& to) {
    if constexpr (Described<T>) {
      if (is_keyed(from, block)) return Codec<T>::get_fields(block, to);
    }
    return Codec<T>::get(from, to);
  }
  // The error text for a value that `get` refuses.
  static std::string misfit(const TolkValue* from, TolkParams& block) {
    if constexpr (Described<T>) {
      if (is_keyed(from, block)) return Misfit<T>::of_fields(block);
    }
    return Misfit<T>::text(from);
  }

 private:
  static bool is_keyed(const TolkValue* from, TolkParams& block) {
    return from == nullptr && block.MapSize() > 0;
  }
};

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
