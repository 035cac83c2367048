#include "tools/tolk/command/flags.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <tolk/tolk.hpp>

#include "tools/tolk/text/number.h"

namespace tolk::tool {
namespace {

const std::map<std::string, double>& units_ms() {
  static const std::map<std::string, double> kUnits = {
      {"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}};
  return kUnits;
}

CLI::Validator count_from_zero() {
  return {[](const std::string& text) {
            const bool valid = number_in<int>(text).value_or(-1) >= 0;
            return valid ? std::string()
                         : "\"" + text + "\" is not a whole number from 0 to 2147483647";
          },
          ""};
}

// A call of "retval" would be taken for a reply, so no server can have such a method.
CLI::Validator method_name() {
  return {[](const std::string& name) {
            return std::string(name.empty() ? "the name of a method must not be empty"
                               : name == "retval"
                                   ? "no method has the name retval: it marks replies"
                                   : "");
          },
          ""};
}

void add_pretty_flag(CLI::App& command, CommonOptions& options) {
  command.add_flag_callback(
      "--pretty", [&options] { options.json = JsonStyle::pretty; }, "Print JSON, on several lines");
}

}  // namespace

CLI::Option* add_address(CLI::App& command, std::string& address) {
  return command
      .add_option("ADDRESS", address,
                  "pipe:5000, tcp4:127.0.0.1:5000 or tcp6:[::1]:5000;\na bare number is a pipe")
      ->type_name("")
      ->required();
}

void add_method_name(CLI::App& command, std::string& method, const std::string& about) {
  command.add_option("METHOD", method, about)->check(method_name())->type_name("")->required();
}

void add_output_flags(CLI::App& command, CommonOptions& options) {
  command.add_flag("-q,--quiet", options.quiet, "Print data and errors, and nothing else");
  command.add_flag("-v,--verbose", options.verbose,
                   "Print more about what happens, and the library's own lines");
  static const std::map<std::string, ColorMode> kModes = {
      {"auto", ColorMode::automatic}, {"always", ColorMode::always}, {"never", ColorMode::never}};
  command
      .add_option_function<std::string>(
          "--color", [&options](const std::string& word) { options.color = kModes.at(word); },
          "Colours: auto (on a terminal, unless NO_COLOR is set), always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->type_name("WHEN");
}

void add_json_flag(CLI::App& command, CommonOptions& options) {
  command.add_flag_callback(
      "--json", [&options] { options.json = std::max(options.json, JsonStyle::brief); },
      "Print JSON, in one line");
  add_pretty_flag(command, options);
}

void add_json_flag(CLI::App& command, std::string& arguments, CommonOptions& options,
                   const std::string& about) {
  command.add_flag("--json", arguments, about)
      ->each([&options](const std::string&) {
        options.json = std::max(options.json, JsonStyle::brief);
      })
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  add_pretty_flag(command, options);
}

void add_timeout_flag(CLI::App& command, CommonOptions& options, const std::string& about) {
  command
      .add_option_function<std::string>(
          "--timeout",
          [&options](const std::string& text) {
            options.timeout = duration_from("--timeout", text);
            options.timeout_given = true;
          },
          about)
      ->type_name("TIME");
}

CLI::Option* add_count_flag(CLI::App& command, int& count, const std::string& about) {
  return command.add_option("-c,--count", count, about)->check(count_from_zero())->type_name("N");
}

void add_examples(CLI::App& command, const std::string& lines, const std::string& about) {
  command.footer(about + (about.empty() ? "" : "\n\n") + "Examples:\n" + lines);
}

std::chrono::milliseconds duration_from(const char* option, const std::string& text) {
  if (text == "none") return forever;
  double amount = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, amount);
  const auto unit = units_ms().find(std::string(parsed.ptr, end));
  const bool valid = parsed.ec == std::errc() && unit != units_ms().end() && amount >= 0;
  const double amount_ms = valid ? amount * unit->second : 0;
  constexpr double kMost = 4'000'000'000;  // what a call can wait at most, 46 days
  if (!valid || !(amount_ms < kMost)) {
    throw CLI::ValidationError(option,
                               "\"" + text + "\" is not a duration; write 500ms, 2s, 1.5m or none");
  }
  return std::chrono::milliseconds(std::llround(std::ceil(amount_ms)));
}

}  // namespace tolk::tool
