// tolk listen: prints every call that arrives.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>
#include <memory>
#include <mutex>
#include <optional>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/command/serving.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/printable.h"
#include "tools/tolk/text/shortened.h"

namespace tolk::tool {
namespace {

struct ListenOptions {
  std::string address;
  std::string answer;
  int count = 0;
  bool full = false;
};

// The calls that were printed, by any thread.
struct PrintedCalls {
  std::mutex mutex;
  int count = 0;
  std::optional<Failure> failed;  // of the output
};

std::string line_of(const Caller& caller, const Json& arguments, JsonStyle style) {
  const Colors& c = Output::get().data_colors();
  if (style != JsonStyle::off) {
    const Json json = {
        {"client", caller.id()}, {"method", caller.method()}, {"arguments", arguments}};
    return colored(json, style, c) + "\n";
  }
  return fmt::format("{}{:%T}{} client {}: {}{}{} {}\n", c.dim, fmt::localtime(std::time(nullptr)),
                     c.off, caller.id(), c.name, harmless(caller.method()), c.off,
                     colored(arguments, JsonStyle::brief, c));
}

// Prints one call at a time, and no more calls than `most`, unless that is 0.
void print_call(PrintedCalls& printed, int most, const std::string& line) {
  const std::lock_guard<std::mutex> lock(printed.mutex);
  if (printed.failed || (most > 0 && printed.count >= most)) return;
  ++printed.count;
  try {
    Output::get().data(line);
  } catch (const Failure& failure) {
    printed.failed = failure;  // nobody reads the output any more
  }
  if (printed.count == most || printed.failed) ask_to_end();
}

Values answer_of(const ListenOptions& listen) {
  const std::string& text = listen.answer;
  if (text.empty()) return {};
  try {
    return result_from(json_from(text));
  } catch (const BadJson& bad) {
    throw Failure(Exit::usage,
                  "listen at " + listen.address + ": --answer " + text + ": " + bad.what(),
                  "write JSON, quoted for the shell: '\"text\"'");
  }
}

void run(const ListenOptions& listen, const CommonOptions& options) {
  const Values answer = answer_of(listen);
  PrintedCalls printed;
  ConnectedClients clients;
  Server server(Options{.clients_may_stop = true});
  server.on_any([&](const Caller& caller, const Values& arguments) {
    const Json json = arguments_to_json(arguments);
    print_call(printed, listen.count,
               line_of(caller, listen.full ? json : shortened(json), options.json));
    return Values(answer);
  });
  clients.watch(server);
  serve_until_end(server, listen.address, "listen", [&] {
    if (listen.count > 0) clients.wait_until_gone();
  });
  if (printed.failed) throw failure_at("listen at " + listen.address, *printed.failed);
}

}  // namespace

void add_listen(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "listen", "Listen, and print every call that arrives, of whatever method");
  const auto listen = std::make_shared<ListenOptions>();
  add_address(command, listen->address);
  add_count_flag(command, listen->count, "End after this many calls; 0 is never");
  command.add_option("--answer", listen->answer, "The result of every call; none if not given")
      ->type_name("JSON");
  command.add_flag("--full", listen->full,
                   "Print all of long values, instead of their size and their begin");
  add_json_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk listen pipe:5001\n"
               "  tolk listen 5001 --json --count 10\n"
               "  tolk listen tcp4:127.0.0.1:5001 --answer '\"thank you\"'");
  command.callback([listen, &options] { run(*listen, options); });
}

}  // namespace tolk::tool
