/// @file
/// The peer of a connection, and the steps of one call.
///
/// It defines the keys that the layer adds to an answer.
/// Thread: any. Owner: a call copies its result out of the library's block before it returns.
#pragma once

#include <memory>
#include <tolk/layer/error.hpp>
#include <tolk/layer/pack.hpp>

namespace tolk {
inline namespace v1 {

/// @cond internal
namespace detail {

// Keys of an answer: the text of a failure, the kind of the failure, and a mark. The mark says that
// a first value that begins with the library's "no event: " comes from the handler.
inline constexpr char kKeyError[] = "tolk.error";
inline constexpr char kKeyKind[] = "tolk.kind";
inline constexpr char kKeyMeant[] = "tolk.value";
inline constexpr char kKindArguments[] = "arguments";
inline constexpr char kKindMethod[] = "method";

inline constexpr std::string_view kNoMethod = "no event: ";

// The largest block; less than a frame can hold, because the envelope needs space.
inline constexpr long kMostBytes = 2'147'000'000;

// A reference to a function.
class Read {
 public:
  template <class F>
  Read(const F& f)
      : object_(std::addressof(f)), call_([](const void* object, TolkParams& block) {
          (*static_cast<const F*>(object))(block);
        }) {}
  void operator()(TolkParams& block) const { call_(object_, block); }

 private:
  const void* object_;
  void (*call_)(const void*, TolkParams&);
};

// A peer, or all clients of a server; `to` is the client's id.
class Peer {
 public:
  virtual ~Peer() = default;
  // Calls, waits, and passes the answer's block to `read`. The library owns the block; it is
  // invalid after the return.
  virtual std::optional<Error> exchange(int to, const std::string& method, TolkParams* arguments,
                                        Limit limit, Read read) = 0;
  virtual std::optional<Error> post(int to, const std::string& method, TolkParams* arguments) = 0;
  virtual std::chrono::milliseconds usual_limit() const = 0;
  virtual std::string address() const = 0;
};

inline std::optional<Error> too_large(TolkParams* arguments, const std::string& method,
                                      const std::string& address) {
  if (arguments == nullptr || arguments->GetParamasSize() <= kMostBytes) return std::nullopt;
  return Error(Errc::too_large, method, address,
               "the arguments are larger than one call can carry");
}

// Returns null when the key is missing or not a string.
inline const TolkValue* text_at(TolkParams& block, const char* key) {
  const TolkValue* const value = block.GetMap(key);
  return value != nullptr && value->IsString() ? value : nullptr;
}

inline bool begins_as_no_method(const TolkValue* first) {
  return first != nullptr && first->IsString() && bytes_of(*first).starts_with(kNoMethod);
}

inline bool is_no_method(TolkParams& block, std::string_view method) {
  const TolkValue* const first = block.GetValue(0);
  return begins_as_no_method(first) && bytes_of(*first).substr(kNoMethod.size()) == method &&
         block.GetMap(kKeyMeant) == nullptr;
}

// The library adds its own value after the answer of a catch-all handler.
inline bool last_is_the_librarys(TolkParams& block) {
  const TolkValue* const meant = block.GetMap(kKeyMeant);
  return meant != nullptr && meant->IsInt();
}

// The first value of the result; null without one.
inline const TolkValue* first_in(TolkParams& block) {
  const TolkValue* const first = block.GetValue(0);
  const bool none =
      begins_as_no_method(first) && block.ParamsSize() == 1 && last_is_the_librarys(block);
  return none ? nullptr : first;
}

// The error that the answer reports, if any.
inline std::optional<Error> refusal_in(TolkParams& block, const std::string& method,
                                       const Peer& peer) {
  if (const TolkValue* const text = text_at(block, kKeyError)) {
    const TolkValue* const kind = text_at(block, kKeyKind);
    const std::string_view word = kind == nullptr ? std::string_view() : bytes_of(*kind);
    const std::string detail(bytes_of(*text));
    const std::string where = peer.address();
    if (word == kKindArguments) return Error(Errc::wrong_arguments, method, where, detail);
    if (word == kKindMethod) return Error(Errc::no_such_method, method, where, detail);
    return Error(Errc::handler_failed, method, where, detail);
  }
  if (!is_no_method(block, method)) return std::nullopt;
  return Error(Errc::no_such_method, method, peer.address(), "there is no such method");
}

template <class T>
struct Answer {
  static_assert(check_carried<T>());
  static_assert(!View<T>, "tolk: a result needs to be owned: ask for std::string or tolk::bytes");

  static bool get(TolkParams& block, T& to) { return Placed<T>::get(first_in(block), block, to); }
  // The error text for an answer that `get` refuses.
  static std::string misfit(TolkParams& block) { return Placed<T>::misfit(first_in(block), block); }
};

template <class... Ts>
struct Answer<std::tuple<Ts...>> {
  static_assert((check_carried<Ts>() && ...));

  static bool get(TolkParams& block, std::tuple<Ts...>& to) {
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      return (Codec<Ts>::get(block.GetValue(static_cast<int>(I)), std::get<I>(to)) && ...);
    }
    (std::index_sequence_for<Ts...>());
  }
  static std::string name() {
    std::string text;
    ((text += (text.empty() ? "" : ", ") + Codec<Ts>::name()), ...);
    return "(" + text + ")";
  }
  static std::string misfit(TolkParams& block) {
    std::string got;
    for (int i = 0; i < block.ParamsSize(); ++i) {
      got += (i == 0 ? "" : ", ") + type_of(block.GetValue(i));
    }
    return ": wanted " + name() + ", got (" + got + ")";
  }
};

template <>
struct Answer<Values> {
  static bool get(TolkParams& block, Values& to) {
    to = Values::of(block);
    if (to.size() > 0 && last_is_the_librarys(block)) to.drop_last();
    return true;
  }
  static std::string misfit(TolkParams&) { return {}; }  // every answer is accepted
};

template <class T>
Result<T> result_in(TolkParams& block, const std::string& method, const Peer& peer) {
  if (auto refused = refusal_in(block, method, peer)) return *std::move(refused);
  if constexpr (std::is_void_v<T>) {
    return {};
  } else {
    T value{};
    if (Answer<T>::get(block, value)) return value;
    return Error(Errc::wrong_type, method, peer.address(),
                 "wrong result type" + Answer<T>::misfit(block));
  }
}

template <class T>
Result<T> exchange(Peer& peer, int to, const std::string& method, TolkParams* arguments,
                   Limit limit) {
  std::optional<Result<T>> result;
  auto failed = peer.exchange(to, method, arguments, limit, [&](TolkParams& block) {
    result.emplace(result_in<T>(block, method, peer));
  });
  if (failed) return *std::move(failed);
  return *std::move(result);
}

template <class T, class... Args>
Result<T> call(Peer& peer, int to, std::string_view method, const Args&... args) {
  const Limit limit = limit_of(peer.usual_limit(), args...);
  if constexpr (sizeof...(Args) == (kLastIsLimit<Args...> ? 1 : 0)) {
    return exchange<T>(peer, to, std::string(method), nullptr, limit);
  } else {
    TolkParams arguments;
    put_arguments(arguments, args...);
    return exchange<T>(peer, to, std::string(method), &arguments, limit);
  }
}

template <class... Args>
Result<void> post(Peer& peer, int to, std::string_view method, const Args&... args) {
  static_assert(!kLastIsLimit<Args...>, "tolk: a posted call waits for nothing: it has no limit");
  TolkParams arguments;
  put_arguments(arguments, args...);
  auto failed = peer.post(to, std::string(method), sizeof...(Args) == 0 ? nullptr : &arguments);
  if (failed) return *std::move(failed);
  return {};
}

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
