// Exit codes, and the error that ends the command.
//
// Thread: values. Failure: std::bad_alloc.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>
#include <utility>

namespace tolk::tool {

// What the process ends with. Scripts rely on these numbers.
enum class Exit {
  ok = 0,
  failed = 1,  // anything that has no number of its own
  usage = 2,
  cannot_connect = 3,  // also: the server has gone
  timed_out = 4,
  no_such_method = 5,
  handler_failed = 6,  // also: it takes other arguments
  refused_version = 7,
  interrupted = 130,
};

// Why the command ends without having done what it was asked to do.
struct Failure : std::runtime_error {
  // `text` names the method, the address and what happened; `hint` is what to try, without a full
  // stop.
  Failure(Exit exit_code, const std::string& text, std::string hint_text)
      : std::runtime_error(text), exit(exit_code), hint(std::move(hint_text)) {}

  Exit exit;
  std::string hint;
};

// The same error without its method, for a subcommand whose user did not name that method.
Error unnamed(const Error& error);

// The failure for an error of the C++ layer. If the error names no method, the text names `method`:
// what the command wanted to call when the connection failed.
Failure failure_of(const Error& error, std::string_view method = {});

// The same failure with `subject` and a colon before its text: what the command worked on.
Failure failure_at(const std::string& subject, const Failure& failure);

}  // namespace tolk::tool
