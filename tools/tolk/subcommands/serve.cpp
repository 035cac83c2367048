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
  std::string method;  // the name of the only one, or the first METHOD=COMMAND
  std::vector<std::string> command;
};

struct ServedMethod {
  std::string name;
  std::vector<std::string> command;
  std::string about;
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

// METHOD -- COMMAND..., or any number of METHOD=COMMAND, whose commands the shell reads.
std::vector<ServedMethod> methods_of(const ServeOptions& serve) {
  const bool is_one = serve.method.find('=') == std::string::npos;
  if (is_one && !serve.command.empty()) {
    return {{serve.method, serve.command, "runs " + joined(serve.command)}};
  }
  std::vector<std::string> words = serve.command;
  words.insert(words.begin(), serve.method);
  std::vector<ServedMethod> methods;
  for (const std::string& word : words) {
    const std::size_t sign = word.find('=');
    if (sign == std::string::npos) {
      throw Failure(Exit::usage, word + " at " + serve.address + ": there is no command for it",
                    "write METHOD -- COMMAND, or METHOD='COMMAND' for each of several methods");
    }
    const std::string line = word.substr(sign + 1);
    methods.push_back({word.substr(0, sign), shell_command(line), "runs " + line});
  }
  return methods;
}

Values run_for(const ServedMethod& served, const CommonOptions& options, const Caller& caller,
               const Values& arguments) {
  const std::string input = arguments_to_json(arguments).dump();
  const std::string who = "client " + std::to_string(caller.id()) + ": " + served.name;
  Output::get().detail(who + " " + input);
  const auto limit = options.timeout_given ? options.timeout : forever;
  try {
    return result_in(output_of(served.command, input + "\n", limit));
  } catch (const std::exception& error) {
    Output::get().note(who + ": failed: " + error.what());
    throw;
  }
}

void add(Server& server, const ServeOptions& serve, const CommonOptions& options,
         const ServedMethod& served) {
  if (!is_program(served.command.front())) {
    throw Failure(
        Exit::usage,
        served.name + " at " + serve.address + ": there is no program " + served.command.front(),
        "name one that is in PATH, or its path");
  }
  adding_method(serve.address, served.name, [&] {
    server.on(
        served.name,
        [served, &options](const Caller& caller, const Values& arguments) {
          return run_for(served, options, caller, arguments);
        },
        served.about);
  });
}

void run(const ServeOptions& serve, const CommonOptions& options) {
  Server server(Options{.clients_may_stop = true});
  const std::vector<ServedMethod> methods = methods_of(serve);
  for (const ServedMethod& served : methods) add(server, serve, options, served);
  serve_until_end(server, serve.address, methods.front().name, end_children);
}

}  // namespace

void add_serve(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand("serve", "Serve methods with commands");
  const auto served = std::make_shared<ServeOptions>();
  add_address(command, served->address);
  command
      .add_option("METHOD", served->method,
                  "The name of the method; or METHOD='COMMAND', once for each of\n"
                  "several methods, with commands for the shell")
      ->type_name("")
      ->required();
  command.add_option("COMMAND", served->command, "The command and its arguments, after --")
      ->type_name("");
  add_timeout_flag(
      command, options,
      "How long the command may take for a call: 500ms, 2s, 1.5m;\nno limit if not given");
  add_output_flags(command, options);
  add_examples(
      command,
      "  tolk serve pipe:5001 upper -- tr a-z A-Z\n"
      "  tolk serve 5001 upper='tr a-z A-Z' now=date\n"
      "  tolk serve tcp4:127.0.0.1:5001 count --timeout 2s -v -- sh -c 'wc -c'",
      "The command is run for each call, with the arguments as a JSON array on its\n"
      "standard input, keyed ones in an object at its end. What the command prints is the\n"
      "result: JSON, or else a text. If it ends with another code than 0, the call has\n"
      "failed, and the caller is told what it printed to standard error.");
  command.callback([served, &options] { run(*served, options); });
}

}  // namespace tolk::tool
