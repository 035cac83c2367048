// tolk receive: saves the files that come.
#include <fmt/format.h>

#include <memory>
#include <mutex>
#include <optional>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/command/serving.h"
#include "tools/tolk/subcommands/inbox.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/progress_bar.h"

namespace tolk::tool {
namespace {

constexpr const char* kUsualMethod = "upload";

struct ReceiveOptions {
  std::string address;
  std::string method = kUsualMethod;
  std::string into = ".";
  bool overwrite = false;
  int count = 0;
  std::uint64_t most_bytes = 0;  // 0 is no limit
};

// Saves the files that come, one at a time, so that it saves no more than the user has asked for.
//
// Thread: any.
class Receiver {
 public:
  explicit Receiver(const ReceiveOptions& receive)
      : receive_(receive), inbox_(receive.into, receive.overwrite) {}

  // Throws Refused for a file that is too large. A file in pieces is refused with its first piece.
  void check_size(const Caller& caller, std::uint64_t bytes) const {
    if (receive_.most_bytes == 0 || bytes <= receive_.most_bytes) return;
    const std::string why = fmt::format("the file has {} bytes, and at most {} are accepted", bytes,
                                        receive_.most_bytes);
    note(caller, why);
    throw Refused(why);
  }

  // Returns the name of the file, which is the result of the sender's call.
  std::string save(const Caller& caller, const std::optional<std::string>& name,
                   std::string_view bytes) {
    check_size(caller, bytes.size());
    const std::lock_guard<std::mutex> lock(mutex_);
    if (receive_.count > 0 && saved_ >= receive_.count) {
      throw Refused("no more files are accepted");
    }
    try {
      std::string saved = inbox_.save(name, bytes);
      show(inbox_.path_of(saved));
      if (++saved_ == receive_.count) ask_to_end();
      return saved;
    } catch (const Refused& refused) {
      note(caller, refused.what());
      throw;
    }
  }

 private:
  static void note(const Caller& caller, std::string_view why) {
    Output::get().note(fmt::format("client {}: refused: {}", caller.id(), why));
  }
  static void show(const std::string& path) {
    try {
      Output::get().data(path + "\n");
    } catch (const Failure& failure) {
      // Nobody reads the output, but the file is saved.
      Output::get().failure(failure.what(), failure.hint);
      Output::get().leave(failure.exit);
    }
  }

  const ReceiveOptions receive_;
  Inbox inbox_;
  std::mutex mutex_;
  int saved_ = 0;
};

void run_receive(const ReceiveOptions& receive, const CommonOptions& options) {
  Receiver receiver(receive);
  ProgressBar bar(receive.method);
  std::mutex bar_mutex;
  ConnectedClients clients;
  tolk::Options wanted;
  wanted.limit = options.timeout;
  Server server(wanted);
  add_method(
      server, receive.address, receive.method,
      [&](const Caller& caller, std::span<const std::byte> bytes,
          const named<"name", std::optional<std::string>>& name) {
        Output::get().end_progress();
        return receiver.save(caller, name.value,
                             {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
      },
      "saves a file");
  server.on_receiving([&](const Caller& caller, Progress progress) {
    receiver.check_size(caller, progress.total());
    const std::lock_guard<std::mutex> lock(bar_mutex);
    bar.show(progress);
  });
  clients.watch(server);
  serve_until_end(server, receive.address, receive.method, [&] {
    if (receive.count > 0) clients.wait_until_gone();
  });
}

}  // namespace

void add_receive(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "receive", "Listen for files that tolk send sends, save them, and print where they are");
  const auto receive = std::make_shared<ReceiveOptions>();
  add_address(command, receive->address);
  command.add_option("METHOD", receive->method, "The name of the method; upload if not given")
      ->type_name("");
  command
      .add_option("--into", receive->into, "The directory to save in; the current one if not given")
      ->type_name("DIRECTORY");
  command.add_flag("--overwrite", receive->overwrite, "Replace files that exist already");
  add_count_flag(command, receive->count, "End after this many files; 0 is never");
  command
      .add_option("--most", receive->most_bytes,
                  "Refuse files of more bytes than this: 500k, 20MB, 2G; 0 is no limit")
      ->transform(CLI::AsSizeValue(true).description(""))
      ->type_name("SIZE");
  add_output_flags(command, options);
  add_examples(command,
               "  tolk receive pipe:5001\n"
               "  tolk receive 5001 upload --into . --count 1");
  command.callback([receive, &options] { run_receive(*receive, options); });
}

}  // namespace tolk::tool
