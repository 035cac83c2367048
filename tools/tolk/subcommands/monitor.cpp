// tolk monitor: a proxy that prints the frames that it passes on.
#include <fmt/format.h>

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
#include "tools/tolk/text/output.h"
#include "tools/tolk/wire/conversation.h"
#include "tools/tolk/wire/pcapng.h"
#include "tools/tolk/wire/proxy.h"

namespace tolk::tool {
namespace {

// Frames go to standard output and to the capture; the beginning and end of connections are notes
// for people.
//
// Thread: that of the proxy.
class Monitor : public ProxyWatcher {
 public:
  explicit Monitor(const std::string& capture) {
    if (!capture.empty()) capture_.emplace(capture);
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
    if (!seen.line.is_null()) {
      Output::get().data(colored(seen.line, JsonStyle::brief, Colors{}) + "\n");
    }
  }

  std::optional<Pcapng> capture_;
  std::map<int, OpenConnection> open_;
  Conversation::Time now_;
};

struct MonitorOptions {
  std::string from;
  std::string to;
  std::string capture;
};

Address address_from(const std::string& text) {
  try {
    return text;
  } catch (const Error& error) {
    throw failure_of(error, "monitor");
  }
}

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

void pass_on(const Address& from, const Address& to, Monitor& watcher) {
  Proxy proxy(from, to, watcher);
  end_by_itself();
  Output::get().note(
      fmt::format("listening at {}, passing on to {}; Ctrl-C ends it", from.text(), to.text()));
  const ProxyStopper stopper(proxy);
  proxy.run();
}

void monitor(const MonitorOptions& settings) {
  const Address from = address_from(settings.from);
  const Address to = address_from(settings.to);
  try {
    if (from.text() == to.text()) {
      throw Failure(Exit::usage, "--from and --to name the same address",
                    "let clients connect to another address, and name the server's with --to");
    }
    Monitor watcher(settings.capture);
    pass_on(from, to, watcher);
  } catch (const Failure& failure) {
    throw failure_at("monitor at " + from.text(), failure);
  }
}

}  // namespace

void add_monitor(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "monitor",
      "Pass calls on to another address, and print each frame as one JSON object a line");
  const auto settings = std::make_shared<MonitorOptions>();
  command.add_option("--from", settings->from, "Where clients connect to")
      ->required()
      ->type_name("ADDRESS");
  command.add_option("--to", settings->to, "Where the server is")->required()->type_name("ADDRESS");
  command
      .add_option("--pcapng", settings->capture,
                  "Also write a capture, for Wireshark with its dissector tolk.lua")
      ->type_name("FILE");
  add_output_flags(command, options);
  add_examples(
      command,
      "  tolk monitor --from pipe:5001 --to pipe:5000\n"
      "  tolk monitor --from tcp4:127.0.0.1:5001 --to pipe:5000 --pcapng calls.pcapng",
      "A line has the time, the number of the connection, the direction, the kind (call, post,\n"
      "reply, piece of large data, nameless, large, no frame), method, id, arguments or result,\n"
      "and bytes. A reply has ms, the time since its call, and error if the call has failed.\n"
      "A value of more than 256 bytes is shown as {\"$bytes\": SIZE, \"$first\": BASE64}.\n"
      "Bytes that are not a frame are passed on all the same; their line says where and why.");
  command.callback([settings] { monitor(*settings); });
}

}  // namespace tolk::tool
