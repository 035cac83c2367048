/// @file
/// Why something did not work, and results that are a value or the reason why there is none.
///
/// Thread: values, one thread at a time. Failure: Result::value() throws the Error that it holds.
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

/// What kind of failure an Error tells of.
enum class Errc {
  not_connected,    ///< nobody listens there, or this end was never connected or is closed
  refused_version,  ///< the server speaks another version
  cannot_listen,    ///< the address of a server is taken or can not be used
  timed_out,        ///< no answer came within the limit; the method may still run
  gone,             ///< the peer was connected and is not any more
  interrupted,      ///< another client of this process ended: the call may have run; call again
  no_such_method,   ///< the peer has no method of that name
  handler_failed,   ///< the peer's handler threw; the detail is its text
  wrong_arguments,  ///< the peer's handler takes other arguments; the detail says which
  wrong_type,       ///< the result is of another type than asked for
  cancelled,        ///< a progress callback cancelled the transfer
  too_large,        ///< more bytes than one call can carry
  bad_address,      ///< the text is no address
  misuse,           ///< the program asked for something that can not be
};

/// The name of a code, as it stands in the enumeration: `"timed_out"`.
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

/// What failed, where, and why. `what()` says all of it in one line:
/// `add at pipe:5000: timed out after 500 ms`.
class Error : public std::runtime_error {
 public:
  /// `method` and `address` may be empty, where there is none. `detail` says what happened. `hint`,
  /// a literal, is for a failure that the hint of its code does not fit.
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
  /// The method that was called; empty where none was.
  const std::string& method() const noexcept { return method_; }
  /// The peer's address, as Address prints it; empty where there is none.
  const std::string& address() const noexcept { return address_; }
  /// What happened, without method and address. Of Errc::handler_failed and
  /// Errc::wrong_arguments it is the peer's own text.
  const std::string& detail() const noexcept { return detail_; }
  /// What to try, in one sentence without an end.
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

/// A value, or the Error why there is none.
///
/// Thread: one at a time. Owner: holds the value itself, nothing of the library's.
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

  /// The value; throws the Error if there is none.
  const T& value() const& {
    throw_if_failed();
    return std::get<0>(state_);
  }
  /// The value, moved out; throws the Error if there is none.
  T value() && {
    throw_if_failed();
    return std::get<0>(std::move(state_));
  }
  /// The value, or `other` if there is none.
  T value_or(T other) const { return has_value() ? std::get<0>(state_) : std::move(other); }

  /// The value. Only if there is one.
  const T& operator*() const { return std::get<0>(state_); }
  /// A member of the value. Only if there is one.
  const T* operator->() const { return &std::get<0>(state_); }

  /// Why there is no value. Only if there is none.
  const Error& error() const { return std::get<1>(state_); }

 private:
  void throw_if_failed() const {
    if (!has_value()) throw Error(std::get<1>(state_));
  }

  std::variant<T, Error> state_;
};

/// Done, or the Error why not. It may be ignored.
template <>
class Result<void> {
 public:
  /// A success.
  Result() = default;
  /// A failure.
  Result(Error error) : error_(std::move(error)) {}

  /// Whether it was done.
  bool has_value() const noexcept { return !error_; }
  /// Whether it was done.
  explicit operator bool() const noexcept { return has_value(); }
  /// Throws the Error if it was not done.
  void value() const {
    if (error_) throw Error(*error_);
  }
  /// Why it was not done. Only if it was not.
  const Error& error() const { return error_.value(); }

 private:
  std::optional<Error> error_;
};

}  // namespace v1
}  // namespace tolk
