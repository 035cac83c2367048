#include "tools/tolk/command/transfers.h"

#include <fmt/format.h>

#include <thread>

#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/progress_bar.h"

namespace tolk::tool {
namespace {

// A method may have much to do with much data when the last byte is there.
constexpr std::chrono::minutes kUsualLimit{1};

// An interrupt cancels the transfer. If the other end of a file or pipe does not let go of a
// thread, the process ends after a second all the same.
std::stop_token stopped_by_interrupt() {
  end_by_itself();
  std::stop_source stop;
  std::thread([stop]() mutable {
    wait_for_end();
    stop.request_stop();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Output::get().leave(Exit::interrupted);
  }).detach();
  return stop.get_token();
}

}  // namespace

std::shared_ptr<TransferOptions> add_transfer(CLI::App& command, CommonOptions& options,
                                              const char* about_file, const RunTransfer& run) {
  auto transfer = std::make_shared<TransferOptions>();
  add_address(command, transfer->address);
  add_method_name(command, transfer->method, "The name of the method");
  command.add_option("FILE", transfer->file, about_file)->type_name("")->required();
  add_arguments(command, transfer->arguments, options);
  add_timeout_flag(command, options,
                   "How long to wait for each piece, and for the method: 500ms, 2s, 1.5m,\n"
                   "none; 1m if not given");
  add_output_flags(command, options);
  command.callback([transfer, run, &options] { run(*transfer, options); });
  return transfer;
}

Values run_transfer(const TransferOptions& transfer, const CommonOptions& options,
                    const std::string& shown, const Move& move) {
  Client& client = connect_to(transfer.address, transfer.method, options);
  const std::stop_token stop = stopped_by_interrupt();
  ProgressBar bar(shown);
  std::uint64_t moved = 0;
  const auto result = move(
      client,
      [&](Progress progress) {
        bar.show(progress.done(), progress.total());
        moved = progress.done();
      },
      options.timeout_given ? options.timeout : kUsualLimit, stop);
  if (result) {
    Output::get().keep_progress();
    Output::get().detail(size_text(moved) + " moved");
    return *result;
  }
  Output::get().end_progress();
  if (result.error().code() != Errc::cancelled) throw failure_of_call(client, result.error());
  throw Failure(Exit::interrupted, transfer.at() + ": interrupted",
                "start it again; what had arrived is dropped");
}

}  // namespace tolk::tool
