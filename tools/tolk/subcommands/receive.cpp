// tolk receive: saves the files that come.
#include <fmt/format.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/command/serving.h"
#include "tools/tolk/subcommands/inbox.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/bytes.h"
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

using FileName = named<"name", std::optional<std::string>>;

// Tells the user why a file is refused.
template <class Run>
auto noting(const Caller& caller, const Run& run) {
  try {
    return run();
  } catch (const Refused& refused) {
    Output::get().note(fmt::format("client {}: refused: {}", caller.id(), refused.what()));
    throw;
  }
}
// Saves the files that come, and no more of them than the user has asked for.
//
// Thread: any.
class Receiver {
 public:
  explicit Receiver(const ReceiveOptions& receive)
      : receive_(receive), inbox_(receive.into, receive.overwrite), bar_(receive.method) {}

  // Where the bytes of a file go. What is wrong with it, the sender learns with the first piece.
  Sink accept(const Caller& caller, std::uint64_t total, const std::optional<std::string>& name) {
    try {
      check_size(caller, total);
      return to_function(Writer{*this, begin(caller, name), caller.number(), total});
    } catch (const Refused& refused) {
      return to_function([why = std::string(refused.what())](auto) { throw Refused(why); });
    }
  }

  // The file is there: as a part, or as the bytes of one message. Returns its name, which is the
  // result of the sender's call.
  std::string save(const Caller& caller, const std::optional<bytes>& data,
                   const std::optional<std::string>& name) {
    std::shared_ptr<Inbox::Part> part = take(caller.number());
    if (!part) {
      const std::string_view all = data ? view_of(*data) : std::string_view();
      check_size(caller, all.size());
      part = begin(caller, name);
      part->append(all);
    }
    return noting(caller, [&] { return finish(*part); });
  }

 private:
  // Writes the part of a call. A transfer that fails drops both.
  struct Writer {
    Receiver& receiver;
    std::shared_ptr<Inbox::Part> part;
    std::uintptr_t call;
    std::uint64_t total;
    std::uint64_t done = 0;

    Writer(Receiver& to, std::shared_ptr<Inbox::Part> file, std::uintptr_t of, std::uint64_t bytes)
        : receiver(to), part(std::move(file)), call(of), total(bytes) {
      receiver.put(call, part);
    }
    Writer(Writer&&) = default;
    ~Writer() {
      if (part && done < total) receiver.take(call);
    }
    void operator()(std::span<const std::byte> piece) {
      part->append({reinterpret_cast<const char*>(piece.data()), piece.size()});
      done += piece.size();
      receiver.show(done, total);
    }
  };

  void put(std::uintptr_t call, std::shared_ptr<Inbox::Part> part) {
    const std::lock_guard<std::mutex> lock(mutex_);
    parts_[call] = std::move(part);
  }
  std::shared_ptr<Inbox::Part> take(std::uintptr_t call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto taken = parts_.extract(call);
    return taken.empty() ? nullptr : std::move(taken.mapped());
  }
  void show(std::uint64_t done, std::uint64_t total) {
    const std::lock_guard<std::mutex> lock(mutex_);
    bar_.show(done, total);
  }

  void check_size(const Caller& caller, std::uint64_t bytes) const {
    if (receive_.most_bytes == 0 || bytes <= receive_.most_bytes) return;
    noting(caller, [&]() -> int {
      throw Refused(fmt::format("the file has {} bytes, and at most {} are accepted", bytes,
                                receive_.most_bytes));
    });
  }
  std::shared_ptr<Inbox::Part> begin(const Caller& caller, const std::optional<std::string>& name) {
    return noting(caller, [&] { return inbox_.begin(name); });
  }
  std::string finish(Inbox::Part& part) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Output::get().end_progress();
    if (receive_.count > 0 && saved_ >= receive_.count) {
      throw Refused("no more files are accepted");
    }
    std::string saved = inbox_.save(part);
    print(inbox_.path_of(saved));
    if (++saved_ == receive_.count) ask_to_end();
    return saved;
  }

  static void print(const std::string& path) {
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
  ProgressBar bar_;
  std::map<std::uintptr_t, std::shared_ptr<Inbox::Part>> parts_;  // by the call's number
  int saved_ = 0;
};

void run_receive(const ReceiveOptions& receive, const CommonOptions& options) {
  Receiver receiver(receive);
  ConnectedClients clients;
  tolk::Options wanted;
  wanted.limit = options.timeout;
  Server server(wanted);
  adding_method(receive.address, receive.method, [&] {
    server.on_data(
        receive.method,
        [&](const Caller& caller, Incoming coming, const FileName& name) {
          return receiver.accept(caller, coming.total, name.value);
        },
        [&](const Caller& caller, const std::optional<bytes>& data, const FileName& name) {
          return receiver.save(caller, data, name.value);
        },
        "saves a file");
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
