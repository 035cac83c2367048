/// @file
/// The address of a server, the arguments and the result of a call, and what limits the call.
///
/// Thread: any. Failure: an argument of an unsupported type does not compile; the message says why.
/// The library checks an address when it is used, by Client::connect and Server::listen.
#pragma once

#include <stop_token>
#include <tolk/layer/fields.hpp>

namespace tolk {
inline namespace v1 {

/// A local pipe. With `using namespace tolk` and <unistd.h>, write `tolk::pipe`, because <unistd.h>
/// declares a function `pipe`.
struct pipe {
  /// The pipe of a number.
  pipe(int number) : name(std::to_string(number)) {}
  /// The pipe of a name: letters, digits, `_`, `-` and points.
  pipe(std::string text) : name(std::move(text)) {}

  std::string name;  ///< without `pipe:`
};

/// A TCP port of an IPv4 address.
struct tcp4 {
  std::string host;  ///< `"127.0.0.1"` or `"localhost"`
  int port = 0;      ///< 1 … 65535; 0 for a server: the system chooses
};

/// A TCP port of an IPv6 address.
struct tcp6 {
  std::string host;  ///< without brackets: `"::1"`, or `"localhost"`
  int port = 0;      ///< 1 … 65535; 0 for a server: the system chooses
};

/// The address of a server: `pipe:5000` and `pipe:editor`; `tcp4:127.0.0.1:5000`, `tcp6:[::1]:5000`
/// and `tcp4:localhost:5000`. A number alone is a pipe. A server may listen at port 0, which lets
/// the system choose.
class Address {
 public:
  /// A local pipe.
  Address(const pipe& where) : text_("pipe:" + where.name) {}
  /// A port of an IPv4 address.
  Address(const tcp4& where) : text_("tcp4:" + where.host + ":" + std::to_string(where.port)) {}
  /// A port of an IPv6 address.
  Address(const tcp6& where)
      : text_("tcp6:" + (where.host == "localhost" ? where.host : "[" + where.host + "]") + ":" +
              std::to_string(where.port)) {}
  /// The address that `text` names: a std::string, a std::string_view or a `const char*`.
  template <class Text>
  requires std::is_convertible_v<const Text&, std::string_view> Address(const Text& text)
      : text_(std::string_view(text)) {
    const bool digits = text_.find_first_not_of("0123456789") == std::string::npos;
    if (digits && !text_.empty()) text_.insert(0, "pipe:");
  }

  /// The text form of the address.
  const std::string& text() const noexcept { return text_; }

 private:
  std::string text_;
};

/// No limit, as the last argument of a call.
inline constexpr std::chrono::milliseconds forever = std::chrono::milliseconds::max();

/// A key as a template argument: `"level"` in `tolk::named<"level", int>`.
template <std::size_t Size>
struct KeyText {
  /// The characters of `text`.
  constexpr KeyText(const char (&text)[Size]) {
    for (std::size_t i = 0; i < Size; ++i) characters[i] = text[i];
  }
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
template <class T>
struct Keyed {
  std::string key;
  T value;  // a reference if the argument is an lvalue
};

// The type that an argument of type T is sent as. Literals and character arrays are strings.
template <class T>
using Sent = std::conditional_t<std::is_convertible_v<std::decay_t<T>, const char*> &&
                                    !std::is_class_v<std::decay_t<T>>,
                                const char*, std::remove_cvref_t<T>>;

inline bool is_reserved(std::string_view key) {
  return key.starts_with("s_c_") || key.starts_with("tolk.");
}

// What ends a call before its answer.
struct Limits {
  std::chrono::milliseconds limit{0};
  std::stop_token stop = {};

  // For the C interface, where 0 is the usual limit.
  std::int32_t ms() const {
    if (limit == forever) return TOLK_FOREVER;
    if (limit.count() < 1) return 1;
    return static_cast<std::int32_t>(std::min<std::int64_t>(limit.count(), INT32_MAX));
  }
};

template <class T>
inline constexpr int kLimitKind = Duration<T>                        ? 1
                                  : std::same_as<T, std::stop_token> ? 2
                                                                     : 0;

// How many of the last arguments limit the call: a duration, a stop token, or both.
template <class... Args>
constexpr std::size_t count_limits() {
  constexpr int kKinds[] = {kLimitKind<std::remove_cvref_t<Args>>..., 0};
  std::size_t count = 0;
  int seen = 0;
  for (std::size_t i = sizeof...(Args); i-- > 0 && (kKinds[i] & ~seen) != 0; ++count) {
    seen |= kKinds[i];
  }
  return count;
}

template <class T>
void take_limit(Limits& limits, const T& limit) {
  if constexpr (std::same_as<T, std::stop_token>) {
    limits.stop = limit;
  } else if constexpr (std::same_as<T, std::chrono::milliseconds>) {
    limits.limit = limit;  // `forever` would overflow in a conversion
  } else {
    limits.limit = std::chrono::ceil<std::chrono::milliseconds>(limit);
  }
}

inline void put_argument(Positions& to, const Values& values) {
  for (const Value& value : values.positional()) to.add(value);
  for (const auto& [key, value] : values.keyed()) {
    if (value.is_none()) continue;
    put_key(to.block(), key);
    value.put(to.block());
  }
}

template <class T>
void put_argument(Positions& to, const T& argument) {
  if constexpr (kIs<T, Keyed>) {
    using Inner = Sent<decltype(argument.value)>;
    put_keyed<Inner>(to.block(), argument.key.c_str(), argument.value);
  } else if constexpr (does_travel<Sent<T>>() && Travels<Sent<T>>) {
    to.add<Sent<T>>(argument);
  }
}

// Sorts the arguments of a call into a block, none without values, and limits.
template <class... Args>
void take_arguments(Block& block, Limits& limits, [[maybe_unused]] const Args&... args) {
  constexpr std::size_t kCount = sizeof...(Args) - count_limits<Args...>();
  if constexpr (kCount > 0) block = new_block();
  [[maybe_unused]] Positions to(block.get());
  [[maybe_unused]] const auto all = std::tie(args...);
  each_index<sizeof...(Args)>([&]<std::size_t I>() {
    if constexpr (I < kCount) {
      put_argument(to, std::get<I>(all));
    } else {
      take_limit(limits, std::get<I>(all));
    }
    return true;
  });
}

// A struct without a position is read from the keyed values, where a returned struct has it.
template <class T>
bool get_placed(From from, T& to) {
  if constexpr (Struct<T>) {
    const bool has_keyed = tolk_block_total(from.block) > tolk_block_count(from.block);
    if (from.index == TOLK_NOWHERE && has_keyed) return Codec<T>::get_fields(from, to);
  }
  return Codec<T>::get(from, to);
}

// Reads a result. Several values are those of a tuple.
template <class T>
bool get_result(From from, T& to) {
  if constexpr (std::same_as<T, Values>) {
    to = Values::of(from.block);
    return true;
  } else if constexpr (Several<T>) {
    return Codec<T>::get_all(from, to);
  } else {
    return get_placed<T>(from, to);
  }
}

template <class T>
void put_result(tolk_block* block, const T& result) {
  Positions to(block);
  if constexpr (std::same_as<T, Values>) {
    put_argument(to, result);
  } else if constexpr (Several<T>) {
    Codec<T>::put_all(to, result);
  } else if constexpr (Struct<T>) {
    Codec<T>::put_fields(block, result);  // so that the plain interface can read them by name
  } else {
    to.add(result);
  }
}
}  // namespace detail
/// @endcond

/// Makes a keyed argument: `client.post("log", tolk::arg("level", 3), "hello")`.
/// Use it directly in the call, because it refers to a variable that is passed as `value`. Throws
/// Errc::misuse for a key that begins with `s_c_` or `tolk.`, which the library reserves.
template <class T>
auto arg(std::string_view key, T&& value) {
  static_assert(detail::does_travel<detail::Sent<T>>());
  if (detail::is_reserved(key)) {
    throw Error(Errc::misuse, "", "",
                "the key " + std::string(key) +
                    ": a key does not begin with s_c_ or tolk., those are the library's");
  }
  constexpr bool kIsText = std::is_same_v<detail::Sent<T>, const char*>;
  using Kept = std::conditional_t<kIsText, const char*, T>;
  return detail::Keyed<Kept>{std::string(key), std::forward<T>(value)};
}

}  // namespace v1
}  // namespace tolk
