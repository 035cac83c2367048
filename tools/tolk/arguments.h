// The arguments of a call as they are written on a command line.
//
// | written | passed |
// |---|---|
// | 3, -3 | int |
// | 2.5, 1e3 | double |
// | true, false | bool |
// | @file, @- | the bytes of the file, or of standard input |
// | name=value | the value under the key `name`, by these same rules |
// | name:int=5 | the same as bool, int, double, string, bytes or json |
// | :string=5 | the text 5, without a key |
// | anything else | string |
//
// Thread: the main thread. Failure: Failure with Exit::usage, which names the argument.
#pragma once

#include <string>
#include <string_view>
#include <tolk/tolk.hpp>
#include <vector>

#include "tools/tolk/command.h"

namespace tolk::tool {

// What a subcommand has read of its arguments.
struct ArgumentTexts {
  std::vector<std::string> words;
  std::vector<std::string> json;  // a text of JSON, or "-" for standard input; one at most
};

// ARGUMENT..., and --json both for arguments and for the style of the output.
void add_arguments(CLI::App& command, ArgumentTexts& texts, Options& options);

// All arguments of a call. Method and address are for the text of a Failure.
Values arguments_of(const ArgumentTexts& texts, const std::string& method,
                    const std::string& address);

// The library of options takes -3 for an option and [a,b] for two values. So words like these are
// marked before it sees them.
std::vector<std::string> marked(std::vector<std::string> words);
// The word as it was written.
std::string unmarked(std::string word);
// For the words that a subcommand gets, before anything else sees them.
void unmark_words_of(CLI::App& command);

}  // namespace tolk::tool
