#include "tools/tolk/command/failure.h"

namespace tolk::tool {
namespace {

Exit exit_of(Errc code) {
  switch (code) {
    case Errc::not_connected:
    case Errc::gone:
      return Exit::cannot_connect;
    case Errc::refused_version:
      return Exit::refused_version;
    case Errc::timed_out:
      return Exit::timed_out;
    case Errc::no_such_method:
      return Exit::no_such_method;
    case Errc::handler_failed:
    case Errc::wrong_arguments:
      return Exit::handler_failed;
    case Errc::bad_address:
      return Exit::usage;
    default:
      return Exit::failed;
  }
}

// What to try on a command line. The layer's own hint is for programs.
std::string hint_of(const Error& error) {
  const std::string& address = error.address();
  switch (error.code()) {
    case Errc::not_connected:
      // `tolk list` shows neither servers of other users nor those on other machines.
      return address.starts_with("tcp")
                 ? "start the server first, and check the address and the port"
                 : "start the server first, as the same user; tolk list shows those that run";
    case Errc::timed_out:
      return "allow more time with --timeout 30s, or check what the handler is doing";
    case Errc::no_such_method:
    case Errc::wrong_arguments:
      return "tolk describe " + address + " shows the methods, if the server tells them";
    case Errc::handler_failed:
      return "read the text, it is the handler's own";
    default:
      return error.hint();
  }
}

}  // namespace

Error unnamed(const Error& error) {
  return {error.code(), "", error.address(), error.detail(), error.hint()};
}

Failure failure_of(const Error& error, std::string_view method) {
  if (!error.method().empty() || method.empty()) {
    return {exit_of(error.code()), error.what(), hint_of(error)};
  }
  return failure_of(Error(error.code(), method, error.address(), error.detail(), error.hint()));
}

Failure failure_at(const std::string& subject, const Failure& failure) {
  return {failure.exit, subject + ": " + failure.what(), failure.hint};
}

}  // namespace tolk::tool
