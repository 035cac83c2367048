// tolk completion: what a shell needs to complete command lines. The text is made from the declared
// options, so that it always agrees with --help.
#include <fmt/format.h>

#include <memory>

#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

// The pipes of running servers: their numbers, or pipe:NUMBER if the word begins with a p.
constexpr char kPipes[] = "tolk list -q --timeout 500ms 2>/dev/null | sed -n \"$form\"";
constexpr char kNumberForm[] = "'s/^pipe:\\([0-9]*\\).*/\\1/p'";
constexpr char kPipeForm[] = "'s/^\\(pipe:[0-9]*\\).*/\\1/p'";
constexpr char kFishPipes[] =
    "string match -q 'p*' -- (commandline -ct); and set -l form {pipe}; or set -l form {number}; "
    "{list}";
constexpr char kColors[] = "auto always never";
constexpr char kShells[] = "bash zsh fish";
// The methods of a server, if it lists them.
constexpr char kMethods[] =
    "tolk describe {} -q --color=never --timeout 500ms 2>/dev/null | sed -n 's/^\\([^ "
    "(]*\\)(.*/\\1/p'";

struct FlagText {
  std::string name;  // with its dashes
  std::string about;
  bool takes_value = false;
};

struct SubcommandText {
  std::string name;
  std::string about;  // its first sentence
  std::vector<FlagText> flags;
  bool has_address = false;
  bool has_method = false;
  bool has_shell = false;
};

std::string first_sentence(const std::string& text) { return text.substr(0, text.find(". ")); }

SubcommandText command_of(const CLI::App& app) {
  SubcommandText command{app.get_name(), first_sentence(app.get_description()), {}};
  for (const CLI::Option* option : app.get_options()) {
    command.has_address |= option->get_name() == "ADDRESS";
    command.has_method |= option->get_name() == "METHOD";
    command.has_shell |= option->get_name() == "SHELL";
    for (const std::string& name : option->get_lnames()) {
      const bool takes_value = option->get_items_expected_max() > 0;
      command.flags.push_back(
          {"--" + name, first_sentence(option->get_description()), takes_value});
    }
  }
  return command;
}

std::vector<SubcommandText> commands_of(const CLI::App& app) {
  std::vector<SubcommandText> all;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!sub->get_group().empty()) all.push_back(command_of(*sub));
  }
  return all;
}

std::string names_of(const std::vector<SubcommandText>& commands) {
  std::string names;
  for (const SubcommandText& command : commands) names += command.name + " ";
  return names;
}

std::string flags_of(const SubcommandText& command) {
  std::string flags;
  for (const FlagText& flag : command.flags) flags += flag.name + " ";
  return flags;
}

// The text in single quotes, which all three shells understand.
std::string quoted(std::string text) {
  for (std::size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 4) {
    text.replace(at, 1, "'\\''");
  }
  return "'" + text + "'";
}

// "--color=auto --color=always": the flag before each of the words.
std::string with_flag(const std::string& flag, const std::string& words) {
  std::string text = flag;
  for (const char character : words)
    text += character == ' ' ? " " + flag : std::string(1, character);
  return text;
}

// A pattern of PREVIOUS:PLACE:COMMAND for the subcommands that have `what` at that place.
std::string pattern_of(int place, const std::vector<SubcommandText>& commands,
                       bool SubcommandText::*what) {
  std::string pattern;
  for (const SubcommandText& command : commands) {
    if (!(command.*what)) continue;
    pattern += fmt::format("{}*:{}:{}", pattern.empty() ? "" : "|", place, command.name);
  }
  return pattern;
}

// The part that bash and zsh share: which words can come next, depending on the subcommand, the
// place and the previous word. `words` is the variable for them.
std::string cases_of(const std::vector<SubcommandText>& commands, const std::string& words) {
  std::string cases = "  case $command in\n";
  for (const SubcommandText& command : commands) {
    cases += fmt::format("    {}) flags={} ;;\n", command.name, quoted(flags_of(command)));
  }
  cases += "  esac\n";
  cases += fmt::format("  form={}\n  if [[ $current == p* ]]; then form={}; fi\n", kNumberForm,
                       kPipeForm);
  cases += fmt::format("  case $previous:$place:$command in\n    --color:*) {}='{}' ;;\n", words,
                       kColors);
  cases += fmt::format("    --from:*|--to:*|{}) {}=$({}) ;;\n",
                       pattern_of(2, commands, &SubcommandText::has_address), words, kPipes);
  cases +=
      fmt::format("    {}) {}=$({}) ;;\n", pattern_of(3, commands, &SubcommandText::has_method),
                  words, fmt::format(fmt::runtime(kMethods), "\"$address\""));
  cases += fmt::format("    {}) {}='{}' ;;\n  esac\n",
                       pattern_of(2, commands, &SubcommandText::has_shell), words, kShells);
  cases += fmt::format("  case $current in\n    --color=*) flags='{}' ;;\n  esac\n",
                       with_flag("--color=", kColors));
  return cases;
}

std::string bash(const std::vector<SubcommandText>& commands) {
  return fmt::format(R"(# tolk completion bash, to be read by:  source <(tolk completion bash)
_tolk() {{
  local line words flags place command address current previous form
  # Split at blanks only: bash would split pipe:5000 into three words.
  read -ra line <<<"${{COMP_LINE:0:COMP_POINT}}"
  [[ ${{COMP_LINE:0:COMP_POINT}} == *' ' ]] && line+=('')
  place=$((${{#line[@]}} - 1)) command=${{line[1]}} address=${{line[2]}} current=${{line[place]}}
  previous=${{line[place - 1]}}
{cases}  if ((place == 1)); then words={names}; fi
  if [[ $current == -* ]]; then words=$flags; fi
  COMPREPLY=($(compgen -W "$words" -- "$current"))
  # bash splits the word at its last = or : and expects only the part after that.
  if [[ $current == *[=:]* ]]; then COMPREPLY=("${{COMPREPLY[@]##*[=:]}}"); fi
}}
complete -o default -F _tolk tolk
)",
                     fmt::arg("cases", cases_of(commands, "words")),
                     fmt::arg("names", quoted(names_of(commands) + "--help --version")));
}

std::string zsh(const std::vector<SubcommandText>& commands) {
  std::string described;
  for (const SubcommandText& command : commands) {
    described += "    " + quoted(command.name + ":" + command.about) + "\n";
  }
  return fmt::format(R"(#compdef tolk
# tolk completion zsh: save it as _tolk in a folder of $fpath, or  source <(tolk completion zsh)
_tolk() {{
  local flags words_there form place=$((CURRENT - 1)) command=$words[2] address=$words[3]
  local current=$PREFIX previous=$words[CURRENT-1]
  local -a subcommands=(
{described}  )
{cases}  if ((place == 1)); then
    _describe command subcommands
  elif [[ $PREFIX == -* ]]; then
    compadd -- ${{=flags}}
  else
    compadd -- ${{=words_there}} || _files
  fi
}}
if [[ $funcstack[1] == _tolk ]]; then _tolk "$@"; else compdef _tolk tolk; fi
)",
                     fmt::arg("described", described),
                     // In zsh `words` is the command line.
                     fmt::arg("cases", cases_of(commands, "words_there")));
}

// The values of a flag, for fish.
std::string fish_values(const FlagText& flag, const std::string& pipes) {
  if (!flag.takes_value) return "";
  if (flag.name == "--color") return fmt::format(" -x -a {}", quoted(kColors));
  if (flag.name == "--from" || flag.name == "--to") {
    return fmt::format(" -x -a {}", quoted("(" + pipes + ")"));
  }
  return " -r";
}

std::string fish(const std::vector<SubcommandText>& commands) {
  const std::string pipes = fmt::format(fmt::runtime(kFishPipes), fmt::arg("pipe", kPipeForm),
                                        fmt::arg("number", kNumberForm), fmt::arg("list", kPipes));
  std::string lines = "# tolk completion fish, to be read by:  tolk completion fish | source\n";
  for (const SubcommandText& command : commands) {
    lines += fmt::format("complete -c tolk -f -n __fish_use_subcommand -a {} -d {}\n", command.name,
                         quoted(command.about));
    const std::string seen = quoted("__fish_seen_subcommand_from " + command.name);
    for (const FlagText& flag : command.flags) {
      lines += fmt::format("complete -c tolk -n {} -l {}{} -d {}\n", seen, flag.name.substr(2),
                           fish_values(flag, pipes), quoted(flag.about));
    }
    const auto at_place = [&](int place, const std::string& words) {
      const std::string when = "__fish_seen_subcommand_from " + command.name +
                               "; and test (count (commandline -opc)) -eq " + std::to_string(place);
      lines +=
          fmt::format("complete -c tolk -f -n {} -a {}\n", quoted(when), quoted("(" + words + ")"));
    };
    if (command.has_address) at_place(2, pipes);
    if (command.has_shell) at_place(2, std::string("echo ") + kShells + " | tr ' ' '\\n'");
    if (command.has_method) {
      at_place(3, fmt::format(fmt::runtime(kMethods), "(commandline -opc)[3]"));
    }
  }
  return lines;
}

}  // namespace

void add_completion(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand("completion", "Print what a shell needs to complete");
  const auto shell = std::make_shared<std::string>();
  command.add_option("SHELL", *shell, "bash, zsh or fish")
      ->check(CLI::IsMember({"bash", "zsh", "fish"}))
      ->type_name("")
      ->required();
  add_output_flags(command, options);
  add_examples(command,
               "  tolk completion bash > tolk.bash\n"
               "  tolk completion zsh > _tolk\n"
               "  tolk completion fish > tolk.fish");
  command.callback([shell, &app] {
    const std::vector<SubcommandText> commands = commands_of(app);
    Output::get().data(*shell == "bash"  ? bash(commands)
                       : *shell == "zsh" ? zsh(commands)
                                         : fish(commands));
  });
}

}  // namespace tolk::tool
