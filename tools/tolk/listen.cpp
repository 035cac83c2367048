// tolk listen: prints every call that arrives.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "tools/tolk/command.h"
#include "tools/tolk/interrupt.h"
#include "tools/tolk/json_text.h"
#include "tools/tolk/output.h"
#include "tools/tolk/printable.h"
#include "tools/tolk/serving.h"

namespace tolk::tool {
namespace {

struct Listen {
  std::string address;
  std::string answer;
  int count = 0;
  std::mutex mutex;
  std::condition_variable changed;
  int seen = 0;
  std::set<int> clients;
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

// One at a time, so that no more are printed than were asked for.
void note_call(Listen& listen, const Caller& caller, const Values& arguments, JsonStyle style) {
  const std::lock_guard<std::mutex> lock(listen.mutex);
  if (listen.failed || (listen.count > 0 && listen.seen >= listen.count)) return;
  ++listen.seen;
  try {
    Output::get().data(line_of(caller, arguments_to_json(arguments), style));
  } catch (const Failure& failure) {
    listen.failed = failure;  // nobody reads what is printed any more
  }
  if (listen.seen == listen.count || listen.failed) ask_to_end();
}

Values answer_of(const Listen& listen) {
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

// After the last call that was asked for: its answer may still be on its way. Who has it mostly
// leaves; who stays has had time enough.
void let_answers_out(Listen& listen) {
  if (listen.count == 0 || was_interrupted()) return;
  constexpr std::chrono::seconds kEnough{1};
  std::unique_lock<std::mutex> lock(listen.mutex);
  listen.changed.wait_for(lock, kEnough, [&] { return listen.clients.empty(); });
}

void run(Listen& listen, const Options& options) {
  const Values answer = answer_of(listen);
  Server server;
  server.on_any([&](const Caller& caller, const Values& arguments) {
    note_call(listen, caller, arguments, options.json);
    return Values(answer);
  });
  server.on_connect([&](int client) {
    const std::lock_guard<std::mutex> lock(listen.mutex);
    listen.clients.insert(client);
  });
  server.on_closed([&](int client) {
    const std::lock_guard<std::mutex> lock(listen.mutex);
    listen.clients.erase(client);
    listen.changed.notify_all();
  });
  serve_until_end(server, listen.address, "listen", [&] { let_answers_out(listen); });
  if (!listen.failed) return;
  throw Failure(listen.failed->exit, "listen at " + listen.address + ": " + listen.failed->what(),
                listen.failed->hint);
}

}  // namespace

void add_listen(CLI::App& app, Options& options) {
  CLI::App& command = *app.add_subcommand(
      "listen", "Listen, and print every call that arrives, of whatever method");
  const auto listen = std::make_shared<Listen>();
  add_address(command, listen->address);
  command.add_option("-c,--count", listen->count, "End after so many calls; 0 is no end")
      ->check(count_from_zero())
      ->type_name("N");
  command.add_option("--answer", listen->answer, "The result of every call; none if not given")
      ->type_name("JSON");
  add_json_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk listen pipe:5001\n"
               "  tolk listen 5001 --json=short --count 10\n"
               "  tolk listen tcp4:127.0.0.1:5001 --answer '\"thank you\"'");
  command.callback([listen, &options] { run(*listen, options); });
}

}  // namespace tolk::tool
