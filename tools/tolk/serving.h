// What the commands that listen have in common: from the start of a server to its end.
//
// Thread: the main thread. Failure: Failure.
#pragma once

#include <functional>
#include <string>
#include <tolk/tolk.hpp>
#include <utility>

#include "tools/tolk/command.h"

namespace tolk::tool {

// Registers the method that the command line names.
template <class Handler>
void add_method(Server& server, const std::string& address, const std::string& method,
                Handler handler, const std::string& about) {
  try {
    server.on(method, std::move(handler), about);
  } catch (const Error& error) {
    throw Failure(Exit::usage, Error(error.code(), method, address, error.detail()).what(),
                  "choose another name; the library has retval, s_c_... and tolk... for itself");
  }
}

// Listens, says so, and returns when the server has ended: by a signal, by a client's request, or
// because ask_to_end was called. `before_close` ends what handlers may be waiting for.
// `method` is what is served, for the text of a Failure.
void serve_until_end(Server& server, const std::string& address, const std::string& method,
                     const std::function<void()>& before_close = nullptr);

}  // namespace tolk::tool
