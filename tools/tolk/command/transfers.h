// What `tolk send` and `tolk fetch` share: the options, and how a transfer is shown and ended.
//
// Thread: the main thread; the progress runs on a worker. Failure: Failure.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <tolk/tolk.hpp>

#include "tools/tolk/command/call_arguments.h"
#include "tools/tolk/command/common_options.h"

namespace tolk::tool {

struct TransferOptions {
  std::string address;
  std::string method;
  std::string file;
  std::string name;  // of `tolk send`
  ArgumentTexts arguments;

  std::string at() const { return method + " at " + address; }
};

using RunTransfer = std::function<void(const TransferOptions&, const CommonOptions&)>;

// Adds these options to a subcommand; `run` does its work.
std::shared_ptr<TransferOptions> add_transfer(CLI::App& command, CommonOptions& options,
                                              const char* about_file, const RunTransfer& run);

// Connects and runs `move` with the client, what reports its progress, the limit for each piece and
// for the run of the method, and what an interrupt cancels. `shown` is the name of what moves.
// Returns the result of the call.
using Move = std::function<Result<Values>(Client& client, const Function<void(Progress)>& report,
                                          std::chrono::milliseconds limit, std::stop_token stop)>;
Values run_transfer(const TransferOptions& transfer, const CommonOptions& options,
                    const std::string& shown, const Move& move);

}  // namespace tolk::tool
