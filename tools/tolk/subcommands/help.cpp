// tolk help: what --help prints.
#include <memory>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/text/nearest.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {

void check_subcommand(const CLI::App& app, const std::string& name) {
  std::vector<std::string> names;
  for (const CLI::App* const each : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (each->get_name() == name) return;
    if (!each->get_group().empty()) names.push_back(each->get_name());
  }
  throw Failure(Exit::usage, "there is no subcommand " + name,
                did_you_mean(name, names) + "tolk help lists all");
}

void add_help(CLI::App& app) {
  CLI::App& command = *app.add_subcommand("help", "Print this, or the help of a subcommand");
  const auto name = std::make_shared<std::string>();
  command.add_option("COMMAND", *name, "The name of the subcommand")->type_name("");
  add_examples(command,
               "  tolk help\n"
               "  tolk help call");
  command.callback([name, &app] {
    const auto formatter = app.get_formatter();
    if (name->empty()) {
      const std::string all =
          formatter->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal);
      return Output::get().data(all);
    }
    check_subcommand(app, *name);
    Output::get().data(app.get_subcommand(*name)->help(app.get_name()));
  });
}

}  // namespace tolk::tool
