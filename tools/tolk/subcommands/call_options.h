// What `tolk call` and `tolk post` share: the options of one call of one method.
//
// Thread: the main thread. Failure: Failure.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <tolk/tolk.hpp>

#include "tools/tolk/command/call_arguments.h"
#include "tools/tolk/command/common_options.h"

namespace tolk::tool {

struct CallOptions {
  std::string address;
  std::string method;
  ArgumentTexts texts;

  Values arguments() const { return arguments_of(texts, method, address); }
};

using RunCall = std::function<void(const CallOptions&, const CommonOptions&)>;

// Adds a subcommand of these options; `run` does its work.
CLI::App& add_call_command(CLI::App& app, CommonOptions& options, const char* name,
                           const char* about, const RunCall& run);

}  // namespace tolk::tool
