// tolk call and tolk post: one call of one method.
#include <memory>

#include "tools/tolk/arguments.h"
#include "tools/tolk/command.h"
#include "tools/tolk/json_text.h"
#include "tools/tolk/output.h"

namespace tolk::tool {
namespace {

struct Call {
  std::string address;
  std::string method;
  ArgumentTexts arguments;
};

constexpr char kAboutStructs[] =
    "A struct is an object: :json={...}, or within --json. There keyed arguments are an object at\n"
    "the end of the array; behind an object that is a positional one, write {}. A struct that is\n"
    "the only argument may be given field by field: title=T.";

// Bytes are for a file or another program: as they are. On a terminal they would do harm.
void print_result(const Values& values, const Options& options) {
  Output& output = Output::get();
  const bool alone = values.size() == 1 && values.keyed().empty();
  const auto* const data = alone ? values.at(0).get_if<bytes>() : nullptr;
  if (data != nullptr && options.json == JsonStyle::off && !output.data_is_terminal()) {
    output.data({reinterpret_cast<const char*>(data->data()), data->size()});
    return;
  }
  const Json json = result_to_json(values);
  if (json.is_null() && options.json == JsonStyle::off) return;
  output.data(colored(json, options.json, output.data_colors()) + "\n");
}

void run_call(const Call& call, const Options& options) {
  const Values arguments = arguments_of(call.arguments, call.method, call.address);
  Client& client = connect_to(call.address, call.method, options);
  const Result<Values> result = client.call<Values>(call.method, arguments);
  if (!result) throw failure_of(result.error());
  try {
    print_result(*result, options);
  } catch (const Failure& failure) {
    throw Failure(failure.exit, call.method + " at " + client.address() + ": " + failure.what(),
                  failure.hint);
  }
}

// The round trip behind it shows that the server has got it; without one it might not get out.
void run_post(const Call& call, const Options& options) {
  const Values arguments = arguments_of(call.arguments, call.method, call.address);
  Client& client = connect_to(call.address, call.method, options);
  const Result<void> posted = client.post(call.method, arguments);
  if (!posted) throw failure_of(posted.error());
  const auto taken = round_trip(client, options.timeout);
  if (!taken) {
    throw failure_of(taken.error(), call.method);
  }
  Output::get().detail(call.method + " at " + client.address() + ": posted");
}

using Run = void (*)(const Call&, const Options&);

CLI::App& add_command(CLI::App& app, Options& options, const char* name, const char* about,
                      Run run) {
  CLI::App& command = *app.add_subcommand(name, about);
  const auto call = std::make_shared<Call>();
  add_address(command, call->address);
  command.add_option("METHOD", call->method, "The name of the method")
      ->check(name_of_method())
      ->type_name("")
      ->required();
  add_arguments(command, call->arguments, options);
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  command.callback([call, run, &options] { run(*call, options); });
  return command;
}

}  // namespace

void add_call(CLI::App& app, Options& options) {
  CLI::App& command =
      add_command(app, options, "call", "Call a method and print its result", run_call);
  add_examples(command,
               "  tolk call pipe:5000 add 2 3\n"
               "  tolk call 5000 echo 'some text' --json=short\n"
               "  tolk call 5000 log level:int=3 text=hello --timeout 500ms\n"
               "  tolk call 5000 sum '--json=[[1, 2, 3]]'\n"
               "  echo '[2, 3]' | tolk call 5000 add --json -\n"
               "  tolk call 5000 echo ':json={\"title\": \"T\"}' 3\n"
               "  tolk call 5000 echo '--json=[{\"title\": \"T\"}, {}]'",
               kAboutStructs);
}

void add_post(CLI::App& app, Options& options) {
  CLI::App& command =
      add_command(app, options, "post", "Call a method without waiting for its result", run_post);
  add_examples(command,
               "  tolk post pipe:5000 log level=3 text=hello\n"
               "  tolk post 5000 log '--json={\"level\": 3, \"text\": \"hello\"}' -v");
}

}  // namespace tolk::tool
