// tolk serve: a method that a command implements.
#include <memory>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/command/serving.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/child.h"
#include "tools/tolk/text/json.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

struct ServeOptions {
  std::string address;
  std::string method;
  std::vector<std::string> command;
};

// The value of a command's output: JSON, or else the text without its last line end.
Values result_in(std::string printed) {
  if (printed.ends_with('\n')) printed.pop_back();
  if (printed.empty()) return {};
  try {
    return result_from(json_from(printed));
  } catch (const BadJson&) {
    Values text;
    text.add(std::move(printed));
    return text;
  }
}

std::string joined(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

Values run_for(const ServeOptions& served, const CommonOptions& options, const Caller& caller,
               const Values& arguments) {
  const std::string input = arguments_to_json(arguments).dump();
  const std::string who = "client " + std::to_string(caller.id()) + ": " + served.method;
  Output::get().detail(who + " " + input);
  const auto limit = options.timeout_given ? options.timeout : forever;
  try {
    return result_in(output_of(served.command, input + "\n", limit));
  } catch (const std::exception& error) {
    Output::get().note(who + ": failed: " + error.what());
    throw;
  }
}

void run(const ServeOptions& served, const CommonOptions& options) {
  if (!is_program(served.command.front())) {
    throw Failure(
        Exit::usage,
        served.method + " at " + served.address + ": there is no program " + served.command.front(),
        "name one that is in PATH, or its path");
  }
  Server server;
  add_method(
      server, served.address, served.method,
      [&](const Caller& caller, const Values& arguments) {
        return run_for(served, options, caller, arguments);
      },
      "runs " + joined(served.command));
  serve_until_end(server, served.address, served.method, end_children);
}

}  // namespace

void add_serve(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand("serve", "Serve a method with a command");
  const auto served = std::make_shared<ServeOptions>();
  add_address(command, served->address);
  command.add_option("METHOD", served->method, "The name of the method")->type_name("")->required();
  command.add_option("COMMAND", served->command, "The command and its arguments, after --")
      ->type_name("")
      ->required();
  add_timeout_flag(
      command, options,
      "How long the command may take for a call: 500ms, 2s, 1.5m;\nno limit if not given");
  add_output_flags(command, options);
  add_examples(
      command,
      "  tolk serve pipe:5001 upper -- tr a-z A-Z\n"
      "  tolk serve 5001 now -- date\n"
      "  tolk serve tcp4:127.0.0.1:5001 count --timeout 2s -v -- sh -c 'wc -c'",
      "The command is run for each call, with the arguments as a JSON array on its\n"
      "standard input, keyed ones in an object at its end. What the command prints is the\n"
      "result: JSON, or else a text. If it ends with another code than 0, the call has\n"
      "failed, and the caller is told what it printed to standard error.");
  command.callback([served, &options] { run(*served, options); });
}

}  // namespace tolk::tool
