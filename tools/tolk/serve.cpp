// tolk serve: a method that a command implements.
#include <memory>

#include "tools/tolk/child.h"
#include "tools/tolk/command.h"
#include "tools/tolk/json_text.h"
#include "tools/tolk/output.h"
#include "tools/tolk/serving.h"

namespace tolk::tool {
namespace {

struct Served {
  std::string address;
  std::string method;
  std::vector<std::string> command;
};

// What is JSON is the value that it says. Anything else is a text, without its last line end.
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

Values run_for(const Served& served, const Options& options, const Caller& caller,
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

void run(const Served& served, const Options& options) {
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

void add_serve(CLI::App& app, Options& options) {
  CLI::App& command = *app.add_subcommand("serve", "Serve a method with a command");
  const auto served = std::make_shared<Served>();
  add_address(command, served->address);
  command.add_option("METHOD", served->method, "The name of the method")->type_name("")->required();
  command.add_option("COMMAND", served->command, "The command and its arguments, behind --")
      ->type_name("")
      ->required();
  command
      .add_option_function<std::string>(
          "--timeout",
          [&options](const std::string& text) {
            options.timeout = duration_from("--timeout", text);
            options.timeout_given = true;
          },
          "How long the command may take for a call: 500ms, 2s, 1.5m;\nno limit if not given")
      ->type_name("TIME");
  add_output_flags(command, options);
  add_examples(command,
               "  tolk serve pipe:5001 upper -- tr a-z A-Z\n"
               "  tolk serve 5001 now -- date\n"
               "  tolk serve tcp4:127.0.0.1:5001 count --timeout 2s -v -- sh -c 'wc -c'",
               "The command is run for each call, with the arguments as a JSON array on its\n"
               "standard input, keyed ones in an object at the end of it. What it prints is the\n"
               "result: JSON, or else a text. If it ends with another code than 0, the call has\n"
               "failed, and the caller is told what it printed to standard error.");
  command.callback([served, &options] { run(*served, options); });
}

}  // namespace tolk::tool
