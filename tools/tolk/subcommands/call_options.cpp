#include "tools/tolk/subcommands/call_options.h"

#include <memory>

#include "tools/tolk/command/flags.h"

namespace tolk::tool {

CLI::App& add_call_command(CLI::App& app, CommonOptions& options, const char* name,
                           const char* about, const RunCall& run) {
  CLI::App& command = *app.add_subcommand(name, about);
  const auto call = std::make_shared<CallOptions>();
  add_address(command, call->address);
  add_method_name(command, call->method, "The name of the method");
  add_arguments(command, call->texts, options);
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  command.callback([call, run, &options] { run(*call, options); });
  return command;
}

}  // namespace tolk::tool
