/// @file
/// A method: an adapter for a callable with typed parameters.
///
/// Thread: several workers call a method at the same time.
/// Failure: wrong arguments throw BadArguments, with a text for the caller.
#pragma once

#include <functional>
#include <tolk/layer/caller.hpp>

namespace tolk {
inline namespace v1 {

/// The description of a method, from the method "tolk.describe".
struct MethodInfo {
  std::string name;       ///< the name in calls
  std::string signature;  ///< `"(int, int) -> int"`
  std::string about;      ///< the host's description; may be empty
  /// Whether all members are equal.
  bool operator==(const MethodInfo& other) const = default;
};

/// @cond internal
namespace detail {

struct BadArguments : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One call of a handler. Valid during the call.
struct Invocation {
  int caller_id;
  std::string_view method;
  const std::weak_ptr<Peer>& back;
  TolkParams& in;
  TolkParams& out;
  const TolkValue* whole = nullptr;  // replaces the first value if it arrived in pieces

  const TolkValue* at(int position) const {
    return position == 0 && whole != nullptr ? whole : in.GetValue(position);
  }
  int count() const { return in.ParamsSize(); }
};

struct Method {
  MethodInfo info;
  std::function<void(const Invocation&)> run;
};

// The types of a callable.
template <class F>
struct Signature : Signature<decltype(&F::operator())> {};
template <class R, class... A>
struct Signature<R(A...)> {
  using Result = R;
  template <template <class, class...> class To>
  using Apply = To<R, A...>;
};
template <class R, class... A>
struct Signature<R (*)(A...)> : Signature<R(A...)> {};
template <class R, class... A>
struct Signature<R (*)(A...) noexcept> : Signature<R(A...)> {};
template <class C, class R, class... A>
struct Signature<R (C::*)(A...)> : Signature<R(A...)> {};
template <class C, class R, class... A>
struct Signature<R (C::*)(A...) const> : Signature<R(A...)> {};
template <class C, class R, class... A>
struct Signature<R (C::*)(A...) noexcept> : Signature<R(A...)> {};
template <class C, class R, class... A>
struct Signature<R (C::*)(A...) const noexcept> : Signature<R(A...)> {};

template <class F>
concept HasSignature = std::is_pointer_v<F> || requires {
  &F::operator();
};

// One parameter of a handler: whether it is positional, how it is filled, and its name.
template <class T>
struct Parameter {
  static constexpr bool kPositional = true;
  static constexpr bool kTakesAll = false;
  static constexpr bool kNeeded = true;

  static std::string name() { return Codec<T>::name(); }
  static void fill(const Invocation& call, int position, T& to) {
    const TolkValue* const from = call.at(position);
    if (Placed<T>::get(from, call.in, to)) return;
    throw BadArguments("argument " + std::to_string(position + 1) +
                       Placed<T>::misfit(from, call.in));
  }
};

template <class T>
struct Parameter<std::optional<T>> {
  static constexpr bool kPositional = true;
  static constexpr bool kTakesAll = false;
  static constexpr bool kNeeded = false;

  static std::string name() { return Codec<std::optional<T>>::name(); }
  static void fill(const Invocation& call, int position, std::optional<T>& to) {
    if (call.at(position) != nullptr) Parameter<T>::fill(call, position, to.emplace());
  }
};

template <class T>
struct NotPositional {
  static constexpr bool kPositional = false;
  static constexpr bool kTakesAll = false;
  static constexpr bool kNeeded = false;
};

template <>
struct Parameter<Caller> : NotPositional<Caller> {
  static std::string name() { return {}; }
  static void fill(const Invocation& call, int, std::optional<Caller>& to) {
    to.emplace(call.caller_id, call.method, call.back);
  }
};

template <>
struct Parameter<Values> : NotPositional<Values> {
  static constexpr bool kTakesAll = true;
  static std::string name() { return "..."; }
  static void fill(const Invocation& call, int, Values& to) {
    to = Values::of(call.in, call.whole);
  }
};

template <KeyText Name, class T>
struct Parameter<named<Name, T>> : NotPositional<T> {
  static_assert(check_carried<T>());

  static std::string name() { return std::string(Name.characters) + ": " + Codec<T>::name(); }
  static void fill(const Invocation& call, int, named<Name, T>& to) {
    const TolkValue* const from = call.in.GetMap(Name.characters);
    if (Codec<T>::get(from, to.value)) return;
    throw BadArguments("argument \"" + std::string(Name.characters) + "\"" + Misfit<T>::text(from));
  }
};

template <class T>
using Stored = std::conditional_t<std::is_same_v<T, Caller>, std::optional<Caller>, T>;

template <class T>
constexpr bool check_parameter() {
  using Plain = std::remove_cvref_t<T>;
  static_assert(
      !std::is_lvalue_reference_v<T> || std::is_const_v<std::remove_reference_t<T>>,
      "tolk: a handler can't change its caller's arguments: take them by value or const&");
  static_assert(!std::is_same_v<Plain, const char*>,
                "tolk: a handler takes a text as std::string or std::string_view, not const char*");
  if constexpr (Parameter<Plain>::kPositional) static_assert(check_carried<Plain>());
  return true;
}

// Adds the return value of a handler to the answer.
template <class T>
struct Returned {
  static_assert(check_carried<T>());
  static std::string name() { return Codec<T>::name(); }
  static void put(TolkParams& out, const T& v) {
    if constexpr (Described<T>) {
      Codec<T>::put_fields(out, v);  // so that the plain interface can read them by name
    } else {
      Codec<T>::put(Position{out}, v);
    }
  }
};

template <>
struct Returned<Values> {
  static std::string name() { return "..."; }
  static void put(TolkParams& out, const Values& v) { v.put(out); }
};

template <class... Ts>
struct Returned<std::tuple<Ts...>> {
  static_assert((check_carried<Ts>() && ...));
  static std::string name() { return Answer<std::tuple<Ts...>>::name(); }
  static void put(TolkParams& out, const std::tuple<Ts...>& v) {
    std::apply([&](const Ts&... each) { (Codec<Ts>::put(Position{out}, each), ...); }, v);
  }
};

template <class R, class... A>
struct Adapter {
  static constexpr int kPositions = (0 + ... + (Parameter<std::remove_cvref_t<A>>::kPositional));
  static constexpr int kNeeded = (0 + ... + (Parameter<std::remove_cvref_t<A>>::kNeeded));
  static constexpr bool kTakesAll = (false || ... || Parameter<std::remove_cvref_t<A>>::kTakesAll);
  static_assert((true && ... && check_parameter<A>()));
  static_assert(!kTakesAll || kPositions == 0,
                "tolk: a handler that takes tolk::Values takes no other positional parameter");

  static std::string signature() {
    std::string text;
    [[maybe_unused]] const auto add = [&text](const std::string& name) {
      if (!name.empty()) text += (text.empty() ? "" : ", ") + name;
    };
    (add(Parameter<std::remove_cvref_t<A>>::name()), ...);
    text = "(" + text + ")";
    if constexpr (!std::is_void_v<R>) text += " -> " + Returned<std::remove_cvref_t<R>>::name();
    return text;
  }

  template <class F>
  static void run(F& handler, const Invocation& call) {
    check_count(call);
    run(handler, call, std::index_sequence_for<A...>());
  }

 private:
  static void check_count(const Invocation& call) {
    const int got = call.count();
    const bool few = got < kNeeded && call.in.MapSize() == 0;
    if (kTakesAll || (!few && got <= kPositions)) return;
    const std::string bound = kNeeded == kPositions ? "" : few ? "at least " : "at most ";
    const int takes = few ? kNeeded : kPositions;
    throw BadArguments("takes " + bound + std::to_string(takes) +
                       (takes == 1 ? " argument, got " : " arguments, got ") + std::to_string(got));
  }

  // The position of the parameter with this index: the number of positional parameters before it.
  static constexpr int position_of(std::size_t index) {
    constexpr bool kAre[] = {Parameter<std::remove_cvref_t<A>>::kPositional..., false};
    int position = 0;
    for (std::size_t i = 0; i < index; ++i) position += kAre[i] ? 1 : 0;
    return position;
  }

  template <class F, std::size_t... I>
  static void run(F& handler, const Invocation& call, std::index_sequence<I...>) {
    [[maybe_unused]] std::tuple<Stored<std::remove_cvref_t<A>>...> values;
    (Parameter<std::remove_cvref_t<A>>::fill(call, position_of(I), std::get<I>(values)), ...);
    if constexpr (std::is_void_v<R>) {
      handler(static_cast<A&&>(taken<A>(std::get<I>(values)))...);
    } else {
      Returned<std::remove_cvref_t<R>>::put(
          call.out, handler(static_cast<A&&>(taken<A>(std::get<I>(values)))...));
    }
  }

  template <class Wanted, class T>
  static decltype(auto) taken(T& value) {
    if constexpr (std::is_same_v<std::remove_cvref_t<Wanted>, Caller>) {
      return static_cast<Caller&>(*value);
    } else {
      return static_cast<T&>(value);
    }
  }
};

template <class F>
Method make_method(std::string_view name, F handler, std::string about) {
  static_assert(HasSignature<F>,
                "tolk: a handler is a function, or a lambda whose parameters have types (no auto)");
  if constexpr (HasSignature<F>) {
    using Adapted = typename Signature<F>::template Apply<Adapter>;
    // Shared, so that a handler may be move-only.
    const auto shared = std::make_shared<F>(std::move(handler));
    return {{std::string(name), Adapted::signature(), std::move(about)},
            [shared](const Invocation& call) { Adapted::run(*shared, call); }};
  } else {
    return {};
  }
}

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
