/// @file
/// Structs that travel, and the names of their fields.
///
/// An aggregate of up to 16 members, no bases and no arrays of the language travels as it is. Other
/// structs name their fields:
/// @code
/// class Point { … public: int x = 0; int y = 0; };
/// TOLK_FIELDS(Point, x, y)
/// @endcode
///
/// A struct must be default-constructible. A field that the sender does not know must be an
/// std::optional, and one that the receiver does not know is ignored: so a struct can grow.
#pragma once

#include <array>
#include <tolk/layer/containers.hpp>
#include <tuple>

/// Names the fields of a struct that travel. It stands in the namespace of the struct.
#define TOLK_FIELDS(Type, ...)                                                           \
  constexpr auto tolk_fields_of(const Type*) {                                           \
    using TolkSelf = Type;                                                               \
    return ::tolk::fields(__VA_OPT__(TOLK_FIELDS_AGAIN(TOLK_FIELDS_EACH(__VA_ARGS__)))); \
  }

/// @cond internal
// Applies itself to one field after the other: a macro cannot do that without these two.
#define TOLK_FIELDS_EACH(field, ...) \
#field, &TolkSelf::field __VA_OPT__(, TOLK_FIELDS_NEXT TOLK_FIELDS_PARENS(__VA_ARGS__))
#define TOLK_FIELDS_NEXT() TOLK_FIELDS_EACH
#define TOLK_FIELDS_PARENS ()
#define TOLK_FIELDS_AGAIN(...) TOLK_AGAIN_4(TOLK_AGAIN_4(TOLK_AGAIN_4(__VA_ARGS__)))
#define TOLK_AGAIN_4(...) TOLK_AGAIN_3(TOLK_AGAIN_3(TOLK_AGAIN_3(__VA_ARGS__)))
#define TOLK_AGAIN_3(...) TOLK_AGAIN_2(TOLK_AGAIN_2(TOLK_AGAIN_2(__VA_ARGS__)))
#define TOLK_AGAIN_2(...) __VA_ARGS__
/// @endcond

namespace tolk {
inline namespace v1 {
/// Lists the fields of a struct as pairs of a name and a pointer to the member: tolk::describe.
template <class... NamesAndMembers>
constexpr auto fields(NamesAndMembers... names_and_members) {
  static_assert(sizeof...(names_and_members) % 2 == 0,
                "tolk::fields takes pairs: a name and a pointer to the member");
  return std::tuple(names_and_members...);
}

/// The fields of a struct: those of TOLK_FIELDS. A specialisation is for names that differ from
/// those of the members, and for structs of other people's namespaces.
/// @code
/// template <>
/// inline constexpr auto tolk::describe<Point> = tolk::fields("x", &Point::x, "y", &Point::y);
/// @endcode
template <class T>
inline constexpr auto describe = [] {
  if constexpr (requires(const T* of) { tolk_fields_of(of); }) {
    return tolk_fields_of(static_cast<const T*>(nullptr));
  } else {
    return nullptr;
  }
}();

/// @cond internal
namespace detail {
template <class T>
inline constexpr bool kIsDescribed =
    !std::same_as<std::remove_cvref_t<decltype(describe<T>)>, std::nullptr_t>;

struct Any {
  template <class T>
  operator T() const {
    throw 0;  // for the types alone
  }
};

template <class T, class... Members>
constexpr std::size_t count_members() {
  if constexpr (requires { T{Members()..., Any()}; }) {
    return count_members<T, Members..., Any>();
  } else {
    return sizeof...(Members);
  }
}

template <class T>
concept Aggregate = std::is_class_v<T> && std::is_aggregate_v<T> && !Converted<T> && !Range<T> &&
                    !Sized<T> && !kIsDescribed<T> && count_members<T>() > 0;

#define TOLK_TIE(count, ...)                                                    \
  if constexpr (kCount == count) {                                              \
    auto& [__VA_ARGS__] = v; /* An error here? The struct needs TOLK_FIELDS. */ \
    return std::tie(__VA_ARGS__);                                               \
  } else

template <class T>
constexpr auto tie_members(T& v) {
  constexpr std::size_t kCount = count_members<std::remove_const_t<T>>();
  static_assert(kCount <= 16, "tolk: a struct of more than 16 members needs TOLK_FIELDS");
  TOLK_TIE(1, a)
  TOLK_TIE(2, a, b)
  TOLK_TIE(3, a, b, c)
  TOLK_TIE(4, a, b, c, d)
  TOLK_TIE(5, a, b, c, d, e)
  TOLK_TIE(6, a, b, c, d, e, f)
  TOLK_TIE(7, a, b, c, d, e, f, g)
  TOLK_TIE(8, a, b, c, d, e, f, g, h)
  TOLK_TIE(9, a, b, c, d, e, f, g, h, i)
  TOLK_TIE(10, a, b, c, d, e, f, g, h, i, j)
  TOLK_TIE(11, a, b, c, d, e, f, g, h, i, j, k)
  TOLK_TIE(12, a, b, c, d, e, f, g, h, i, j, k, l)
  TOLK_TIE(13, a, b, c, d, e, f, g, h, i, j, k, l, m)
  TOLK_TIE(14, a, b, c, d, e, f, g, h, i, j, k, l, m, n)
  TOLK_TIE(15, a, b, c, d, e, f, g, h, i, j, k, l, m, n, o)
  TOLK_TIE(16, a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p)
  return std::tie();
}
#undef TOLK_TIE

// The compiler spells the name of a member in the name of a function whose template argument is the
// member's address, for which some object has to be declared.
template <class T>
struct Boxed {
  T value;
};
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wundefined-var-template"
#pragma clang diagnostic ignored "-Wundefined-internal"
#pragma clang diagnostic ignored "-Wlanguage-extension-token"  // __FUNCSIG__
#endif
template <class T>
extern const Boxed<T> some;

template <class T>
struct MemberAt {
  const T* address;
};
template <class T>
MemberAt(const T*) -> MemberAt<T>;

template <MemberAt Member>
constexpr std::string_view spelled() {
#ifdef _MSC_VER
  return __FUNCSIG__;
#else
  return __PRETTY_FUNCTION__;
#endif
}

// Of "… [with MemberAt Member = MemberAt<int>{(& some<Point>.Boxed<Point>::value.Point::x)}; …]" it
// is the last word in the last braces.
template <class T, std::size_t I>
inline constexpr auto kMemberName = [] {
  constexpr auto get = [] {
    std::string_view text = spelled<MemberAt{&std::get<I>(tie_members(some<T>.value))}>();
    const auto is_word = [](char c) {
      return c == '_' || (c >= '0' && c <= '9') || ((c | 32) >= 'a' && (c | 32) <= 'z') ||
             static_cast<unsigned char>(c) > 127;
    };
    text = text.substr(0, text.rfind('}'));
    while (!is_word(text.back())) text.remove_suffix(1);
    std::size_t begin = text.size();
    while (is_word(text[begin - 1])) --begin;
    return text.substr(begin);
  };
  std::array<char, get().size() + 1> name{};
  for (std::size_t i = 0; i < get().size(); ++i) name[i] = get()[i];
  return name;
}();
#ifdef __clang__
#pragma clang diagnostic pop
#endif

template <class T>
constexpr std::size_t count_fields() {
  if constexpr (kIsDescribed<T>) {
    return std::tuple_size_v<std::remove_const_t<decltype(describe<T>)>> / 2;
  } else {
    return count_members<T>();
  }
}
template <class T, std::size_t I>
const char* field_name() {
  if constexpr (kIsDescribed<T>) {
    return std::get<2 * I>(describe<T>);
  } else {
    return kMemberName<T, I>.data();
  }
}
template <std::size_t I, class T>
auto& field_of(T& v) {
  if constexpr (kIsDescribed<std::remove_const_t<T>>) {
    return v.*std::get<2 * I + 1>(describe<std::remove_const_t<T>>);
  } else {
    return std::get<I>(tie_members(v));
  }
}

template <class T>
concept Struct = (std::is_class_v<T> && !Converted<T> && kIsDescribed<T>) || Aggregate<T>;

template <Struct T>
struct Codec<T> {
  static constexpr tolk_kind kKind = TOLK_MAP;
  static std::string name() {
    thread_local bool is_inside = false;  // of a struct that has a list of its own type
    if (std::exchange(is_inside, true)) return "{...}";
    std::string text;
    each_index<count_fields<T>()>([&]<std::size_t I>() {
      text += (I == 0 ? "" : ", ") + (field_name<T, I>() + (": " + Codec<Member<I>>::name()));
      return true;
    });
    is_inside = false;
    return "{" + text + "}";
  }
  static void put(tolk_block* to, const T& v) {
    put_inner(to, TOLK_MAP, [&](tolk_block* inner) { put_fields(inner, v); });
  }
  static bool get(From from, T& v) {
    const tolk_block* const inner = from.inside(TOLK_MAP);
    return inner == nullptr ? refuse<T>(from) : get_fields(from.at(inner, 0), v);
  }
  static void put_fields(tolk_block* block, const T& v) {
    each_index<count_fields<T>()>([&]<std::size_t I>() {
      put_keyed<Member<I>>(block, field_name<T, I>(), field_of<I>(v));
      return true;
    });
  }
  static bool get_fields(From from, T& v) {
    return each_index<count_fields<T>()>([&]<std::size_t I>() {
      static_assert(is_owned<Member<I>>());
      const char* const name = field_name<T, I>();
      const From field = from.at(from.block, tolk_block_find(from.block, name));
      if (Codec<Member<I>>::get(field, field_of<I>(v))) return true;
      return from.refuse_in(", field \"" + std::string(name) + "\"");
    });
  }

 private:
  template <std::size_t I>
  using Member = std::remove_cvref_t<decltype(field_of<I>(std::declval<T&>()))>;
};
}  // namespace detail
/// @endcond
}  // namespace v1
}  // namespace tolk
