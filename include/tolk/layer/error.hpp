/// @file
/// Errors, and results that are a value or an error.
///
/// Thread: values, one thread at a time. Failure: Result::value() throws the Error of the result.
#pragma once

#include <stdexcept>
#include <tolk/layer/value.hpp>

namespace tolk {
inline namespace v1 {

/// The kind of a failure.
enum class Errc {
  not_connected,    ///< nobody listens there, or this end is closed or was never connected
  refused_version,  ///< the server has another version
  cannot_listen,    ///< the address is taken or cannot be used
  timed_out,        ///< no answer came within the limit; the method may still run
  gone,             ///< the connection has ended
  interrupted,      ///< of earlier versions: no call ends so any more
  no_such_method,   ///< the peer has no method of that name
  handler_failed,   ///< the peer's handler or on_receiving failed; the detail is its text
  wrong_arguments,  ///< the peer's handler takes other arguments; the detail says which
  wrong_type,       ///< the result has another type
  unanswered,       ///< the peer's handler ended without an answer
  cancelled,        ///< a stop token, the caller's progress callback, or a peer in C or Python
  busy,             ///< too much is waiting
  too_large,        ///< more bytes than one call, or the peer, takes
  malformed,        ///< the peer has sent bytes that have no meaning
  file,             ///< a file of a transfer cannot be read or written
  bad_address,      ///< the text is not an address
  no_memory,        ///< no memory for the call or its result
  misuse,           ///< an error in the calling program
};

/// @cond internal
namespace detail {
// The name and the hint of each.
inline constexpr const char* kErrcTexts[][2] = {
    {"not_connected", "start the server first, as the same user, and use its address"},
    {"refused_version", "use the same version of the library on both sides"},
    {"cannot_listen", "stop the other server of that address, or choose another"},
    {"timed_out", "allow more time, or look what the handler is doing"},
    {"gone", "look why the other process ended, and connect again"},
    {"interrupted", "call again if the method may run twice"},
    {"no_such_method", "look at the name, and register the method before the first call"},
    {"handler_failed", "look at the text, it is the handler's own"},
    {"wrong_arguments", "pass the arguments that the handler takes"},
    {"wrong_type", "ask for the type that the method returns"},
    {"unanswered", "look why the handler does not answer"},
    {"cancelled", "nothing, somebody wanted it so"},
    {"busy", "call again later, or allow more"},
    {"too_large", "send it in parts, or as a transfer"},
    {"malformed", "look at who has made the bytes"},
    {"file", "look at the path, its rights and the space left"},
    {"bad_address", "write pipe:5000, tcp4:127.0.0.1:5000, tcp6:[::1]:5000 or 5000"},
    {"no_memory", "free memory, or send less at a time"},
    {"misuse", "correct the program"},
};
}  // namespace detail
/// @endcond

/// Returns the name of the enumerator: `"timed_out"`.
inline const char* to_string(Errc code) noexcept {
  return detail::kErrcTexts[static_cast<std::size_t>(code)][0];
}

/// A failure, with its method, address and reason. `what()` is one line with all of it:
/// `add at pipe:5000: timed out after 500 ms`.
class Error : public std::runtime_error {
 public:
  /// `method` and `address` may be empty. `hint` replaces the hint of the code.
  Error(Errc code, std::string_view method, std::string_view address, std::string_view detail,
        std::string_view hint = {})
      : std::runtime_error(line(code, method, address, detail)),
        code_(code),
        method_(method),
        address_(address),
        detail_(detail),
        hint_(hint.empty() ? detail::kErrcTexts[static_cast<std::size_t>(code)][1] : hint) {}

  /// The kind of failure.
  Errc code() const noexcept { return code_; }
  /// The called method, or an empty string.
  const std::string& method() const noexcept { return method_; }
  /// The text form of the peer's address, or an empty string.
  const std::string& address() const noexcept { return address_; }
  /// What happened. For Errc::handler_failed and Errc::wrong_arguments it is the peer's text.
  const std::string& detail() const noexcept { return detail_; }
  /// A remedy, as a sentence without a full stop.
  const char* hint() const noexcept { return hint_.c_str(); }

  /// For Errc::handler_failed the handler's number, otherwise the system's error number or 0.
  int number() const noexcept { return number_; }
  /// What the handler added to its failure.
  const Values& details() const noexcept { return details_; }

  /// @cond internal
  Error& with(int number, Values details) {
    number_ = number;
    details_ = std::move(details);
    return *this;
  }
  // What a caller reads when a handler ends with this error: each hop is named once, by its caller.
  std::string text_for_caller() const {
    const bool own = code_ == Errc::handler_failed && method_.empty() && address_.empty();
    return own ? detail_ : what();
  }
  /// @endcond

 private:
  static std::string line(Errc code, std::string_view method, std::string_view address,
                          std::string_view detail) {
    std::string text(method);
    if (!method.empty() && !address.empty()) text += " at ";
    text += address;
    if (!text.empty()) text += ": ";
    if (code == Errc::handler_failed) text += "handler failed: ";
    if (code == Errc::wrong_arguments) text += "wrong arguments: ";
    return text += detail;
  }

  Errc code_;
  int number_ = 0;
  std::string method_;
  std::string address_;
  std::string detail_;
  std::string hint_;
  Values details_;
};

/// The failure of a handler, to be thrown or returned: the caller's Error has all of it.
inline Error failure(std::string_view text, int number = 0, Values details = {}) {
  return Error(Errc::handler_failed, "", "", text).with(number, std::move(details));
}

/// A value or an Error.
///
/// Thread: one thread at a time. Owner: the result owns a copy of the value.
template <class T>
class [[nodiscard]] Result {
 public:
  using value_type = T;  ///< the type of the value

  /// A success.
  Result(T value) : value_(std::move(value)) {}
  /// A failure.
  Result(Error error) : error_(std::move(error)) {}

  /// Whether there is a value.
  bool has_value() const noexcept { return !error_; }
  /// Whether there is a value.
  explicit operator bool() const noexcept { return !error_; }

  /// Returns the value, or throws the Error.
  const T& value() const& {
    if (error_) throw Error(*error_);
    return *value_;
  }
  /// Returns the value, moved out of the result, or throws the Error.
  T value() && {
    if (error_) throw Error(*error_);
    return *std::move(value_);
  }
  /// Returns the value, or `other` without a value.
  T value_or(T other) const { return value_ ? *value_ : std::move(other); }

  /// The value. There must be one.
  const T& operator*() const { return *value_; }
  /// A member of the value. There must be a value.
  const T* operator->() const { return &*value_; }

  /// The error. There must be no value.
  const Error& error() const { return error_.value(); }

 private:
  std::optional<T> value_;
  std::optional<Error> error_;
};

/// Success or an Error. It may be ignored.
template <>
class Result<void> : public Result<std::monostate> {
 public:
  using value_type = void;  ///< none
  /// A success.
  Result() : Result<std::monostate>(std::monostate()) {}
  /// A failure.
  Result(Error error) : Result<std::monostate>(std::move(error)) {}
  /// Throws the Error of a failure.
  void value() const { (void)Result<std::monostate>::value(); }
};

/// @cond internal
namespace detail {
inline Errc errc_of(const tolk_error* error) noexcept {
  using enum Errc;
  // By status, from TOLK_TIMED_OUT on.
  constexpr Errc kCodes[] = {timed_out,      cancelled,       gone,          not_connected,
                             not_connected,  refused_version, cannot_listen, no_such_method,
                             handler_failed, wrong_arguments, unanswered,    busy,
                             too_large,      malformed,       bad_address,   file,
                             misuse,         no_memory};
  const tolk_status status = tolk_error_status(error);
  if (status == TOLK_OK || status > TOLK_NO_MEMORY) return misuse;
  // Another user's server is as good as none.
  if (status == TOLK_REFUSED && *tolk_error_peer(error) != 0) return not_connected;
  return kCodes[status - 1];
}

// `detail`, if not empty, replaces the reason.
inline Error to_error(const tolk_error* error, std::string_view detail = {}) {
  const std::string address = tolk_error_address(error);
  const std::string peer = tolk_error_peer(error);
  const std::string reason = detail.empty() ? tolk_error_reason(error) : std::string(detail);
  const std::string where =
      peer.empty() || address.empty() ? peer + address : peer + " of " + address;
  Error made(errc_of(error), tolk_error_method(error), where, reason, tolk_error_hint(error));
  return made.with(tolk_error_code(error), Values::of(tolk_error_details(error)));
}
}  // namespace detail
/// @endcond
}  // namespace v1
}  // namespace tolk
