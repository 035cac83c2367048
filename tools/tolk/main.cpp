// The `tolk` command: calls methods, serves them and watches connections, from a shell.
#include <algorithm>

#include "tools/tolk/command/call_arguments.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/system/streams.h"
#include "tools/tolk/text/nearest.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

void add_all(CLI::App& app, CommonOptions& options) {
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
  add_fetch(app, options);
  add_receive(app, options);
  add_dump(app, options);
  add_bench(app, options);
  add_completion(app, options);
  add_help(app);
  for (CLI::App* const command : app.get_subcommands([](CLI::App*) { return true; })) {
    unmark_words_of(*command);
  }
}

// The command that shows the help of the subcommand in use.
std::string help_of(const CLI::App& app) {
  const auto meant = app.get_subcommands();
  return meant.empty() ? "tolk --help" : "tolk " + meant.front()->get_name() + " --help";
}

// The option parser would only say that a subcommand is missing.
void check_first_word(const CLI::App& app, const std::vector<std::string>& words) {
  if (words.empty() || words.front().starts_with('-')) return;
  check_subcommand(app, unmarked(words.front()));
}

// The names of the options that are like the first of the words that is one.
std::string meant_option(const CLI::App& command, const std::vector<std::string>& words) {
  const auto word = std::find_if(words.begin(), words.end(),
                                 [](const std::string& each) { return each.starts_with("--"); });
  if (word == words.end()) return "";
  std::vector<std::string> names;
  for (const CLI::Option* const option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return did_you_mean(word->substr(0, word->find('=')), names);
}

// Names the words that nothing expects, in their order. The options of a command to run are left
// alone only after --.
Failure not_expected(const CLI::App& app) {
  const std::vector<std::string> words = app.remaining(true);
  std::string text = words.size() == 1 ? "unexpected argument:" : "unexpected arguments:";
  for (const std::string& word : words) text += " " + unmarked(word);
  const auto meant = app.get_subcommands();
  const bool serves = !meant.empty() && meant.front()->get_name() == "serve";
  const std::string guess = meant.empty() ? "" : meant_option(*meant.front(), words);
  return {Exit::usage, text,
          guess + (serves ? "write -- before the command to run" : help_of(app))};
}

// Throws the errors of the option parser, and Failure.
Exit run_line(CLI::App& app, std::vector<std::string> words) {
  Output& output = Output::get();
  try {
    check_first_word(app, words);
    std::reverse(words.begin(), words.end());  // the option parser takes the last word first
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
  CommonOptions options;
  add_all(app, options);
  // The flags are known after the whole line is parsed. The subcommand begins after that.
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
