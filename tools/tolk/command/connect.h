// The client of a subcommand that calls a server.
//
// Thread: any. Owner: the process keeps every client until it ends. Failure: Failure.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>

#include "tools/tolk/command/common_options.h"
#include "tools/tolk/command/failure.h"

namespace tolk::tool {

// Connects within the timeout. The client is never destroyed: the process may end while the attempt
// still goes on, and the system closes the connection. `method` is what the subcommand wants to
// call, for the text of a Failure.
Client& connect_to(const std::string& address, std::string_view method,
                   const CommonOptions& options);

// The failure of a call. If there is no such method, it asks the server for a name that is meant.
Failure failure_of_call(Client& client, const Error& error);

// Waits until the server has read all that was sent before. Every server answers this. Returns how
// long that took, or an error that names no method.
Result<std::chrono::nanoseconds> round_trip(Client& client, std::chrono::milliseconds limit);

}  // namespace tolk::tool
