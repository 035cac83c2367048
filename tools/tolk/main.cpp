// The `tolk` command: calls, servers and what is between them, from a shell.
#include <algorithm>

#include "tools/tolk/arguments.h"
#include "tools/tolk/command.h"
#include "tools/tolk/interrupt.h"
#include "tools/tolk/output.h"
#include "tools/tolk/streams.h"

namespace tolk::tool {
namespace {

void add_all(CLI::App& app, Options& options) {
  app.require_subcommand(1);
  app.set_version_flag("--version", "tolk " TOLK_VERSION);
  add_call(app, options);
  add_post(app, options);
  add_serve(app, options);
  add_list(app, options);
  add_describe(app, options);
  add_ping(app, options);
  add_listen(app, options);
  add_monitor(app, options);
  add_send(app, options);
  add_receive(app, options);
  add_dump(app, options);
  add_bench(app, options);
  add_completion(app, options);
  for (CLI::App* const command : app.get_subcommands([](CLI::App*) { return true; })) {
    unmark_words_of(*command);
  }
}

// The help of the subcommand that was meant.
std::string help_of(const CLI::App& app) {
  const auto meant = app.get_subcommands();
  return meant.empty() ? "tolk --help" : "tolk " + meant.front()->get_name() + " --help";
}

// The library of options says only that one is missing.
void check_subcommand(const CLI::App& app, const std::vector<std::string>& words) {
  if (words.empty() || words.front().starts_with('-')) return;
  const auto is_meant = [&](const CLI::App* sub) { return sub->get_name() == words.front(); };
  if (!app.get_subcommands(is_meant).empty()) return;
  throw Failure(Exit::usage, "there is no subcommand " + unmarked(words.front()), "tolk --help");
}

// What stood there without being meant to, in its order. A command to run has options of its own,
// which are not ours only behind --.
Failure not_expected(const CLI::App& app) {
  const std::vector<std::string> words = app.remaining(true);
  std::string text = words.size() == 1 ? "this is not expected:" : "these are not expected:";
  for (const std::string& word : words) text += " " + unmarked(word);
  const auto meant = app.get_subcommands();
  const bool serves = !meant.empty() && meant.front()->get_name() == "serve";
  return {Exit::usage, text, serves ? "write -- in front of the command to run" : help_of(app)};
}

// Throws what keeps it from its work.
Exit run_line(CLI::App& app, std::vector<std::string> words) {
  Output& output = Output::get();
  try {
    check_subcommand(app, words);
    std::reverse(words.begin(), words.end());  // so the library of options wants them
    app.parse(std::move(words));
  } catch (const CLI::CallForHelp&) {
    output.data(app.help());
    return Exit::ok;
  } catch (const CLI::CallForVersion& version) {
    output.data(std::string(version.what()) + "\n");
    return Exit::ok;
  }
  return was_interrupted() ? Exit::interrupted : Exit::ok;
}

Exit run(int argc, const char* const* argv) {
  set_up_streams();
  Output& output = Output::get();
  take_signals();
  CLI::App app("Calls between processes by method name.", "tolk");
  Options options;
  add_all(app, options);
  // The flags are known once all of the line is read; only then the subcommand begins.
  app.parse_complete_callback([&] { output.set_up(options); });
  try {
    return run_line(app, marked(command_line(argc, argv)));
  } catch (const CLI::ExtrasError&) {
    const Failure failure = not_expected(app);
    output.failure(failure.what(), failure.hint);
    return failure.exit;
  } catch (const CLI::ParseError& error) {
    output.failure(unmarked(error.what()), help_of(app));
    return Exit::usage;
  } catch (const Failure& failure) {
    output.failure(failure.what(), failure.hint);
    return failure.exit;
  } catch (const std::exception& error) {
    output.failure(error.what(), "");
    return Exit::failed;
  }
}

}  // namespace
}  // namespace tolk::tool

int main(int argc, char** argv) {
  using tolk::tool::Output;
  Output::get().leave(tolk::tool::run(argc, argv));
}
