// The arguments of a call, read from a command line.
//
// | written | passed |
// |---|---|
// | 3, -3 | int, of 64 bits |
// | 2.5, 1e3 | double |
// | true, false | bool |
// | @file, @- | the bytes of the file, or of standard input |
// | name=value | the value under the key `name`, by these same rules |
// | name:int=5 | the same with a given type: bool, int, double, string, bytes or json |
// | :string=5 | the text 5, without a key |
// | anything else | string |
//
// Thread: the main thread. Failure: Failure with Exit::usage, which names the argument.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <tolk/tolk.hpp>
#include <vector>

#include "tools/tolk/command/common_options.h"

namespace tolk::tool {

// The arguments of a call as the user has written them.
struct ArgumentTexts {
  std::vector<std::string> words;
  std::string json;  // JSON, or "-" for standard input; what the parser makes of --json alone
};

// Adds ARGUMENT..., and --json, which may have them.
void add_arguments(CLI::App& command, ArgumentTexts& texts, CommonOptions& options);

// Converts all arguments. Method and address are for the text of a Failure.
Values arguments_of(const ArgumentTexts& texts, const std::string& method,
                    const std::string& address);

// The option parser would read -3 as an option and [a,b] as two values. Therefore such words get a
// mark before they are parsed. JSON after --json becomes its value.
std::vector<std::string> marked(const std::vector<std::string>& words);
// The word without its mark.
std::string unmarked(std::string word);
// Removes the marks from the words that a subcommand gets.
void unmark_words_of(CLI::App& command);

}  // namespace tolk::tool
