// tolk send: a file in pieces, with progress.
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/command/transfers.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/file_bytes.h"
#include "tools/tolk/system/streams.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/progress_bar.h"

namespace tolk::tool {
namespace {

constexpr const char* kNameKey = "name";

// In UTF-8, whatever the encoding of the system's file names.
std::string last_part(const std::string& path) {
  const std::u8string name =
      std::filesystem::path(std::u8string(path.begin(), path.end())).filename().u8string();
  return {name.begin(), name.end()};
}

// A transfer begins with its size, so that of standard input has to be found out.
Source standard_input() {
  const std::shared_ptr<std::FILE> kept = temporary_file();
  std::array<char, 1 << 16> part{};
  std::uint64_t total = 0;
  bool written = kept != nullptr;
  while (written) {
    const std::size_t size = std::fread(part.data(), 1, part.size(), stdin);
    if (size == 0) break;
    written = std::fwrite(part.data(), 1, size, kept.get()) == size;
    total += size;
    if (Output::get().shows_progress()) {
      Output::get().progress("reading standard input  " + size_text(total));
    }
  }
  if (!written || std::ferror(stdin) != 0 || std::fflush(kept.get()) != 0) {
    throw Failure(Exit::failed, std::string("standard input: ") + std::strerror(errno),
                  "look at the space left for temporary files");
  }
  std::rewind(kept.get());
  return from_function(total, [kept](std::span<std::byte> to) {
    return std::fread(to.data(), 1, to.size(), kept.get());
  });
}

Source source_of(const TransferOptions& send) {
  try {
    return send.file == kStandardInput ? standard_input() : from_file(send.file);
  } catch (const Failure& failure) {
    throw failure_at(send.at(), failure);
  } catch (const Error& error) {
    throw Failure(Exit::usage, send.at() + ": " + error.detail(),
                  "name a file that can be read, or - for standard input");
  }
}

void run_send(const TransferOptions& send, const CommonOptions& options) {
  Values arguments = arguments_of(send.arguments, send.method, send.address);
  std::string name = send.name;
  if (name.empty() && send.file != kStandardInput) name = last_part(send.file);
  const bool is_named = !arguments.at(kNameKey).is_none();
  if (!name.empty() && !(is_named && send.name.empty())) arguments.add(kNameKey, name);
  Source source = source_of(send);
  const Values result = run_transfer(
      send, options, name.empty() ? send.method : name,
      [&](Client& client, const auto& report, auto limit, const auto& stop) {
        return client.send<Values>(send.method, source, report, arguments, limit, stop);
      });
  print_result(result_to_json(result), options.json);
}

}  // namespace

void add_send(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "send", "Call a method with the bytes of a file, in pieces, and print its result");
  const auto send = add_transfer(command, options, "What to send; - is standard input", run_send);
  command
      .add_option("--name", send->name,
                  "The name to pass on, as name=NAME; the file's own if not given")
      ->type_name("NAME");
  add_examples(command,
               "  tolk send pipe:5000 upload report.pdf\n"
               "  tolk send 5000 store report.pdf 2026 draft=true\n"
               "  echo 'some text' | tolk send 5000 upload - --name note.txt");
}

}  // namespace tolk::tool
