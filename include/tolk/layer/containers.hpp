/// @file
/// Containers, durations, times and paths. Their members tell them, so no header is needed here.
///
/// A duration, and a time of the system clock, travel as nanoseconds in an int of 64 bits. A path
/// travels as UTF-8. Thread: any. Owner: what is read is a copy. Failure: std::bad_alloc;
/// tolk::Error (Errc::misuse) for a duration of more than 292 years.
#pragma once

#include <chrono>
#include <tolk/layer/codec.hpp>
#include <tuple>

/// @cond internal
namespace tolk {
inline namespace v1 {
namespace detail {
// A path is a range of paths, and no list.
template <class T>
concept Range = !OneOf<T, std::string, std::string_view, bytes, std::vector<unsigned char>> &&
                !Converted<T> && requires(const T& range) {
  typename T::value_type;
  range.begin();
  range.end();
}
&&!std::same_as<typename T::value_type, T>;

template <class T>
concept MapRange = Range<T> && requires {
  typename T::mapped_type;
};

template <class T>
concept Sized = requires {
  std::tuple_size<T>::value;
};

template <class T>
concept List = Range<T> && !Sized<T> && !MapRange<T> && requires(T & list) {
  list.insert(list.end(), std::declval<typename T::value_type>());
};

template <class T>
concept Several = Sized<T> && !Range<T> && !Converted<T>;

inline bool refuse_element(From from, std::size_t i) {
  return from.why != nullptr && from.refuse_in(", element " + std::to_string(i + 1));
}

template <class T>
requires(List<T> || (Range<T> && Sized<T>)) struct Codec<T> {
  using Element = typename T::value_type;
  static_assert(is_owned<Element>());
  static constexpr tolk_kind kKind = TOLK_LIST;
  static std::string name() {
    std::string count;
    if constexpr (Sized<T>) count = ": " + std::to_string(std::tuple_size<T>::value);
    return "[" + Codec<Element>::name() + count + "]";
  }

  static void put(tolk_block* to, const T& v) {
    if constexpr (std::same_as<T, std::vector<double>>) {
      tolk_block_add_doubles(to, v.data(), v.size());
    } else if constexpr (std::same_as<T, std::vector<std::int64_t>>) {
      tolk_block_add_ints(to, v.data(), v.size());
    } else {
      put_inner(to, TOLK_LIST, [&](tolk_block* inner) {
        for (const auto& element : v) put_element<Element>(inner, element);
      });
    }
  }
  static bool get(From from, T& v) {
    const tolk_block* const inner = from.inside(TOLK_LIST);
    const std::size_t count = tolk_block_count(inner);
    if constexpr (Sized<T>) {
      if (inner == nullptr || count != std::tuple_size<T>::value) return refuse<T>(from);
    } else {
      if (inner == nullptr) return refuse<T>(from);
      v.clear();
    }
    for (std::size_t i = 0; i < count; ++i) {
      Element element{};
      if (!Codec<Element>::get(from.at(inner, i), element)) return refuse_element(from, i);
      if constexpr (Sized<T>) {
        v[i] = std::move(element);
      } else {
        v.insert(v.end(), std::move(element));
      }
    }
    return true;
  }
};

template <MapRange T>
struct Codec<T> {
  using Key = typename T::key_type;
  using Mapped = typename T::mapped_type;
  static_assert(is_owned<Key>() && is_owned<Mapped>());
  static constexpr bool kHasTexts = std::same_as<Key, std::string>;
  static constexpr tolk_kind kKind = kHasTexts ? TOLK_MAP : TOLK_LIST;

  static std::string name() {
    return "{" + Codec<Key>::name() + " -> " + Codec<Mapped>::name() + "}";
  }
  static void put(tolk_block* to, const T& v) {
    put_inner(to, kKind, [&](tolk_block* inner) {
      for (const auto& [key, value] : v) {
        if constexpr (kHasTexts) {
          put_key(inner, key);
          put_element<Mapped>(inner, value);
        } else {
          put_element(inner, std::pair<Key, Mapped>(key, value));
        }
      }
    });
  }
  static bool get(From from, T& v) {
    v.clear();
    if constexpr (kHasTexts) {
      const tolk_block* const inner = from.inside(TOLK_MAP);
      if (inner == nullptr) return refuse<T>(from);
      const std::size_t total = tolk_block_total(inner);
      for (std::size_t i = tolk_block_count(inner); i < total; ++i) {
        const std::string key = tolk_block_key(inner, i);
        const bool fits = Codec<Mapped>::get(from.at(inner, i), v[key]);
        if (!fits) return from.refuse_in(", key \"" + key + "\"");
      }
    } else {
      std::vector<std::pair<Key, Mapped>> pairs;
      if (!Codec<decltype(pairs)>::get(from, pairs)) return false;
      for (auto& [key, value] : pairs) v.emplace(std::move(key), std::move(value));
    }
    return true;
  }
};

// Several values of different types: a list as an argument, several values as a result.
template <Several T>
struct Codec<T> {
  static constexpr std::size_t kCount = std::tuple_size<T>::value;
  static constexpr tolk_kind kKind = TOLK_LIST;
  template <std::size_t I>
  using Element = std::remove_cvref_t<std::tuple_element_t<I, T>>;

  static std::string name() {
    std::string text;
    each_index<kCount>([&]<std::size_t I>() {
      text += (I == 0 ? "" : ", ") + Codec<Element<I>>::name();
      return true;
    });
    return "(" + text + ")";
  }
  static void put(tolk_block* to, const T& v) {
    put_inner(to, TOLK_LIST, [&](tolk_block* inner) {
      each_index<kCount>([&]<std::size_t I>() {
        put_element<Element<I>>(inner, std::get<I>(v));
        return true;
      });
    });
  }
  static bool get(From from, T& v) {
    const tolk_block* const inner = from.inside(TOLK_LIST);
    if (inner == nullptr || tolk_block_count(inner) > kCount) return refuse<T>(from);
    return get_all(from.at(inner, 0), v);
  }
  static void put_all(Positions& to, const T& v) {
    each_index<kCount>([&]<std::size_t I>() {
      to.add<Element<I>>(std::get<I>(v));
      return true;
    });
  }
  static bool get_all(From from, T& v) {
    return each_index<kCount>([&]<std::size_t I>() {
      static_assert(is_owned<Element<I>>());
      const From element = From::position(from.block, I, from.why);
      return Codec<Element<I>>::get(element, std::get<I>(v)) || refuse_element(from, I);
    });
  }
};

template <OneOf<std::monostate, std::nullopt_t> T>
struct Codec<T> : OfKind<TOLK_NONE> {
  static bool is_absent(T) { return true; }
  static void put(tolk_block* to, T) { tolk_block_add_none(to); }
  static bool get(From from, T&) { return from.is_nothing() || refuse<T>(from); }
};

// The value of the alternative, which the reader finds again by the value's kind.
template <class... Ts>
struct Codec<std::variant<Ts...>> {
  using Variant = std::variant<Ts...>;
  static constexpr bool are_unlike(std::initializer_list<tolk_kind> kinds) {
    for (const tolk_kind* a = kinds.begin(); a != kinds.end(); ++a) {
      for (const tolk_kind* b = kinds.begin(); b != a; ++b) {
        if (*a == *b || *a == TOLK_MISSING || *b == TOLK_MISSING) return false;
      }
    }
    return true;
  }
  static_assert((is_owned<Ts>() && ...));
  static_assert(
      are_unlike({Codec<Ts>::kKind...}),
      "tolk: two alternatives of this variant look alike to the receiver, such as two "
      "integers, two lists or two structs. Send a struct with an optional field for each");

  static constexpr tolk_kind kKind = TOLK_MISSING;
  static std::string name() {
    std::string text;
    ((text += (text.empty() ? "" : " | ") + Codec<Ts>::name()), ...);
    return text;
  }
  static bool is_absent(const Variant& v) {
    return std::visit([](const auto& held) { return detail::is_absent(held); }, v);
  }
  static void put(tolk_block* to, const Variant& v) {
    std::visit([to](const auto& held) { put_element(to, held); }, v);
  }
  // The alternative of the value's own kind, or else the first that accepts it.
  static bool get(From from, Variant& v) {
    const tolk_kind got = from.kind();
    const tolk_kind kind = from.is_nothing() ? TOLK_NONE : got == TOLK_UINT ? TOLK_INT : got;
    const From quiet{from.block, from.index};
    return ((Codec<Ts>::kKind == kind && try_one<Ts>(from, v)) || ...) ||
           (try_one<Ts>(quiet, v) || ...) || refuse<Variant>(from);
  }

 private:
  template <class T>
  static bool try_one(From from, Variant& v) {
    T value{};
    if (!Codec<T>::get(from, value)) return false;
    v = std::move(value);
    return true;
  }
};

template <class T>
concept Duration = kIs<T, std::chrono::duration>;

template <Duration T>
struct Codec<T> : Like<std::int64_t> {
  using Nanoseconds = std::chrono::nanoseconds;

  static void put(tolk_block* to, T v) {
    const double seconds = std::chrono::duration<double>(v).count();
    if (!(seconds > -9.2e9 && seconds < 9.2e9)) {
      throw Error(Errc::misuse, "", "", "a duration travels only up to 292 years");
    }
    tolk_block_add_int(to, std::chrono::duration_cast<Nanoseconds>(v).count());
  }
  // A number that the type cannot hold exactly does not fit.
  static bool get(From from, T& v) {
    std::int64_t count = 0;
    if (!Codec<std::int64_t>::get(from, count)) return false;
    v = std::chrono::duration_cast<T>(Nanoseconds(count));
    return std::chrono::treat_as_floating_point_v<typename T::rep> ||
           std::chrono::duration_cast<Nanoseconds>(v).count() == count ||
           from.refuse(": " + std::to_string(count) + " ns do not fit");
  }
};

template <class D>
struct Codec<std::chrono::time_point<std::chrono::system_clock, D>> : Like<D> {
  using Time = std::chrono::time_point<std::chrono::system_clock, D>;
  static void put(tolk_block* to, Time v) { Codec<D>::put(to, v.time_since_epoch()); }
  static bool get(From from, Time& v) {
    D since{};
    const bool fits = Codec<D>::get(from, since);
    v = Time(since);
    return fits;
  }
};

// std::filesystem::path, without its header, which costs more than this one.
template <class T>
concept Path = requires(const T& path) {
  { path.u8string() } -> std::same_as<std::u8string>;
  { path.filename() } -> std::same_as<T>;
};

template <Path T>
struct Codec<T> : Like<std::string> {
  static void put(tolk_block* to, const T& v) {
    const std::u8string text = v.u8string();
    tolk_block_add_text(to, reinterpret_cast<const char*>(text.data()), text.size());
  }
  static bool get(From from, T& v) {
    if (!from.has_bytes()) return refuse<T>(from);
    const std::string_view text = from.bytes();
    v = T(std::u8string(text.begin(), text.end()));
    return true;
  }
};
}  // namespace detail
}  // namespace v1
}  // namespace tolk

inline void tolk::v1::Value::put(tolk_block* to) const {
  if (is_none()) return tolk_block_add_none(to);
  visit([to]<class T>(const T& held) { detail::Codec<T>::put(to, held); });
}
/// @endcond
