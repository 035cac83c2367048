/// @file
/// The arguments of a call: positional arguments, keyed arguments, and the timeout.
///
/// Thread: any. Failure: an argument of an unsupported type does not compile; the message says why.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <tolk/layer/codec.hpp>
#include <tolk/layer/error.hpp>

namespace tolk {
inline namespace v1 {

/// No timeout, as the last argument of a call.
inline constexpr std::chrono::milliseconds forever = std::chrono::milliseconds::max();

/// @cond internal
namespace detail {

template <class T>
struct Keyed {
  std::string key;
  T value;  // a reference if the argument is an lvalue
};

template <class T>
struct IsKeyed : std::false_type {};
template <class T>
struct IsKeyed<Keyed<T>> : std::true_type {};

template <class T>
struct IsDuration : std::false_type {};
template <class Rep, class Period>
struct IsDuration<std::chrono::duration<Rep, Period>> : std::true_type {};

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

// The type that an argument of type T is sent as. Literals and character arrays are strings.
template <class T>
using Travels = std::conditional_t<std::is_convertible_v<std::decay_t<T>, const char*> &&
                                       !std::is_class_v<std::decay_t<T>>,
                                   const char*, std::remove_cvref_t<T>>;

}  // namespace detail
/// @endcond

/// Makes a keyed argument: `client.post("log", tolk::arg("level", 3), "hello")`.
/// Use it directly in the call, because it refers to a variable that is passed as `value`. Throws
/// Errc::misuse for a key that begins with `s_c_` or `tolk.`, which the library reserves.
template <class T>
auto arg(std::string_view key, T&& value) {
  using Travels = detail::Travels<T>;
  static_assert(detail::check_carried<Travels>());
  if (detail::is_reserved(key)) {
    throw Error(Errc::misuse, "", "",
                "the key " + std::string(key) +
                    ": a key does not begin with s_c_ or tolk., those are the library's");
  }
  if constexpr (std::is_same_v<Travels, const char*>) {
    return detail::Keyed<const char*>{std::string(key), value};
  } else {
    return detail::Keyed<T>{std::string(key), std::forward<T>(value)};
  }
}

/// A key as a template argument: `"level"` in `tolk::named<"level", int>`.
template <std::size_t Size>
struct KeyText {
  /// The characters of `text`.
  constexpr KeyText(const char (&text)[Size]) { std::copy_n(text, Size, characters); }
  char characters[Size] = {};  ///< with the final zero
};

/// A handler's parameter that takes a keyed argument:
/// `server.on("log", [](tolk::named<"level", int> level, std::string text) { … level.value … })`.
/// A missing key is an error of the caller, unless `T` is an std::optional.
template <KeyText Key, class T>
struct named {
  T value{};  ///< the argument
  /// The argument.
  operator const T&() const noexcept { return value; }
};

/// @cond internal
namespace detail {

// The timeout of a call in the units of the library. Never 0, which means "no limit" on a client
// and "at once" on a server.
struct Limit {
  std::chrono::milliseconds asked;

  bool endless() const { return asked == forever; }
  std::uint32_t client_ms() const { return endless() ? 0 : counted(); }
  std::uint32_t server_ms() const { return endless() ? kMost : counted(); }

 private:
  static constexpr std::uint32_t kMost = (std::numeric_limits<std::uint32_t>::max)();
  std::uint32_t counted() const {
    const auto most = std::chrono::milliseconds(kMost);
    return static_cast<std::uint32_t>(
        std::clamp(asked, std::chrono::milliseconds(1), most).count());
  }
};

template <class... Args>
struct Last {
  using Type = void;
};
template <class First, class... Rest>
struct Last<First, Rest...> {
  using Type = typename Last<Rest...>::Type;
};
template <class Only>
struct Last<Only> {
  using Type = Only;
};

template <class... Args>
inline constexpr bool kLastIsLimit =
    IsDuration<std::remove_cvref_t<typename Last<Args...>::Type>>::value;

// A duration is the timeout as the last argument; elsewhere it does not compile.
template <class... Args>
Limit limit_of(std::chrono::milliseconds usual, const Args&... args) {
  if constexpr (kLastIsLimit<Args...>) {
    const auto& last = std::get<sizeof...(Args) - 1>(std::tie(args...));
    using Duration = std::remove_cvref_t<decltype(last)>;
    if constexpr (std::is_same_v<Duration, std::chrono::milliseconds>) {
      return {last};
    } else {
      return {std::chrono::ceil<std::chrono::milliseconds>(last)};
    }
  } else {
    return {usual};
  }
}

template <class T>
void put_argument(TolkParams& block, const T& argument) {
  static_assert(!IsDuration<T>::value, "tolk: a duration is the limit of a call, and stands last");
  if constexpr (IsKeyed<T>::value) {
    using Inner = Travels<decltype(argument.value)>;
    Codec<Inner>::put(Key{block, argument.key.c_str()}, argument.value);
  } else if constexpr (std::is_same_v<T, Values>) {
    argument.put(block);
  } else if constexpr (!IsDuration<T>::value) {
    static_assert(check_carried<Travels<T>>());
    if constexpr (Carried<Travels<T>>) Codec<Travels<T>>::put(Position{block}, argument);
  }
}

// All arguments except the timeout.
template <class... Args>
void put_arguments(TolkParams& block, const Args&... args) {
  [&]<std::size_t... I>(std::index_sequence<I...>) {
    [[maybe_unused]] const auto all = std::tie(args...);
    (put_argument(block, std::get<I>(all)), ...);
  }
  (std::make_index_sequence<sizeof...(Args) - (kLastIsLimit<Args...> ? 1 : 0)>());
}

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
