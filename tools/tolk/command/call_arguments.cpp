#include "tools/tolk/command/call_arguments.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/system/file_bytes.h"
#include "tools/tolk/text/bytes.h"
#include "tools/tolk/text/json.h"
#include "tools/tolk/text/number.h"

namespace tolk::tool {
namespace {

constexpr char kJson[] = "--json";
constexpr char kBareFlag[] = "true";  // what the option parser makes of a flag without a value
constexpr char kMark = '\x1f';        // the unit separator, which nobody types
constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
constexpr std::string_view kDigits = "0123456789";

// What is wrong with the arguments. The text names neither the method nor the address.
struct BadArgument {
  std::string text;
  std::string hint;
};

bool is_digit(char character) { return kDigits.find(character) != std::string_view::npos; }

[[noreturn]] void refuse(std::string_view word, std::string_view why, std::string hint) {
  throw BadArgument{"argument " + std::string(word) + ": " + std::string(why), std::move(hint)};
}

bool looks_like_number(std::string_view text) {
  if (text.starts_with('-')) text.remove_prefix(1);
  return !text.empty() &&
         (is_digit(text[0]) || (text.size() > 1 && text[0] == '.' && is_digit(text[1])));
}

bool is_whole(std::string_view text) {
  if (text.starts_with('-')) text.remove_prefix(1);
  return std::all_of(text.begin(), text.end(), is_digit);
}

std::string contents_of(const std::string& name) {
  try {
    return file_bytes(name);
  } catch (const Failure& failure) {
    throw BadArgument{failure.what(), name == kStandardInput
                                          ? failure.hint
                                          : "name a file that can be read, or write :string=@" +
                                                name + " for the text"};
  }
}

std::optional<Value> whole_number_in(std::string_view text) {
  if (const auto number = number_in<std::int64_t>(text)) return *number;
  if (const auto number = number_in<std::uint64_t>(text)) return *number;
  return std::nullopt;
}

Value plain_value(std::string_view word, std::string_view text) {
  if (text == "true") return true;
  if (text == "false") return false;
  if (text.size() > 1 && text[0] == '@')
    return bytes_from(contents_of(std::string(text.substr(1))));
  if (!looks_like_number(text)) return std::string(text);
  if (const auto whole = whole_number_in(text)) return *whole;
  if (is_whole(text)) {
    refuse(word, "the number does not fit in 64 bits",
           "write " + std::string(text) + ".0 for a double, or :string=" + std::string(text));
  }
  if (const auto real = number_in<double>(text)) return *real;
  return std::string(text);  // 3rd, 10.0.0.1
}

Value typed_value(std::string_view word, std::string_view type, std::string_view text) {
  if (type == "string") return std::string(text);
  if (type == "bytes") {
    return bytes_from(text.starts_with('@') ? contents_of(std::string(text.substr(1))) : text);
  }
  if (type == "bool") {
    if (text == "true" || text == "false") return text == "true";
    refuse(word, "not a bool", "write true or false");
  }
  if (type == "int") {
    if (const auto whole = whole_number_in(text)) return *whole;
    refuse(word, "not an integer of 64 bits", "write a whole number such as -3");
  }
  if (type == "double") {
    if (const auto real = number_in<double>(text)) return *real;
    refuse(word, "not a double", "write a number such as 2.5");
  }
  if (type != "json") {
    refuse(word, "there is no type \"" + std::string(type) + "\"",
           "use bool, int, double, string, bytes or json");
  }
  try {
    return value_from(json_from(text));
  } catch (const BadJson& bad) {
    refuse(word, bad.what(), "quote it for the shell: 'list:json=[1, 2]'");
  }
}

bool is_name(std::string_view text) {
  const std::string more = std::string(kLetters) + std::string(kDigits) + ".-";
  return !text.empty() && kLetters.find(text[0]) != std::string_view::npos &&
         text.find_first_not_of(more) == std::string_view::npos;
}

// The parts of NAME=VALUE and NAME:TYPE=VALUE; nothing when the word is neither.
struct Assignment {
  std::string_view name, type, value;
};
std::optional<Assignment> assignment_in(std::string_view word) {
  const std::size_t sign = word.find('=');
  if (sign == std::string_view::npos) return std::nullopt;
  std::string_view name = word.substr(0, sign);
  std::string_view type;
  const std::size_t colon = name.find(':');
  if (colon != std::string_view::npos) {
    type = name.substr(colon + 1);
    name = name.substr(0, colon);
    if (!is_name(type) || !(name.empty() || is_name(name))) return std::nullopt;
  } else if (!is_name(name)) {
    return std::nullopt;
  }
  return Assignment{name, type, word.substr(sign + 1)};
}

void add_argument(Values& values, const std::string& word) {
  const auto parts = assignment_in(word);
  if (!parts) {
    values.add(plain_value(word, word));
    return;
  }
  Value value = parts->type.empty() ? plain_value(word, parts->value)
                                    : typed_value(word, parts->type, parts->value);
  if (is_reserved_key(parts->name)) refuse(word, kReservedKey, "choose another key");
  if (parts->name.empty()) {
    values.add(std::move(value));
  } else {
    values.add(std::string(parts->name), std::move(value));
  }
}

Values read_arguments(const ArgumentTexts& texts) {
  Values values;
  if (texts.json.empty() || texts.json == kBareFlag) {
    for (const std::string& word : texts.words) add_argument(values, word);
    return values;
  }
  if (!texts.words.empty()) {
    throw BadArgument{"the arguments are given twice", "give them as words, or by --json"};
  }
  const std::string& text = texts.json;
  try {
    return arguments_from(json_from(text == kStandardInput ? contents_of(kStandardInput) : text));
  } catch (const BadJson& bad) {
    refuse("--json=" + text, bad.what(),
           "write '--json=[3, \"text\"]', '--json={\"name\": 3}', or --json=- for JSON from "
           "standard input; --json alone is about the output");
  }
}

// After --json: a flag, whose value follows =, as the option parser wants it.
bool is_json_or_input(std::string_view word) {
  return word == kStandardInput || word.find_first_of("[{\"") == 0;
}

bool needs_mark(std::string_view word) {
  if (word.starts_with('[')) return true;
  return word.starts_with('-') && looks_like_number(word);
}

}  // namespace

Values arguments_of(const ArgumentTexts& texts, const std::string& method,
                    const std::string& address) {
  try {
    return read_arguments(texts);
  } catch (const BadArgument& bad) {
    throw Failure(Exit::usage, method + " at " + address + ": " + bad.text, bad.hint);
  }
}

void add_arguments(CLI::App& command, ArgumentTexts& texts, CommonOptions& options) {
  command
      .add_option_function<std::vector<std::string>>(
          "ARGUMENT", [&texts](const std::vector<std::string>& words) { texts.words = words; },
          "3 2.5 true text @file name=value name:int=5 :string=5\n"
          "types: bool, int, double, string, bytes, json")
      ->type_name("");
  add_json_flag(command, texts.json, options,
                "JSON instead of words and plain text: print the result as JSON;\n"
                "with =ARGUMENTS take these, as JSON, or =- from standard input");
}

std::vector<std::string> marked(const std::vector<std::string>& words) {
  std::vector<std::string> all;
  for (const std::string& word : words) {
    if (!all.empty() && all.back() == kJson && is_json_or_input(word)) {
      all.back() += "=" + word;
    } else {
      all.push_back((needs_mark(word) ? std::string(1, kMark) : "") + word);
    }
  }
  return all;
}

std::string unmarked(std::string word) {
  word.erase(std::remove(word.begin(), word.end(), kMark), word.end());
  return word;
}

void unmark_words_of(CLI::App& command) {
  for (CLI::Option* const option : command.get_options()) option->transform(unmarked);
}

}  // namespace tolk::tool
