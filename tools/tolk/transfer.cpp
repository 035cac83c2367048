// `tolk send` and `tolk receive`: files in pieces, with progress.
#include <fmt/format.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "tools/tolk/command.h"
#include "tools/tolk/file_bytes.h"
#include "tools/tolk/inbox.h"
#include "tools/tolk/interrupt.h"
#include "tools/tolk/json_text.h"
#include "tools/tolk/output.h"
#include "tools/tolk/printable.h"
#include "tools/tolk/progress_bar.h"
#include "tools/tolk/serving.h"

namespace tolk::tool {
namespace {

constexpr const char* kUsualMethod = "upload";
constexpr const char* kNameKey = "name";

struct Send {
  std::string address;
  std::string method;
  std::string file;
  std::string name;
};

// As UTF-8, whatever the system has its names in.
std::string last_part(const std::string& path) {
  const std::u8string name =
      std::filesystem::path(std::u8string(path.begin(), path.end())).filename().u8string();
  return {name.begin(), name.end()};
}

std::string bytes_to_send(const Send& send) {
  try {
    return file_bytes(send.file);
  } catch (const Failure& failure) {
    throw Failure(failure.exit, send.method + " at " + send.address + ": " + failure.what(),
                  failure.hint);
  }
}

// A transfer is cancelled between two pieces. A server that does not answer a piece is not waited
// for: it drops what it has when the connection ends.
void end_even_if_stuck() {
  end_by_itself();
  std::thread([] {
    wait_for_end();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Output::get().leave(Exit::interrupted);
  }).detach();
}

void run_send(const Send& send, const Options& options) {
  const std::string data = bytes_to_send(send);
  std::string name = send.name;
  if (name.empty() && send.file != kStandardInput) {
    name = last_part(send.file);
  }
  Values rest;
  if (!name.empty()) rest.add(kNameKey, name);
  Client& client = connect_to(send.address, send.method, options);
  end_even_if_stuck();
  ProgressBar bar(name.empty() ? send.method : name);
  const auto result = client.send<Values>(
      send.method, data,
      [&bar](Progress progress) {
        bar.show(progress);
        if (end_is_wanted()) progress.cancel();
      },
      rest, options.timeout);
  Output::get().end_progress();
  if (result) {
    Output& output = Output::get();
    const std::string text = colored(result_to_json(*result), options.json, output.data_colors());
    if (!text.empty()) output.data(text + "\n");
    output.detail(fmt::format("{} sent", size_text(data.size())));
    return;
  }
  if (result.error().code() != Errc::cancelled) throw failure_of(result.error());
  throw Failure(Exit::interrupted,
                fmt::format("{} at {}: interrupted", send.method, client.address()),
                "send it again; the server has dropped what it had");
}

struct Receive {
  std::string address;
  std::string method = kUsualMethod;
  std::string into = ".";
  bool overwrite = false;
  int count = 0;
  std::uint64_t most_bytes = 0;  // 0 is any size
};

// How long the sender of the last file may take to hear that it is saved.
constexpr std::chrono::seconds kGrace{1};

// The files that come, one at a time, so that no more are saved than were asked for.
// Thread: any; the hook of clients that go, on the loop thread.
class Receiver {
 public:
  explicit Receiver(const Receive& receive)
      : receive_(receive), inbox_(receive.into, receive.overwrite) {}

  // Throws Refused for a file of too many bytes: of one in pieces, with the first.
  void check_size(const Caller& caller, std::uint64_t bytes) const {
    if (receive_.most_bytes == 0 || bytes <= receive_.most_bytes) return;
    const std::string why = fmt::format("the file has {} bytes, and no more than {} are taken",
                                        bytes, receive_.most_bytes);
    note(caller, why);
    throw Refused(why);
  }

  // What the sender gets: the name of the file.
  std::string save(const Caller& caller, const std::optional<std::string>& name,
                   std::string_view bytes) {
    check_size(caller, bytes.size());
    const std::lock_guard<std::mutex> lock(mutex_);
    if (receive_.count > 0 && saved_ >= receive_.count) {
      throw Refused("no more files are taken");
    }
    try {
      std::string saved = inbox_.save(name, bytes);
      show(inbox_.path_of(saved));
      last_sender_ = caller.id();
      if (++saved_ == receive_.count) ask_to_end();
      return saved;
    } catch (const Refused& refused) {
      note(caller, refused.what());
      throw;
    }
  }

  void gone(int client) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (last_sender_ == client) last_sender_.reset();
    changed_.notify_all();
  }

  // The last answer is on its way when its handler has returned, but not out yet: the sender goes
  // when it has it.
  void wait_for_last_sender() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kGrace, [this] { return !last_sender_ || was_interrupted(); });
  }

 private:
  static void note(const Caller& caller, std::string_view why) {
    Output::get().note(fmt::format("client {}: refused: {}", caller.id(), why));
  }
  static void show(const std::string& path) {
    try {
      Output::get().data(path + "\n");
    } catch (const Failure& failure) {
      // Nobody reads what is printed; the file is there all the same.
      Output::get().failure(failure.what(), failure.hint);
      Output::get().leave(failure.exit);
    }
  }

  const Receive receive_;
  Inbox inbox_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int saved_ = 0;
  std::optional<int> last_sender_;  // while it is connected
};

void run_receive(const Receive& receive, const Options& options) {
  Receiver receiver(receive);
  ProgressBar bar(receive.method);
  std::mutex bar_mutex;
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
  server.on_closed([&](int client) { receiver.gone(client); });
  serve_until_end(server, receive.address, receive.method,
                  [&] { receiver.wait_for_last_sender(); });
}

}  // namespace

void add_send(CLI::App& app, Options& options) {
  CLI::App& command = *app.add_subcommand(
      "send", "Call a method with the bytes of a file, in pieces, and print its result");
  const auto send = std::make_shared<Send>();
  add_address(command, send->address);
  command.add_option("METHOD", send->method, "The name of the method; tolk receive has upload")
      ->check(name_of_method())
      ->type_name("")
      ->required();
  command.add_option("FILE", send->file, "What to send; - is standard input")
      ->type_name("")
      ->required();
  command
      .add_option("--name", send->name,
                  "The name to pass on, as name=NAME; the file's own if not given")
      ->type_name("NAME");
  add_timeout_flag(command, options);
  add_json_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk send pipe:5000 upload report.pdf\n"
               "  echo 'some text' | tolk send 5000 upload - --name note.txt");
  command.callback([send, &options] { run_send(*send, options); });
}

void add_receive(CLI::App& app, Options& options) {
  CLI::App& command = *app.add_subcommand(
      "receive", "Listen for files that tolk send sends, save them, and print where they are");
  const auto receive = std::make_shared<Receive>();
  add_address(command, receive->address);
  command.add_option("METHOD", receive->method, "The name of the method; upload if not given")
      ->type_name("");
  command.add_option("--into", receive->into, "The directory to save in; this one if not given")
      ->type_name("DIRECTORY");
  command.add_flag("--overwrite", receive->overwrite, "Replace files that are there already");
  command.add_option("-c,--count", receive->count, "End after so many files; 0 is no end")
      ->check(count_from_zero())
      ->type_name("N");
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
