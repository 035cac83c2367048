// tolk call: a call of a method, and its result.
#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/call_options.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/text/bytes.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/signature.h"

namespace tolk::tool {
namespace {

constexpr char kAboutStructs[] =
    "A struct is an object: :json={...}, or within --json. Keyed arguments in --json are an object "
    "at\n"
    "the end of the array; after a struct that is the last positional argument, write {}. A "
    "struct\n"
    "that is the only argument may be given field by field: title=T.";

// Bytes are for a file or another program, so they are written as they are. A terminal could take
// them for commands.
void print_values(const Values& values, const CommonOptions& options) {
  Output& output = Output::get();
  const bool alone = values.size() == 1 && values.keyed().empty();
  const auto* const data = alone ? values.at(0).get_if<bytes>() : nullptr;
  if (data != nullptr && options.json == JsonStyle::off && !output.data_is_terminal()) {
    output.data(view_of(*data));
  } else {
    print_result(result_to_json(values), options.json);
  }
}

// Older peers send no bytes for an empty list or struct: the signature tells what they are.
Values by_signature(Client& client, const std::string& method, const Values& result) {
  if (result_to_json(result).dump().find(R"({"$base64":""})") == std::string::npos) return result;
  const auto methods = client.describe();
  if (!methods) return result;
  for (const MethodInfo& info : *methods) {
    if (info.name == method) return fitted(result, info.signature);
  }
  return result;
}

void run_call(const CallOptions& call, const CommonOptions& options) {
  const Values arguments = call.arguments();
  Client& client = connect_to(call.address, call.method, options);
  const Result<Values> result = client.call<Values>(call.method, arguments);
  if (!result) throw failure_of_call(client, result.error());
  try {
    print_values(by_signature(client, call.method, *result), options);
  } catch (const Failure& failure) {
    throw failure_at(call.method + " at " + client.address(), failure);
  }
}

}  // namespace

void add_call(CLI::App& app, CommonOptions& options) {
  CLI::App& command =
      add_call_command(app, options, "call", "Call a method and print its result", run_call);
  add_examples(command,
               "  tolk call pipe:5000 add 2 3\n"
               "  tolk call 5000 echo 'some text' --json\n"
               "  tolk call 5000 log level:int=3 text=hello --timeout 500ms\n"
               "  tolk call 5000 sum '--json=[[1, 2, 3]]'\n"
               "  echo '[2, 3]' | tolk call 5000 add --json=-\n"
               "  tolk call 5000 echo ':json={\"title\": \"T\"}' 3\n"
               "  tolk call 5000 echo '--json=[{\"title\": \"T\"}, {}]'",
               kAboutStructs);
}

}  // namespace tolk::tool
