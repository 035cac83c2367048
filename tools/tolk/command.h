// What the subcommands share: exit codes, failures, the common options, and who they are.
//
// Each `add_…` registers one subcommand. Its callback does the work and returns when it is done, or
// throws Failure. Thread: the main thread. Owner: `options` outlives the App.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>

namespace tolk::tool {

// What the process ends with. Scripts rely on these numbers.
enum class Exit {
  ok = 0,
  failed = 1,  // anything that has no number of its own
  usage = 2,
  cannot_connect = 3,  // also: the server has gone
  timed_out = 4,
  no_such_method = 5,
  handler_failed = 6,  // also: it takes other arguments
  refused_version = 7,
  interrupted = 130,
};

// Why the command ends without having done what it was asked for.
// Thread: a value.
struct Failure : std::runtime_error {
  // `text` names the method, the address and what happened; `hint` is what to try, without a full
  // stop.
  Failure(Exit exit_code, const std::string& text, std::string hint_text)
      : std::runtime_error(text), exit(exit_code), hint(std::move(hint_text)) {}

  Exit exit;
  std::string hint;
};

// The same without its method: that it is called is not for people who asked for something else.
Error unnamed(const Error& error);

// The failure that an error of the layer is. `method` stands in it when the error names none: what
// was going to be called when the connect failed.
Failure failure_of(const Error& error, std::string_view method = {});

enum class JsonStyle { off, brief, pretty };
enum class When { automatic, always, never };

// The flags that several subcommands have.
struct Options {
  std::chrono::milliseconds timeout{5000};
  bool timeout_given = false;
  JsonStyle json = JsonStyle::off;
  bool quiet = false;
  bool verbose = false;
  When color = When::automatic;
};

// Nothing when the word names no style.
std::optional<JsonStyle> json_style_from(const std::string& word);

// ADDRESS, which is required unless the subcommand says otherwise.
CLI::Option* add_address(CLI::App& command, std::string& address);

// Flags for the subcommands that have a use for them.
void add_output_flags(CLI::App& command, Options& options);  // -q, -v, --color
void add_timeout_flag(CLI::App& command, Options& options);  // --timeout 500ms
void add_json_flag(CLI::App& command, Options& options);     // --json=pretty|short|off

// A method that may be called: every name but none.
CLI::Validator name_of_method();
// A whole number from 0.
CLI::Validator count_from_zero();

// What --help ends with: examples, one command a line, which the tests run as they are printed; and
// before them what there is to say at more length.
void add_examples(CLI::App& command, const std::string& lines, const std::string& about = {});

// 500ms, 2s, 1.5s, 3m, and "none" for no limit. Throws CLI::ValidationError, which names the
// option.
std::chrono::milliseconds duration_from(const char* option, const std::string& text);

// A client that is connected, within the time-out. It is never destroyed, which would take 300 ms:
// the process ends without that, and the system ends the connection. `method` is what is going to
// be called, for the text of a Failure. Thread: any.
Client& connect_to(const std::string& address, std::string_view method, const Options& options);

// Waits until the server has read all that was sent before. Every server answers this. How long it
// took, or an error of the layer's without a method.
Result<std::chrono::nanoseconds> round_trip(Client& client, std::chrono::milliseconds limit);

void add_bench(CLI::App& app, Options& options);
void add_call(CLI::App& app, Options& options);
void add_completion(CLI::App& app, Options& options);
void add_describe(CLI::App& app, Options& options);
void add_dump(CLI::App& app, Options& options);
void add_list(CLI::App& app, Options& options);
void add_listen(CLI::App& app, Options& options);
void add_monitor(CLI::App& app, Options& options);
void add_ping(CLI::App& app, Options& options);
void add_post(CLI::App& app, Options& options);
void add_receive(CLI::App& app, Options& options);
void add_send(CLI::App& app, Options& options);
void add_serve(CLI::App& app, Options& options);

}  // namespace tolk::tool
