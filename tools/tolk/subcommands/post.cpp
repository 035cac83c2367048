// tolk post: a call of a method without its result.
#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/call_options.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

// The process ends after this, so it waits until a round trip shows that the server has the call.
void run_post(const CallOptions& post, const CommonOptions& options) {
  const Values arguments = post.arguments();
  Client& client = connect_to(post.address, post.method, options);
  const Result<void> posted = client.post(post.method, arguments);
  if (!posted) throw failure_of(posted.error());
  const auto received = round_trip(client, options.timeout);
  if (!received) throw failure_of(received.error(), post.method);
  Output::get().detail(post.method + " at " + client.address() + ": posted");
}

}  // namespace

void add_post(CLI::App& app, CommonOptions& options) {
  CLI::App& command = add_call_command(app, options, "post",
                                       "Call a method without waiting for its result", run_post);
  add_examples(command,
               "  tolk post pipe:5000 log level=3 text=hello\n"
               "  tolk post 5000 log '--json={\"level\": 3, \"text\": \"hello\"}' -v");
}

}  // namespace tolk::tool
