// tolk send and tolk receive: files that arrive, names that are refused, progress, interruption.
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/sanitized.h"
#include "tests/tool/served.h"

namespace tolk::test {
namespace {

namespace fs = std::filesystem;

void write_file(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}
std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// A directory with what is sent, and one beside it for what is received.
class ToolTransfer : public testing::Test {
 protected:
  ToolTransfer() {
    char name[] = "/tmp/tolk-test-XXXXXX";
    root = mkdtemp(name);
    inbox = root / "inbox";
    fs::create_directory(inbox);
  }
  ~ToolTransfer() override { fs::remove_all(root); }

  std::vector<std::string> receiving(std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {"receive", at, "--into", inbox.string()});
    return tolk_words(std::move(more));
  }
  Ended send(const std::string& file, std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {"send", at, "upload", file});
    return tolk_command(std::move(more));
  }
  // The names in the inbox.
  std::vector<std::string> received() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(inbox))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path root;
  fs::path inbox;
  const std::string at = fresh().text();
};

TEST_F(ToolTransfer, AFileArrivesWholeUnderItsName) {
  std::string bytes(3'000'000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * i >> 3);
  write_file(root / "report.pdf", bytes);
  write_file(root / "empty", "");
  Process receiver(receiving());
  receiver.await("listening at");
  const Ended sent = send(root / "report.pdf");
  EXPECT_EQ(sent.code, 0) << sent.err;
  EXPECT_EQ(sent.out, "report.pdf\n");  // what the method returned
  EXPECT_EQ(sent.err, "");
  EXPECT_EQ(read_file(inbox / "report.pdf"), bytes);
  EXPECT_EQ(send(root / "empty", {"--name", "other name"}).out, "other name\n");
  EXPECT_EQ(read_file(inbox / "other name"), "");
  receiver.signal(SIGINT);
  const Ended ended = receiver.end();
  EXPECT_EQ(ended.code, 130);
  EXPECT_EQ(ended.out,
            (inbox / "report.pdf").string() + "\n" + (inbox / "other name").string() + "\n");
  EXPECT_EQ(received().size(), 2U);  // and nothing besides
}

TEST_F(ToolTransfer, ItIsDescribedAndItsResultColouredAsThoseOfOthers) {
  write_file(root / "note.txt", "text");
  Process receiver(receiving());
  receiver.await("listening at");
  EXPECT_THAT(tolk_command({"describe", at}).out, HasSubstr("upload(bytes?, name: string?)"));
  EXPECT_THAT(send(root / "note.txt", {"--color=always", "--json"}).out, HasSubstr("\033["));
}

TEST_F(ToolTransfer, StandardInputHasNoNameUnlessOneIsGiven) {
  Process receiver(receiving({"--count", "3"}));
  receiver.await("listening at");
  const auto send_text = [&](const std::string& text, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"send", at, "upload", "-"});
    return tolk_command(more, {.input = text}).out;
  };
  EXPECT_EQ(send_text("one"), "received-1\n");
  EXPECT_EQ(send_text("two"), "received-2\n");
  EXPECT_EQ(send_text("three", {"--name", "three.txt"}), "three.txt\n");
  EXPECT_EQ(receiver.end().code, 0);
  EXPECT_EQ(read_file(inbox / "received-2"), "two");
  EXPECT_EQ(read_file(inbox / "three.txt"), "three");
}

TEST_F(ToolTransfer, NothingIsOverwrittenUnlessItIsTold) {
  write_file(root / "note.txt", "new");
  write_file(inbox / "note.txt", "old");
  write_file(root / "target", "safe");
  fs::create_symlink(root / "target", inbox / "link");
  fs::create_symlink(root / "made", inbox / "dangling");
  {
    Process receiver(receiving());
    receiver.await("listening at");
    const Ended refused = send(root / "note.txt");
    EXPECT_EQ(refused.code, 6);
    EXPECT_THAT(refused.err, HasSubstr("note.txt: a file of that name exists already"));
    EXPECT_THAT(refused.err, Not(HasSubstr(inbox.string())));  // is not the sender's business
    EXPECT_EQ(send(root / "note.txt", {"--name", "link"}).code, 6);
    EXPECT_EQ(send(root / "note.txt", {"--name", "dangling"}).code, 6);
  }
  EXPECT_EQ(read_file(inbox / "note.txt"), "old");
  EXPECT_FALSE(fs::exists(root / "made"));
  Process receiver(receiving({"--overwrite"}));
  receiver.await("listening at");
  EXPECT_EQ(send(root / "note.txt").code, 0);
  EXPECT_EQ(read_file(inbox / "note.txt"), "new");
  EXPECT_EQ(send(root / "note.txt", {"--name", "link"}).code, 0);
  EXPECT_FALSE(fs::is_symlink(inbox / "link"));
  EXPECT_EQ(read_file(root / "target"), "safe");
  EXPECT_EQ(received(), (std::vector<std::string>{"dangling", "link", "note.txt"}));
}

TEST_F(ToolTransfer, NamesOfPeersStayInTheDirectory) {
  write_file(root / "note.txt", "text");
  Process receiver(receiving({"--overwrite"}));
  receiver.await("listening at");
  const std::string names[] = {"../note.txt",
                               "/tmp/x",
                               "a/b",
                               "..",
                               ".",
                               ".bashrc",
                               "back\\slash",
                               "new\nline",
                               "\033[2J",
                               "\xff",
                               "\xe2\x80\xaegnp.exe",
                               std::string(201, 'x')};
  for (const std::string& name : names) {
    const Ended ended = send(root / "note.txt", {"--name=" + name});
    EXPECT_EQ(ended.code, 6) << name << ended.err;
    EXPECT_EQ(ended.err.find_first_of("\033\xff"), std::string::npos);
  }
  Client client = connect(at);
  const auto empty = client.send<std::string>("upload", std::string("x"), nullptr, arg("name", ""));
  EXPECT_EQ(empty.error().code(), Errc::handler_failed);
  const auto number = client.send<std::string>("upload", std::string("x"), nullptr, arg("name", 7));
  EXPECT_EQ(number.error().code(), Errc::wrong_arguments);
  EXPECT_THAT(received(), testing::IsEmpty());
  EXPECT_EQ(send(root / "note.txt", {"--name", "gr\xc3\xbc\xc3\x9f dich.txt"}).code, 0);
  EXPECT_THAT(received(), testing::ElementsAre("gr\xc3\xbc\xc3\x9f dich.txt"));
}

TEST_F(ToolTransfer, ALargerFileThanIsTakenIsRefused) {
  write_file(root / "large", std::string(2'000'001, 'x'));
  write_file(root / "fits", std::string(2'000'000, 'x'));
  Process receiver(receiving({"--most", "2MB"}));
  receiver.await("listening at");
  const std::string why = "the file has 2000001 bytes, and at most 2000000 are accepted";
  const Ended refused = send(root / "large");
  EXPECT_EQ(refused.code, 6);
  EXPECT_THAT(refused.err, HasSubstr(why));
  receiver.await("refused: " + why);
  EXPECT_EQ(send(root / "fits").code, 0);
  // The first piece says it: no more is sent.
  Client client = connect(at);
  std::uint64_t taken = 0;
  const auto pieces = client.send("upload", std::string(2'000'001, 'x'),
                                  [&](Progress progress) { taken = progress.done(); });
  EXPECT_EQ(pieces.error().detail(), why);
  EXPECT_EQ(taken, 0U);
  // Not in pieces, as a host without the layer sends it.
  const auto whole = client.call<std::string>("upload", std::string(2'000'001, 'x'));
  EXPECT_EQ(whole.error().detail(), why);
  EXPECT_THAT(received(), testing::ElementsAre("fits"));
  const Ended no_size = tolk_command({"receive", at, "--most", "2 elephants"});
  EXPECT_EQ(no_size.code, 2);
  EXPECT_THAT(no_size.err, HasSubstr("--most"));
}

TEST_F(ToolTransfer, AFolderInTheWayOrGoneIsAnError) {
  fs::create_directory(inbox / "folder");
  write_file(root / "note.txt", "text");
  {
    Process receiver(receiving({"--overwrite"}));
    receiver.await("listening at");
    EXPECT_EQ(send(root / "note.txt", {"--name", "folder"}).code, 6);
    EXPECT_THAT(received(), testing::ElementsAre("folder"));
  }
  const Ended nowhere = tolk_command({"receive", at, "--into", "/nowhere"});
  EXPECT_EQ(nowhere.code, 1);
  EXPECT_THAT(nowhere.err, AllOf(HasSubstr("/nowhere: No such file"), HasSubstr("try: ")));
}

TEST_F(ToolTransfer, ErrorsNameMethodAndAddress) {
  write_file(root / "note.txt", "text");
  const Ended nobody = send(root / "note.txt");
  EXPECT_EQ(nobody.code, 3);
  EXPECT_THAT(nobody.err, HasSubstr("upload at " + at));
  Process receiver(receiving());
  receiver.await("listening at");
  const Ended no_method = tolk_command({"send", at, "other", root / "note.txt"});
  EXPECT_EQ(no_method.code, 5);
  EXPECT_THAT(no_method.err, HasSubstr("other at " + at));
  const Ended no_file = send(root / "missing");
  EXPECT_NE(no_file.code, 0);
  EXPECT_THAT(no_file.err,
              HasSubstr("upload at " + at + ": " + (root / "missing").string() + ": no such file"));
}

TEST_F(ToolTransfer, ProgressIsShownOnATerminalAlone) {
  write_file(root / "report.pdf", std::string(2'000'000, 'x'));
  Process receiver(receiving(), {.err_is_terminal = true});
  receiver.await("listening at");
  const std::vector<std::string> words = {"send", at, "upload", root / "report.pdf", "--name"};
  const auto run = [&](const std::string& name, std::vector<std::string> more, bool terminal) {
    std::vector<std::string> all = words;
    all.push_back(name);
    all.insert(all.end(), more.begin(), more.end());
    return tolk_command(all, {.err_is_terminal = terminal});
  };
  const Ended shown = run("a.pdf", {}, true);
  EXPECT_THAT(shown.err, HasSubstr("\r\033[Ka.pdf  [>"));
  EXPECT_THAT(shown.err, HasSubstr("=]  100 %  2.0 MB of 2.0 MB  "));
  EXPECT_THAT(shown.err, testing::EndsWith("/s\r\n"));  // and stays
  EXPECT_EQ(shown.out, "a.pdf\n");
  EXPECT_EQ(run("b.pdf", {}, false).err, "");
  EXPECT_EQ(run("c.pdf", {"-q"}, true).err, "");
  receiver.signal(SIGINT);
  EXPECT_THAT(receiver.end().err, HasSubstr("100 %  2.0 MB of 2.0 MB"));
}

// The largest number of KiB that a process has had in memory; 0 after its end.
std::size_t most_resident_kib(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stoul(line.substr(6));
  }
  return 0;
}

// Neither end has more than some pieces of a file in memory. The bar tells the rate and what is
// left.
TEST_F(ToolTransfer, ALargeFileIsNotInMemory) {
  constexpr std::uintmax_t kBytes = std::uintmax_t{400} << 20;
  write_file(root / "large", "");
  fs::resize_file(root / "large", kBytes);
  Process receiver(receiving());
  receiver.await("listening at");
  Process sender(tolk_words({"send", at, "upload", root / "large"}), {.err_is_terminal = true});
  sender.await(" 0 %  0 bytes of 419.4 MB");
  sender.await("MB/s  ");
  sender.await(" s left");
  std::size_t sender_kib = 0;
  while (const std::size_t kib = most_resident_kib(sender.id())) {
    sender_kib = kib;
    std::this_thread::sleep_for(1ms);
  }
  const std::size_t receiver_kib = most_resident_kib(receiver.id());
  const Ended sent = sender.end();
  EXPECT_EQ(sent.code, 0) << sent.err;
  EXPECT_EQ(sent.out, "large\n");
  EXPECT_EQ(fs::file_size(inbox / "large"), kBytes);
  EXPECT_GT(sender_kib, 0U);
  const std::size_t most_kib = TOLK_HAS_MORE_MEMORY ? kBytes >> 10 : 40'000;
  EXPECT_LT(sender_kib, most_kib);
  EXPECT_LT(receiver_kib, most_kib);
}

TEST_F(ToolTransfer, FurtherArgumentsGoAlong) {
  write_file(root / "report.pdf", "text");
  Server server;
  add_methods(server);
  server.listen(at);
  const std::string file = root / "report.pdf";
  EXPECT_EQ(tolk_command({"send", at, "store", file, "2026", "draft=true"}).out,
            "report.pdf 4 2026 draft\n");
  const Ended named = tolk_command({"send", at, "store", file, "name=other"});
  EXPECT_EQ(named.out, "other 4 0\n") << named.err;
  EXPECT_EQ(tolk_command({"send", at, "store", file, "--json=[7, {\"draft\": true}]"}).out,
            "\"report.pdf 4 7 draft\"\n");
}

TEST_F(ToolTransfer, FetchSavesWhatAMethodAnswers) {
  const std::string bytes(3'000'000, 'y');
  write_file(root / "source", bytes);
  Server server;
  add_methods(server);
  server.on("load", [this](const std::string& name) { return from_file(root / name); });
  server.on("small", [] { return std::pair(std::string("few"), 7); });
  server.listen(at);
  const std::string file = inbox / "target";
  const Ended got = tolk_command({"fetch", at, "load", file, "source"});
  EXPECT_EQ(got.code, 0) << got.err;
  EXPECT_EQ(got.out + got.err, "");
  EXPECT_EQ(read_file(file), bytes);
  EXPECT_THAT(received(), testing::ElementsAre("target"));  // and no part of it
  // Another one replaces it; the rest of the result is printed.
  EXPECT_EQ(tolk_command({"fetch", at, "download", file, "x"}).out, "x\n");
  EXPECT_EQ(read_file(file), "what is in x");
  EXPECT_EQ(tolk_command({"fetch", at, "download", "-", "x"}).out, "what is in xx\n");
  // Data that do not come in pieces are the first value.
  EXPECT_EQ(tolk_command({"fetch", at, "small", file}).out, "7\n");
  EXPECT_EQ(read_file(file), "few");
  const Ended shown =
      tolk_command({"fetch", at, "load", file, "source"}, {.err_is_terminal = true});
  EXPECT_THAT(shown.err, HasSubstr("100 %  3.0 MB of 3.0 MB"));
}

TEST_F(ToolTransfer, AFetchThatFailsLeavesWhatWasThere) {
  Server server;
  add_methods(server);
  server.listen(at);
  const std::string file = inbox / "target";
  write_file(file, "old");
  EXPECT_EQ(tolk_command({"fetch", at, "fail", file}).code, 6);
  const Ended none = tolk_command({"fetch", at, "add", file, "1", "2"});
  EXPECT_EQ(none.code, 1);
  EXPECT_THAT(none.err, HasSubstr("add at " + at + ": the answer has no data\ntry: "));
  EXPECT_EQ(read_file(file), "old");
  EXPECT_THAT(received(), testing::ElementsAre("target"));
  const Ended nowhere = tolk_command({"fetch", at, "download", "/nowhere/x", "x"});
  EXPECT_EQ(nowhere.code, 2);
  EXPECT_THAT(nowhere.err, HasSubstr("download at " + at + ": /nowhere/x.part: no such file"));
}

TEST_F(ToolTransfer, AnInterruptedFetchLeavesNoPart) {
  Gate gate;
  Server server;
  const OpenAtEnd open_at_end(gate);
  server.on("endless", [gate] {
    // Much of it is left when the signal comes.
    return from_function(1'000'000'000, [gate, done = 0](std::span<std::byte> to) mutable {
      if (++done > 3) gate.pass();
      return to.size();
    });
  });
  server.listen(at);
  const std::string file = inbox / "target";
  Process fetches(tolk_words({"fetch", at, "endless", file}));
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_THAT(received(), testing::ElementsAre("target.part"));
  fetches.signal(SIGINT);
  gate.open();
  EXPECT_EQ(fetches.end().code, 130);
  EXPECT_THAT(received(), testing::IsEmpty());
}

TEST_F(ToolTransfer, AFetchWhoseServerIsStuckLeavesNoPart) {
  Gate gate;
  Server server;
  const OpenAtEnd open_at_end(gate);
  server.on("stuck", [gate]() mutable { gate.pass(); });
  server.listen(at);
  Process fetches(tolk_words({"fetch", at, "stuck", inbox / "target", "--timeout", "none"}));
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_THAT(received(), testing::ElementsAre("target.part"));
  fetches.signal(SIGINT);
  EXPECT_EQ(fetches.end().code, 130);
  EXPECT_THAT(received(), testing::IsEmpty());
}

TEST_F(ToolTransfer, AnInterruptedSenderLeavesNothing) {
  write_file(root / "large", "");
  fs::resize_file(root / "large", 100'000'000);  // much of it is left when the signal comes
  Gate gate;
  Server server;
  const OpenAtEnd open_at_end(gate);
  server.on("upload", [](const tolk::bytes&) { ADD_FAILURE() << "it was not cancelled"; });
  server.on_receiving([gate](const Caller&, Progress progress) mutable {
    if (progress.done() > 1'000'000) gate.pass();
  });
  server.listen(at);
  Process sender(tolk_words({"send", at, "upload", root / "large"}));
  ASSERT_TRUE(gate.wait_entered());
  sender.signal(SIGINT);
  gate.open();
  const Ended ended = sender.end();
  EXPECT_EQ(ended.code, 130);
  EXPECT_EQ(ended.out, "");
}

TEST_F(ToolTransfer, ASenderWhoseServerIsStuckEndsToo) {
  write_file(root / "large", std::string(4'000'000, 'x'));
  Gate gate;
  Server server;
  const OpenAtEnd open_at_end(gate);
  server.on("upload", [gate](const tolk::bytes&) mutable { gate.pass(); });
  server.listen(at);
  Process sender(tolk_words({"send", at, "upload", root / "large", "--timeout", "none"}));
  ASSERT_TRUE(gate.wait_entered());
  sender.signal(SIGINT);
  EXPECT_EQ(sender.end().code, 130);
}

TEST_F(ToolTransfer, AnInterruptedReceiverLeavesNoParts) {
  Process receiver(receiving());
  receiver.await("listening at");
  Client client = connect(at);
  bool interrupted = false;
  const auto result = client.send("upload", std::string(4'000'000, 'x'), [&](Progress progress) {
    if (progress.done() == 0 || interrupted) return;
    interrupted = true;
    receiver.signal(SIGINT);
    EXPECT_EQ(receiver.end().code, 130);
  });
  EXPECT_FALSE(result.has_value());
  EXPECT_THAT(received(), testing::IsEmpty());
}

}  // namespace
}  // namespace tolk::test
