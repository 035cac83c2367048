// tolk monitor: a proxy that prints the frames that it passes on.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/frame_line.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/wire/conversation.h"
#include "tools/tolk/wire/pcapng.h"
#include "tools/tolk/wire/proxy.h"

namespace tolk::tool {
namespace {

constexpr const char* kVersionCheck = "s_c_version";

struct MonitorOptions {
  std::string from;
  std::string to;
  std::string capture;
  // Which frames are printed; the capture has all.
  std::vector<std::string> methods;
  std::optional<Direction> direction;
  bool errors = false;
  bool all = false;
};

// Frames go to standard output and to the capture; the beginning and end of connections are notes
// for people.
//
// Thread: that of the proxy.
class Monitor : public ProxyWatcher {
 public:
  Monitor(const MonitorOptions& settings, const CommonOptions& options)
      : settings_(settings),
        is_json_(options.json != JsonStyle::off || !Output::get().data_is_terminal()),
        style_(std::max(options.json, JsonStyle::brief)) {
    if (!settings.capture.empty()) capture_.emplace(settings.capture);
  }

  void opened(int connection, const HostAndPort& client, const HostAndPort& server) override {
    Output::get().note(fmt::format("connection {}: opened", connection));
    auto conversation = std::make_unique<Conversation>(
        connection, [this, connection](const Seen& seen) { show(connection, seen); });
    open_.emplace(connection, OpenConnection{client, server, std::move(conversation)});
  }

  void passed(int connection, Direction direction, std::string_view bytes) override {
    now_ = std::chrono::system_clock::now();
    open_.at(connection).conversation->passed(direction, bytes, now_);
  }

  void closed(int connection, const std::string& how) override {
    const auto at = open_.find(connection);
    if (at == open_.end()) {
      Output::get().note(fmt::format("connection {}: {}", connection, how));
      return;
    }
    Conversation& conversation = *at->second.conversation;
    now_ = std::chrono::system_clock::now();
    conversation.closed(now_);
    Output::get().note(fmt::format("connection {}: {}; {} bytes to the server, {} to the client",
                                   connection, how, conversation.bytes(Direction::to_server),
                                   conversation.bytes(Direction::to_client)));
    open_.erase(at);
  }

 private:
  struct OpenConnection {
    HostAndPort client;
    HostAndPort server;
    std::unique_ptr<Conversation> conversation;
  };

  void show(int connection, const Seen& seen) {
    if (capture_ && !seen.bytes.empty()) {
      const OpenConnection& open = open_.at(connection);
      const bool to_server = seen.direction == Direction::to_server;
      capture_->write(now_, to_server ? open.client : open.server,
                      to_server ? open.server : open.client,
                      seen.is_frame ? Pcapng::kFrames : Pcapng::kOther, seen.bytes);
    }
    if (!seen.line.is_null() && is_wanted(seen)) print(seen.line);
  }

  bool is_wanted(const Seen& seen) const {
    const auto method = seen.line.value("method", Json());
    if (!settings_.all && method == kVersionCheck) return false;
    if (settings_.errors && error_in(seen.line).empty()) return false;
    if (settings_.direction && seen.direction != *settings_.direction) return false;
    const auto& wanted = settings_.methods;
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), method) != wanted.end();
  }
  void print(const Json& line) const {
    Output& output = Output::get();
    const Colors& colors = output.data_colors();
    const auto columns = static_cast<std::size_t>(output.data_columns());
    output.data((is_json_ ? colored(line, style_, colors) : frame_line(line, colors, columns)) +
                "\n");
  }

  const MonitorOptions& settings_;
  const bool is_json_;
  const JsonStyle style_;
  std::optional<Pcapng> capture_;
  std::map<int, OpenConnection> open_;
  Conversation::Time now_;
};

// Stops the proxy when the command is asked to end. Its destructor does not wait for that.
class ProxyStopper {
 public:
  explicit ProxyStopper(Proxy& proxy)
      : thread_([&proxy] {
          wait_for_end();
          proxy.stop();
        }) {}
  ~ProxyStopper() {
    ask_to_end();
    thread_.join();
  }
  ProxyStopper(const ProxyStopper&) = delete;
  ProxyStopper& operator=(const ProxyStopper&) = delete;

 private:
  std::thread thread_;
};

void pass_on(const ProxyAddress& from, const ProxyAddress& to, Monitor& watcher) {
  Proxy proxy(from, to, watcher);
  end_by_itself();
  Output::get().note(
      fmt::format("listening at {}, passing on to {}; Ctrl-C ends it", from.text, to.text));
  const ProxyStopper stopper(proxy);
  proxy.run();
}

void monitor(const MonitorOptions& settings, const CommonOptions& options) {
  const ProxyAddress from = proxy_address(settings.from);
  const ProxyAddress to = proxy_address(settings.to);
  try {
    if (from.text == to.text) {
      throw Failure(Exit::usage, "--from and --to name the same address",
                    "let clients connect to another address, and name the server's with --to");
    }
    Monitor watcher(settings, options);
    pass_on(from, to, watcher);
  } catch (const Failure& failure) {
    throw failure_at("monitor at " + from.text, failure);
  }
}

}  // namespace

void add_monitor(CLI::App& app, CommonOptions& options) {
  CLI::App& command =
      *app.add_subcommand("monitor", "Pass calls on to another address, and print them");
  const auto settings = std::make_shared<MonitorOptions>();
  command.add_option("--from", settings->from, "Where clients connect to")
      ->required()
      ->type_name("ADDRESS");
  command.add_option("--to", settings->to, "Where the server is")->required()->type_name("ADDRESS");
  command
      .add_option("--pcapng", settings->capture,
                  "Also write a capture, for Wireshark with its dissector tolk.lua")
      ->type_name("FILE");
  command
      .add_option("--method", settings->methods,
                  "Print this method's frames alone; may be given several times")
      ->type_name("METHOD")
      ->allow_extra_args(false);
  command
      .add_option_function<std::string>(
          "--direction",
          [settings](const std::string& word) {
            settings->direction = word == "to-server" ? Direction::to_server : Direction::to_client;
          },
          "Print the frames of one direction alone: to-server or to-client")
      ->check(CLI::IsMember({"to-server", "to-client"}))
      ->type_name("WHICH");
  command.add_flag("--errors", settings->errors, "Print failed calls and malformed frames alone");
  command.add_flag("--all", settings->all, "Print the version checks, too");
  add_json_flag(command, options);
  add_output_flags(command, options);
  add_examples(
      command,
      "  tolk monitor --from pipe:5001 --to pipe:5000\n"
      "  tolk monitor --from pipe:5001 --to pipe:5000 --method add --errors --json\n"
      "  tolk monitor --from tcp4:127.0.0.1:5001 --to pipe:5000 --pcapng calls.pcapng",
      "On a terminal a line is for people. Elsewhere, and with --json, it is a JSON object: the\n"
      "time, the number of the connection, the direction, the kind (call, post, reply, piece of\n"
      "large data, nameless, large, no frame), method, id, arguments or result, and bytes. A\n"
      "reply has ms, the time since its call, and error if the call has failed. A value of more\n"
      "than 256 bytes is shown as {\"$bytes\": SIZE, \"$first\": BASE64}. Bytes that are not a\n"
      "frame are passed on all the same; their line says where and why.");
  command.callback([settings, &options] { monitor(*settings, options); });
}

}  // namespace tolk::tool
