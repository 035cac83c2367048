// tolk list: the running servers of this user.
#include <fmt/format.h>

#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/pipe_names.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/printable.h"

namespace tolk::tool {
namespace {

struct FoundServer {
  std::string address;
  bool alive = false;
  std::string state;                // for people
  std::optional<double> answer_ms;  // nothing if it did not answer
  int methods = -1;                 // how many it lists; -1 if it does not list them
};

// The text after the address: the reason alone.
std::string reason_of(const Failure& failure, const std::string& address) {
  const std::string text = failure.what();
  const std::size_t at = text.find(address + ": ");
  return at == std::string::npos ? text : text.substr(at + address.size() + 2);
}

void look_closer(Client& client, const CommonOptions& options, FoundServer& found) {
  const auto took = round_trip(client, options.timeout);
  if (!took) {
    found.alive = took.error().code() != Errc::gone;
    found.state = took.error().detail();
    return;
  }
  found.answer_ms = static_cast<double>(took->count()) / 1e6;
  const auto methods = client.describe();
  if (methods) found.methods = static_cast<int>(methods->size());
  found.state = methods ? fmt::format("{} methods", found.methods) : "does not list its methods";
  if (found.methods == 1) found.state = "1 method";
}

// A server that refuses the connection, or does not answer, runs all the same.
FoundServer probe(const std::string& name, const CommonOptions& options) {
  FoundServer found;
  found.address = "pipe:" + name;
  try {
    Client& client = connect_to(found.address, "", options);
    found.alive = true;
    look_closer(client, options, found);
  } catch (const Failure& failure) {
    found.alive = failure.exit != Exit::cannot_connect && failure.exit != Exit::usage;
    found.state = failure.exit == Exit::usage ? "not checked: it is not the name of a pipe"
                                              : reason_of(failure, found.address);
  }
  return found;
}

// All at the same time, so that several servers that hang cost one timeout, not several.
std::vector<FoundServer> probe_all(const CommonOptions& options) {
  const std::vector<std::string> names = pipe_names();
  std::vector<std::future<FoundServer>> coming;
  coming.reserve(names.size());
  for (const std::string& name : names) {
    coming.push_back(
        std::async(std::launch::async, [name, &options] { return probe(name, options); }));
  }
  std::vector<FoundServer> all;
  all.reserve(coming.size());
  for (auto& each : coming) all.push_back(each.get());
  return all;
}

void run(const CommonOptions& options) {
  Output& output = Output::get();
  const Colors& c = output.data_colors();
  output.detail("looking in " + (pipe_directory().empty() ? "no directory" : pipe_directory()));
  Json all = Json::array();
  std::string lines;
  for (const FoundServer& found : probe_all(options)) {
    if (!found.alive) {
      output.detail(found.address + ": " + found.state);
      continue;
    }
    Json one = {{"address", found.address}, {"state", found.state}};
    one["ms"] = found.answer_ms ? Json(*found.answer_ms) : Json();
    one["methods"] = found.methods < 0 ? Json() : Json(found.methods);
    all.push_back(std::move(one));
    const std::string ms = found.answer_ms ? fmt::format("{:.3f} ms", *found.answer_ms) : "-";
    lines += fmt::format("{}{:<12}{}  {:>11}  {}\n", c.name, found.address, c.off, ms,
                         harmless(found.state));
  }
  if (options.json != JsonStyle::off) {
    print_json(all, options.json);
  } else if (all.empty()) {
    output.note("no server of this user listens on a local pipe");
  } else {
    output.data(lines);
  }
}

}  // namespace

void add_list(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "list", "Print the servers of this user that listen on local pipes and answer");
  add_json_flag(command, options);
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk list\n"
               "  tolk list --pretty --timeout 1s");
  command.callback([&options] { run(options); });
}

}  // namespace tolk::tool
