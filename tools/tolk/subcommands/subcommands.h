// The subcommands. Each function declares one; its callback does the work and returns when that is
// done.
//
// Thread: the main thread. Owner: the CommonOptions outlive the App. Failure: a callback throws
// Failure.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/tolk/command/common_options.h"

namespace tolk::tool {

void add_bench(CLI::App& app, CommonOptions& options);
void add_call(CLI::App& app, CommonOptions& options);
void add_completion(CLI::App& app, CommonOptions& options);
void add_describe(CLI::App& app, CommonOptions& options);
void add_dump(CLI::App& app, CommonOptions& options);
void add_fetch(CLI::App& app, CommonOptions& options);
void add_help(CLI::App& app);
void add_list(CLI::App& app, CommonOptions& options);
void add_listen(CLI::App& app, CommonOptions& options);
void add_monitor(CLI::App& app, CommonOptions& options);
void add_ping(CLI::App& app, CommonOptions& options);
void add_post(CLI::App& app, CommonOptions& options);
void add_receive(CLI::App& app, CommonOptions& options);
void add_send(CLI::App& app, CommonOptions& options);
void add_serve(CLI::App& app, CommonOptions& options);

// Throws Failure, with the name that is meant, if there is no such subcommand.
void check_subcommand(const CLI::App& app, const std::string& name);

}  // namespace tolk::tool
