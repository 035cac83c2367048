// tolk list: the servers of this user that are alive.
#include <fmt/format.h>

#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "tools/tolk/command.h"
#include "tools/tolk/json_text.h"
#include "tools/tolk/output.h"
#include "tools/tolk/pipe_names.h"
#include "tools/tolk/printable.h"

namespace tolk::tool {
namespace {

struct Found {
  std::string address;
  bool alive = false;
  std::string state;                // what was found out, for people
  std::optional<double> answer_ms;  // nothing when it did not answer
  int methods = -1;                 // how many it tells of; -1 when it does not tell
};

// The reason alone: the address stands before it.
std::string reason_of(const Failure& failure, const std::string& address) {
  const std::string text = failure.what();
  const std::size_t at = text.find(address + ": ");
  return at == std::string::npos ? text : text.substr(at + address.size() + 2);
}

void look_closer(Client& client, const Options& options, Found& found) {
  const auto took = round_trip(client, options.timeout);
  if (!took) {
    found.alive = took.error().code() != Errc::gone;
    found.state = took.error().detail();
    return;
  }
  found.answer_ms = static_cast<double>(took->count()) / 1e6;
  const auto methods = client.describe();
  if (methods) found.methods = static_cast<int>(methods->size());
  found.state = methods ? fmt::format("{} methods", found.methods) : "does not tell its methods";
  if (found.methods == 1) found.state = "1 method";
}

// A server that refuses us, or does not answer, is there all the same.
Found probe(const std::string& name, const Options& options) {
  Found found;
  found.address = "pipe:" + name;
  try {
    Client& client = connect_to(found.address, "", options);
    found.alive = true;
    look_closer(client, options, found);
  } catch (const Failure& failure) {
    found.alive = failure.exit != Exit::cannot_connect && failure.exit != Exit::usage;
    found.state = failure.exit == Exit::usage ? "not looked at: the name is no number"
                                              : reason_of(failure, found.address);
  }
  return found;
}

// All at the same time: one that hangs costs its time-out once.
std::vector<Found> probe_all(const Options& options) {
  const std::vector<std::string> names = pipe_names();
  std::vector<std::future<Found>> coming;
  coming.reserve(names.size());
  for (const std::string& name : names) {
    coming.push_back(
        std::async(std::launch::async, [name, &options] { return probe(name, options); }));
  }
  std::vector<Found> all;
  all.reserve(coming.size());
  for (auto& each : coming) all.push_back(each.get());
  return all;
}

void run(const Options& options) {
  Output& output = Output::get();
  const Colors& c = output.data_colors();
  output.detail("looking in " + (pipe_directory().empty() ? "no directory" : pipe_directory()));
  Json all = Json::array();
  std::string lines;
  for (const Found& found : probe_all(options)) {
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
    output.data(colored(all, options.json, c) + "\n");
  } else if (all.empty()) {
    output.note("no server of this user listens on a local pipe");
  } else {
    output.data(lines);
  }
}

}  // namespace

void add_list(CLI::App& app, Options& options) {
  CLI::App& command = *app.add_subcommand(
      "list", "Print the servers of this user that listen on local pipes and answer");
  add_json_flag(command, options);
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk list\n"
               "  tolk list --json=pretty --timeout 1s");
  command.callback([&options] { run(options); });
}

}  // namespace tolk::tool
