// tolk completion: what a shell needs to complete command lines. Made from the options themselves,
// so that it can not say anything else than --help.
#include <fmt/format.h>

#include <memory>

#include "tools/tolk/command.h"
#include "tools/tolk/output.h"

namespace tolk::tool {
namespace {

// Numbers of live pipes, and the methods of a server that tells them.
constexpr char kPipes[] =
    "tolk list -q --timeout 500ms 2>/dev/null | sed -n 's/^pipe:\\([0-9]*\\).*/\\1/p'";
constexpr char kShells[] = "bash zsh fish";
constexpr char kMethods[] =
    "tolk describe {} -q --color=never --timeout 500ms 2>/dev/null | sed 's/(.*//'";

struct Flag {
  std::string name;  // with its dashes
  std::string about;
  bool takes_value = false;
};

struct Command {
  std::string name;
  std::string about;  // its first sentence
  std::vector<Flag> flags;
  bool has_address = false;
  bool has_method = false;
  bool has_shell = false;
};

std::string first_sentence(const std::string& text) { return text.substr(0, text.find(". ")); }

Command command_of(const CLI::App& app) {
  Command command{app.get_name(), first_sentence(app.get_description()), {}};
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

std::vector<Command> commands_of(const CLI::App& app) {
  std::vector<Command> all;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!sub->get_group().empty()) all.push_back(command_of(*sub));
  }
  return all;
}

std::string names_of(const std::vector<Command>& commands) {
  std::string names;
  for (const Command& command : commands) names += command.name + " ";
  return names;
}

std::string flags_of(const Command& command) {
  std::string flags;
  for (const Flag& flag : command.flags) flags += flag.name + " ";
  return flags;
}

// In single quotes for any of the shells.
std::string quoted(std::string text) {
  for (std::size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 4) {
    text.replace(at, 1, "'\\''");
  }
  return "'" + text + "'";
}

// A pattern for PLACE:COMMAND of those that have something there.
std::string pattern_of(int place, const std::vector<Command>& commands, bool Command::*what) {
  std::string pattern;
  for (const Command& command : commands) {
    if (!(command.*what)) continue;
    pattern += fmt::format("{}{}:{}", pattern.empty() ? "" : "|", place, command.name);
  }
  return pattern;
}

// What bash and zsh share: which words can come, by the subcommand and the place.
std::string cases_of(const std::vector<Command>& commands) {
  std::string cases = "  case $command in\n";
  for (const Command& command : commands) {
    cases += fmt::format("    {}) flags={} ;;\n", command.name, quoted(flags_of(command)));
  }
  cases += "  esac\n";
  cases += fmt::format("  case $place:$command in\n    {}) words=$({}) ;;\n",
                       pattern_of(2, commands, &Command::has_address), kPipes);
  cases += fmt::format("    {}) words=$({}) ;;\n", pattern_of(3, commands, &Command::has_method),
                       fmt::format(fmt::runtime(kMethods), "\"$address\""));
  cases += fmt::format("    {}) words=$(echo {}) ;;\n  esac\n",
                       pattern_of(2, commands, &Command::has_shell), kShells);
  return cases;
}

std::string bash(const std::vector<Command>& commands) {
  return fmt::format(R"(# tolk completion bash, to be read by:  source <(tolk completion bash)
_tolk() {{
  local line words flags place command address current
  # By blanks alone: bash would cut pipe:5000 in three.
  read -ra line <<<"${{COMP_LINE:0:COMP_POINT}}"
  [[ ${{COMP_LINE:0:COMP_POINT}} == *' ' ]] && line+=('')
  place=$((${{#line[@]}} - 1)) command=${{line[1]}} address=${{line[2]}} current=${{line[place]}}
{cases}  if ((place == 1)); then words={names}; fi
  if [[ $current == -* ]]; then words=$flags; fi
  if [[ $current == --color=* ]]; then words='--color=auto --color=always --color=never'; fi
  COMPREPLY=($(compgen -W "$words" -- "$current"))
  # bash has cut the word at its last = or : and wants no more than what is behind it.
  if [[ $current == *[=:]* ]]; then COMPREPLY=("${{COMPREPLY[@]##*[=:]}}"); fi
}}
complete -o default -F _tolk tolk
)",
                     fmt::arg("cases", cases_of(commands)),
                     fmt::arg("names", quoted(names_of(commands) + "--help --version")));
}

std::string zsh(const std::vector<Command>& commands) {
  std::string described;
  for (const Command& command : commands) {
    described += "    " + quoted(command.name + ":" + command.about) + "\n";
  }
  return fmt::format(R"(#compdef tolk
# tolk completion zsh: save it as _tolk in a folder of $fpath, or  source <(tolk completion zsh)
_tolk() {{
  local flags words_there place=$((CURRENT - 1)) command=$words[2] address=$words[3]
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
                     fmt::arg("described", described), fmt::arg("cases", [&] {
                       // `words` is the command line there.
                       std::string cases = cases_of(commands);
                       for (std::size_t at = 0;
                            (at = cases.find("words=$", at)) != std::string::npos; at += 13) {
                         cases.replace(at, 6, "words_there=");
                       }
                       return cases;
                     }()));
}

std::string fish(const std::vector<Command>& commands) {
  std::string lines = "# tolk completion fish, to be read by:  tolk completion fish | source\n";
  for (const Command& command : commands) {
    lines += fmt::format("complete -c tolk -f -n __fish_use_subcommand -a {} -d {}\n", command.name,
                         quoted(command.about));
    const std::string seen = quoted("__fish_seen_subcommand_from " + command.name);
    for (const Flag& flag : command.flags) {
      lines += fmt::format("complete -c tolk -n {} -l {}{} -d {}\n", seen, flag.name.substr(2),
                           flag.takes_value ? " -r" : "", quoted(flag.about));
    }
    const auto at_place = [&](int place, const std::string& words) {
      const std::string when = "__fish_seen_subcommand_from " + command.name +
                               "; and test (count (commandline -opc)) -eq " + std::to_string(place);
      lines +=
          fmt::format("complete -c tolk -f -n {} -a {}\n", quoted(when), quoted("(" + words + ")"));
    };
    if (command.has_address) at_place(2, kPipes);
    if (command.has_shell) at_place(2, std::string("echo ") + kShells + " | tr ' ' '\\n'");
    if (command.has_method) {
      at_place(3, fmt::format(fmt::runtime(kMethods), "(commandline -opc)[3]"));
    }
  }
  return lines;
}

}  // namespace

void add_completion(CLI::App& app, Options& options) {
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
    const std::vector<Command> commands = commands_of(app);
    Output::get().data(*shell == "bash"  ? bash(commands)
                       : *shell == "zsh" ? zsh(commands)
                                         : fish(commands));
  });
}

}  // namespace tolk::tool
