// tolk describe: the methods of a server.
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

std::vector<MethodInfo> as_shown(const std::vector<MethodInfo>& methods) {
  std::vector<MethodInfo> shown;
  shown.reserve(methods.size());
  for (const auto& [name, signature, about] : methods) {
    shown.push_back({harmless(name), harmless(signature), harmless(about)});
  }
  return shown;
}

std::string lines_of(const std::vector<MethodInfo>& methods) {
  const Colors& c = Output::get().data_colors();
  std::size_t width = 0;
  for (const MethodInfo& method : methods) {
    width = std::max(width, method.name.size() + method.signature.size());
  }
  std::string lines;
  for (const auto& [name, signature, about] : methods) {
    lines += fmt::format("{}{}{}{}", c.name, name, c.off, signature);
    if (!about.empty()) {
      const std::size_t gap = width - name.size() - signature.size() + 2;
      lines += fmt::format("{:{}}{}{}{}", "", gap, c.dim, about, c.off);
    }
    lines += "\n";
  }
  return lines;
}

Json json_of(const std::vector<MethodInfo>& methods) {
  Json all = Json::array();
  for (const auto& [name, signature, about] : methods) {
    all.push_back({{"name", name}, {"signature", signature}, {"about", about}});
  }
  return all;
}

void run(const std::string& address, const CommonOptions& options) {
  Client& client = connect_to(address, "describe", options);
  const auto methods = client.describe();
  if (!methods && methods.error().code() == Errc::no_such_method) {
    throw Failure(
        Exit::no_such_method,
        "describe at " + client.address() + ": the server does not list its methods",
        "call the methods whose names you know; servers made with the C++ layer list theirs");
  }
  if (!methods) throw failure_of(unnamed(methods.error()), "describe");
  Output& output = Output::get();
  if (methods->empty()) output.note(client.address() + " lists no methods");
  if (options.json == JsonStyle::off) {
    output.data(lines_of(as_shown(*methods)));
  } else {
    print_json(json_of(*methods), options.json);
  }
}

}  // namespace

void add_describe(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand("describe", "Print the methods that a server offers");
  const auto address = std::make_shared<std::string>();
  add_address(command, *address);
  add_json_flag(command, options);
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk describe pipe:5000\n"
               "  tolk describe 5000 --json=pretty");
  command.callback([address, &options] { run(*address, options); });
}

}  // namespace tolk::tool
