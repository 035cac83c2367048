// tolk send: a file in pieces, with progress.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/file_bytes.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/progress_bar.h"

namespace tolk::tool {
namespace {

constexpr const char* kNameKey = "name";

struct SendOptions {
  std::string address;
  std::string method;
  std::string file;
  std::string name;
};

// In UTF-8, whatever the encoding of the system's file names.
std::string last_part(const std::string& path) {
  const std::u8string name =
      std::filesystem::path(std::u8string(path.begin(), path.end())).filename().u8string();
  return {name.begin(), name.end()};
}

std::string bytes_to_send(const SendOptions& send) {
  try {
    return file_bytes(send.file);
  } catch (const Failure& failure) {
    throw failure_at(send.method + " at " + send.address, failure);
  }
}

// An interrupt cancels the transfer between two pieces. If the server does not answer a piece, the
// process ends after a second all the same; the server drops the pieces when the connection ends.
void end_by_itself_or_soon() {
  end_by_itself();
  std::thread([] {
    wait_for_end();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Output::get().leave(Exit::interrupted);
  }).detach();
}

void run_send(const SendOptions& send, const CommonOptions& options) {
  const std::string data = bytes_to_send(send);
  std::string name = send.name;
  if (name.empty() && send.file != kStandardInput) {
    name = last_part(send.file);
  }
  Values rest;
  if (!name.empty()) rest.add(kNameKey, name);
  Client& client = connect_to(send.address, send.method, options);
  end_by_itself_or_soon();
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
    print_result(result_to_json(*result), options.json);
    Output::get().detail(fmt::format("{} sent", size_text(data.size())));
    return;
  }
  if (result.error().code() != Errc::cancelled) throw failure_of(result.error());
  throw Failure(Exit::interrupted,
                fmt::format("{} at {}: interrupted", send.method, client.address()),
                "send it again; the server has dropped the pieces that it had");
}

}  // namespace

void add_send(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "send", "Call a method with the bytes of a file, in pieces, and print its result");
  const auto send = std::make_shared<SendOptions>();
  add_address(command, send->address);
  add_method_name(command, send->method, "The name of the method; tolk receive has upload");
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

}  // namespace tolk::tool
