// How subcommands declare the options that they share, and their help.
//
// Thread: the main thread. Owner: the CommonOptions outlive the App. Failure: a value that is wrong
// is a CLI::ValidationError, which names the option.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <string>

#include "tools/tolk/command/common_options.h"

namespace tolk::tool {

// ADDRESS, which is required unless the subcommand says otherwise.
CLI::Option* add_address(CLI::App& command, std::string& address);

// METHOD, which is required and not empty.
void add_method_name(CLI::App& command, std::string& method, const std::string& about);

void add_output_flags(CLI::App& command, CommonOptions& options);  // -q, -v, --color
void add_json_flag(CLI::App& command, CommonOptions& options);     // --json, --pretty
// The same with arguments: `--json=ARGUMENTS`.
void add_json_flag(CLI::App& command, std::string& arguments, CommonOptions& options,
                   const std::string& about);
// --timeout 500ms. `about` is its help.
void add_timeout_flag(CLI::App& command, CommonOptions& options,
                      const std::string& about =
                          "How long to wait for an answer: 500ms, 2s, 1.5m, "
                          "none; 5s if not given");
// -c, --count: a whole number from 0.
CLI::Option* add_count_flag(CLI::App& command, int& count, const std::string& about);

// Ends --help with examples, one command on each line; the tests run them as they are printed.
// `about` stands before the examples.
void add_examples(CLI::App& command, const std::string& lines, const std::string& about = {});

// Reads 500ms, 2s, 1.5s, 3m, and "none" for no limit.
std::chrono::milliseconds duration_from(const char* option, const std::string& text);

}  // namespace tolk::tool
