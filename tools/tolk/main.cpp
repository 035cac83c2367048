// The `tolk` command: calls, servers and what is between them, from a shell.
#include "tools/tolk/command.h"
#include "tools/tolk/output.h"

namespace tolk::tool {
namespace {

void add_all(CLI::App& app, Options& options) {
  app.require_subcommand(1);
  app.set_version_flag("--version", "tolk " TOLK_VERSION);
  add_send(app, options);
  add_receive(app, options);
  add_monitor(app, options);
  add_dump(app, options);
}

Exit run(int argc, const char* const* argv) {
  Output& output = Output::get();
  CLI::App app("Calls between processes by method name.", "tolk");
  Options options;
  add_all(app, options);
  // The flags are known once all of the line is read; only then the subcommand begins.
  app.parse_complete_callback([&] { output.set_up(options); });
  try {
    app.parse(argc, argv);
    return Exit::ok;
  } catch (const CLI::CallForHelp&) {
    output.data(app.help());
  } catch (const CLI::CallForVersion& version) {
    output.data(std::string(version.what()) + "\n");
  } catch (const CLI::ParseError& error) {
    output.failure(error.what(), "tolk --help");
    return Exit::usage;
  } catch (const Failure& failure) {
    output.failure(failure.what(), failure.hint);
    return failure.exit;
  } catch (const std::exception& error) {
    output.failure(error.what(), "");
    return Exit::failed;
  }
  return Exit::ok;
}

}  // namespace
}  // namespace tolk::tool

int main(int argc, char** argv) {
  using tolk::tool::Output;
  Output::get().leave(tolk::tool::run(argc, argv));
}
