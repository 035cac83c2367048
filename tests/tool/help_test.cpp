// --help, --version, and the examples of every subcommand, run as they are printed.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

std::string help_of(const std::string& command) {
  const Ended ended = tolk_command({command, "--help"});
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.err, "");
  return ended.out;
}

// The subcommands that `tolk --help` names.
std::set<std::string> subcommands() {
  std::istringstream help(tolk_command({"--help"}).out);
  std::set<std::string> names;
  std::string line;
  while (std::getline(help, line) && line != "Subcommands:") {
  }
  while (std::getline(help, line)) {
    std::istringstream words(line);
    std::string name;
    if (words >> name) names.insert(name);
  }
  return names;
}

std::vector<std::string> examples_of(const std::string& command) {
  std::istringstream help(help_of(command));
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(help, line) && line != "Examples:") {
  }
  while (std::getline(help, line)) {
    if (line.starts_with("  ")) lines.push_back(line.substr(2));
  }
  return lines;
}

TEST(ToolHelp, VersionIsTheProjects) {
  const Ended ended = tolk_command({"--version"});
  EXPECT_EQ(ended.out, "tolk " TOLK_VERSION "\n");
  EXPECT_EQ(ended.code, 0);
}

TEST(ToolHelp, EverySubcommandSaysWhatItTakes) {
  for (const std::string& name : subcommands()) {
    const std::string help = help_of(name);
    EXPECT_THAT(help, HasSubstr("Usage: tolk " + name)) << name;
    EXPECT_FALSE(examples_of(name).empty()) << name;
  }
}

TEST(ToolHelp, IsASubcommandToo) {
  EXPECT_EQ(tolk_command({"help"}).out, tolk_command({"--help"}).out);
  EXPECT_EQ(tolk_command({"help", "send"}).out, help_of("send"));
  const Ended unknown = tolk_command({"help", "sned"});
  EXPECT_EQ(unknown.code, 2);
  EXPECT_EQ(unknown.err,
            "tolk: there is no subcommand sned\ntry: did you mean send? tolk help lists all\n");
}

// Wherever it is, --json is JSON instead of words and plain text.
TEST(ToolHelp, JsonHasOneMeaning) {
  for (const std::string& name : subcommands()) {
    const std::string help = help_of(name);
    if (help.find("--json") == std::string::npos) continue;
    EXPECT_THAT(help, testing::AnyOf(HasSubstr("Print JSON, in one line"),
                                     HasSubstr("JSON instead of words and plain text")))
        << name;
  }
}

TEST(ToolHelp, LinesFitIntoATerminal) {
  for (const std::string& name : subcommands()) {
    std::istringstream help(help_of(name));
    for (std::string line; std::getline(help, line);) EXPECT_LE(line.size(), 100U) << line;
  }
}

// Those whose examples go on until they are interrupted.
const std::set<std::string>& serving() {
  static const std::set<std::string> kServing = {"serve", "listen", "monitor", "receive"};
  return kServing;
}

// Every subcommand is here: the last test sees to it.
const std::vector<std::string>& tested() {
  static const std::vector<std::string> kTested = {
      "bench",  "call",    "completion", "describe", "dump",    "fetch", "help", "list",
      "listen", "monitor", "ping",       "post",     "receive", "send",  "serve"};
  return kTested;
}

class ToolHelpExamples : public testing::TestWithParam<std::string> {
 protected:
  ToolHelpExamples() {
    char name[] = "/tmp/tolk-test-XXXXXX";
    folder = mkdtemp(name);
    std::ofstream(folder + "/report.pdf") << "to be sent";
    add_methods(server);
    server.listen(pipe{5000});
  }
  ~ToolHelpExamples() override { std::filesystem::remove_all(folder); }

  void run(const std::string& example) const {
    Process process({"/bin/sh", "-c", example}, {.folder = folder});
    if (serving().contains(GetParam())) {
      process.await("listening at ");
      process.signal(SIGINT);
      EXPECT_EQ(process.end().code, 130) << example;
      return;
    }
    const Ended ended = process.end();
    EXPECT_EQ(ended.code, 0) << example << "\n" << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("tolk: "))) << example;
  }

  std::string folder;
  Server server;
};

TEST_P(ToolHelpExamples, RunAsTheyArePrinted) {
  for (const std::string& example : examples_of(GetParam())) run(example);
}

INSTANTIATE_TEST_SUITE_P(, ToolHelpExamples, testing::ValuesIn(tested()),
                         [](const auto& each) { return each.param; });

TEST(ToolHelp, TheExamplesOfEverySubcommandAreRun) {
  EXPECT_EQ(subcommands(), std::set<std::string>(tested().begin(), tested().end()));
}

}  // namespace
}  // namespace tolk::test
