// tolk fetch: the data of a method's answer into a file, with progress.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/command/transfers.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/file_bytes.h"
#include "tools/tolk/system/streams.h"
#include "tools/tolk/text/bytes.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

std::filesystem::path path_of(const std::string& name) {
  return {std::u8string(name.begin(), name.end())};
}

// A file, which has its name when it is whole, or standard output.
//
// Thread: the main thread; a worker runs its sink. Failure: Failure.
class Target {
 public:
  explicit Target(const TransferOptions& fetch)
      : at_(fetch.at()), file_(fetch.file), part_(file_ == kStandardInput ? "" : file_ + ".part") {}
  ~Target() {
    std::error_code ignored;
    if (!part_.empty()) std::filesystem::remove(path_of(part_), ignored);
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  Sink sink() const {
    if (part_.empty()) {
      return to_function([](std::span<const std::byte> data) {
        Output::get().data({reinterpret_cast<const char*>(data.data()), data.size()});
      });
    }
    try {
      return to_file(part_);
    } catch (const Error& error) {
      throw failure(error.detail());
    }
  }
  void write(std::string_view all) const {
    if (part_.empty()) return Output::get().data(all);
    FileHandle file = open_file(part_, 'w');
    const bool written = file && std::fwrite(all.data(), 1, all.size(), file.get()) == all.size() &&
                         std::fflush(file.get()) == 0;
    if (!written) throw failure(part_ + ": " + std::strerror(errno));
  }
  void finish() {
    if (part_.empty()) return;
    std::error_code error;
    std::filesystem::rename(path_of(part_), path_of(file_), error);
    if (error) throw failure(file_ + ": " + error.message());
    part_.clear();
  }

 private:
  Failure failure(const std::string& why) const {
    return {Exit::usage, at_ + ": " + why,
            "name a file that can be written, or - for standard output"};
  }

  const std::string at_;
  const std::string file_;
  std::string part_;
};

// Small data, and those of older servers, are the first value of the result.
Values without_data(const Values& result, const Target& target, const std::string& at) {
  const Value& first = result.at(0);
  if (const auto* const data = first.get_if<bytes>()) {
    target.write(view_of(*data));
  } else if (const auto* const text = first.get_if<std::string>()) {
    target.write(*text);
  } else {
    throw Failure(Exit::failed, at + ": the answer has no data",
                  "tolk call prints the result of a method");
  }
  Values rest;
  for (std::size_t i = 1; i < result.size(); ++i) rest.add(result.at(i));
  for (const auto& [key, value] : result.keyed()) rest.add(key, value);
  return rest;
}

void run_fetch(const TransferOptions& fetch, const CommonOptions& options) {
  const Values arguments = arguments_of(fetch.arguments, fetch.method, fetch.address);
  bool has_data = false;
  Target target(fetch);
  Values result =
      run_transfer(fetch, options, fetch.file == kStandardInput ? fetch.method : fetch.file,
                   [&](Client& client, const auto& report, auto limit, const auto& stop) {
                     return client.fetch<Values>(
                         fetch.method, target.sink(),
                         [&](Progress progress) {
                           has_data = true;
                           report(progress);
                         },
                         arguments, limit, stop);
                   });
  if (!has_data) result = without_data(result, target, fetch.at());
  target.finish();
  print_result(result_to_json(result), options.json);
}

}  // namespace

void add_fetch(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "fetch",
      "Call a method, save the data of its answer in a file, and print the rest of the result");
  add_transfer(command, options,
               "Where to save, in FILE.part until it is whole;\n- is standard output", run_fetch);
  add_examples(command,
               "  tolk fetch pipe:5000 download report.pdf report.pdf\n"
               "  tolk fetch 5000 download - report.pdf | wc -c");
}

}  // namespace tolk::tool
