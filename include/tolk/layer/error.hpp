/// @file
/// Errors, and results that are a value or an error.
///
/// Thread: values, one thread at a time. Failure: Result::value() throws the Error of the result.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace tolk {
inline namespace v1 {

/// The kind of a failure.
enum class Errc {
  not_connected,    ///< nobody listens there, or this end is closed or was never connected
  refused_version,  ///< the server has another version
  cannot_listen,    ///< the address is taken or cannot be used
  timed_out,        ///< no answer came within the limit; the method may still run
  gone,             ///< the connection has ended
  interrupted,      ///< another client of this process closed; the call may have run
  no_such_method,   ///< the peer has no method of that name
  handler_failed,   ///< the peer's handler threw; the detail is the exception's text
  wrong_arguments,  ///< the peer's handler takes other arguments; the detail says which
  wrong_type,       ///< the result has another type
  cancelled,        ///< a progress callback cancelled the transfer
  too_large,        ///< more bytes than one call can carry
  bad_address,      ///< the text is not an address
  misuse,           ///< an error in the calling program
};

/// Returns the name of the enumerator: `"timed_out"`.
inline const char* to_string(Errc code) noexcept {
  switch (code) {
    case Errc::not_connected:
      return "not_connected";
    case Errc::refused_version:
      return "refused_version";
    case Errc::cannot_listen:
      return "cannot_listen";
    case Errc::timed_out:
      return "timed_out";
    case Errc::gone:
      return "gone";
    case Errc::interrupted:
      return "interrupted";
    case Errc::no_such_method:
      return "no_such_method";
    case Errc::handler_failed:
      return "handler_failed";
    case Errc::wrong_arguments:
      return "wrong_arguments";
    case Errc::wrong_type:
      return "wrong_type";
    case Errc::cancelled:
      return "cancelled";
    case Errc::too_large:
      return "too_large";
    case Errc::bad_address:
      return "bad_address";
    case Errc::misuse:
      break;
  }
  return "misuse";
}

/// A failure, with its method, address and reason. `what()` is one line with all of it:
/// `add at pipe:5000: timed out after 500 ms`.
class Error : public std::runtime_error {
 public:
  /// `method` and `address` may be empty. `detail` says what happened. `hint`, a string literal,
  /// replaces the hint of the code.
  Error(Errc code, std::string_view method, std::string_view address, std::string_view detail,
        const char* hint = nullptr)
      : std::runtime_error(line(code, method, address, detail)),
        code_(code),
        method_(method),
        address_(address),
        detail_(detail),
        hint_(hint) {}

  /// The kind of failure.
  Errc code() const noexcept { return code_; }
  /// The called method, or an empty string.
  const std::string& method() const noexcept { return method_; }
  /// The text form of the peer's address, or an empty string.
  const std::string& address() const noexcept { return address_; }
  /// What happened, without method and address. For Errc::handler_failed and Errc::wrong_arguments
  /// it is the peer's text.
  const std::string& detail() const noexcept { return detail_; }
  /// A remedy, as a sentence without a full stop.
  const char* hint() const noexcept { return hint_ != nullptr ? hint_ : hint_of(code_); }

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

  static const char* hint_of(Errc code) noexcept {
    switch (code) {
      case Errc::not_connected:
        return "start the server first, as the same user, and use its address";
      case Errc::refused_version:
        return "use the same version of the library on both sides";
      case Errc::cannot_listen:
        return "stop the other server of that address, or choose another";
      case Errc::timed_out:
        return "allow more time, or look what the handler is doing";
      case Errc::gone:
        return "look why the other process ended, and connect again";
      case Errc::interrupted:
        return "call again if the method may run twice";
      case Errc::no_such_method:
        return "look at the name, and register the method before the first call";
      case Errc::handler_failed:
        return "look at the text, it is the handler's own";
      case Errc::wrong_arguments:
        return "pass the arguments that the handler takes";
      case Errc::wrong_type:
        return "ask for the type that the method returns";
      case Errc::cancelled:
        return "nothing, the callback wanted it so";
      case Errc::too_large:
        return "send it in parts";
      case Errc::bad_address:
        return "write pipe:5000, tcp4:127.0.0.1:5000, tcp6:[::1]:5000 or 5000";
      case Errc::misuse:
        break;
    }
    return "correct the program";
  }

  Errc code_;
  std::string method_;
  std::string address_;
  std::string detail_;
  const char* hint_;
};

/// A value or an Error.
///
/// Thread: one thread at a time. Owner: the result owns a copy of the value.
template <class T>
class [[nodiscard]] Result {
 public:
  /// A success.
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  /// A failure.
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

  /// Whether there is a value.
  bool has_value() const noexcept { return state_.index() == 0; }
  /// Whether there is a value.
  explicit operator bool() const noexcept { return has_value(); }

  /// Returns the value, or throws the Error.
  const T& value() const& {
    throw_if_failed();
    return std::get<0>(state_);
  }
  /// Returns the value, moved out of the result, or throws the Error.
  T value() && {
    throw_if_failed();
    return std::get<0>(std::move(state_));
  }
  /// Returns the value, or `other` without a value.
  T value_or(T other) const { return has_value() ? std::get<0>(state_) : std::move(other); }

  /// The value. There must be one.
  const T& operator*() const { return std::get<0>(state_); }
  /// A member of the value. There must be a value.
  const T* operator->() const { return &std::get<0>(state_); }

  /// The error. There must be no value.
  const Error& error() const { return std::get<1>(state_); }

 private:
  void throw_if_failed() const {
    if (!has_value()) throw Error(std::get<1>(state_));
  }

  std::variant<T, Error> state_;
};

/// Success or an Error. It may be ignored.
template <>
class Result<void> {
 public:
  /// A success.
  Result() = default;
  /// A failure.
  Result(Error error) : error_(std::move(error)) {}

  /// Whether the operation succeeded.
  bool has_value() const noexcept { return !error_; }
  /// Whether the operation succeeded.
  explicit operator bool() const noexcept { return has_value(); }
  /// Throws the Error of a failure.
  void value() const {
    if (error_) throw Error(*error_);
  }
  /// The error. The operation must have failed.
  const Error& error() const { return error_.value(); }

 private:
  std::optional<Error> error_;
};

}  // namespace v1
}  // namespace tolk
