// Starting a server: what it prints, what it refuses, what a failed start leaves.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"
#include "tests/platform/temp_directory.h"

namespace tolk::test {
namespace {

class ServerStart : public ServerTest {};
TOLK_OVER_TRANSPORTS(ServerStart);

class ServerStartTwice : public ServerTest {};
INSTANTIATE_TEST_SUITE_P(, ServerStartTwice, testing::ValuesIn(transports_of_one_server()),
                         transport_name);

TEST_P(ServerStart, PrintsOneLine) {
  Capture capture;
  start();
  EXPECT_EQ(capture.text(), start_line());
}

TEST_P(ServerStart, SetsPortAndTransport) {
  EXPECT_FALSE(server->isok());
  start();
  EXPECT_TRUE(server->isok());
  EXPECT_EQ(std::to_string(server->GetPort()), address.port);
  EXPECT_EQ(server->IsPipe(), is_pipe());
  EXPECT_EQ(server->GetClientCount(), 0);
}

TEST_P(ServerStart, ReadsThePortAsANumber) {
  Address padded = address;
  padded.port = "  0" + address.port + "x";
  Capture capture;
  ASSERT_TRUE(start_server(server.get(), padded));
  EXPECT_EQ(capture.text(), start_line());
  EXPECT_TRUE(RawClient(address).is_greeted());
}

TEST_P(ServerStart, AnnouncesThePortOnce) {
  Journal journal;
  IServer* const raw = server.get();
  server->method("s_c_createport", on_call([=](int id, TolkParams* in, TolkParams* out) mutable {
                   journal.note(std::to_string(id) + " " + string_at(in, 0) + " " +
                                std::to_string(in->ParamsSize()) + (out == nullptr ? " null" : "") +
                                (raw->isok() ? " running" : ""));
                 }));
  start();
  EXPECT_EQ(journal.notes(), std::vector<std::string>{"0 " + address.port + " 1 null"});
}

TEST_P(ServerStart, SucceedsDespiteAThrowingHook) {
  server->method("s_c_createport", on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  start();
  EXPECT_TRUE(RawClient(address).is_greeted());
}

TEST_P(ServerStart, CallsFromTheHookAreRefused) {
  Capture capture;
  IServer* const raw = server.get();
  server->method("s_c_createport", on_call([raw](int, TolkParams*, TolkParams*) {
                   EXPECT_EQ(raw->PostMsg(1, "x", nullptr, 1), nullptr);
                 }));
  start();
  EXPECT_EQ(capture.text(), start_line() + "send msg: disconnect... .. .\n");
}

TEST_P(ServerStartTwice, OnATakenAddressFails) {
  start();
  ServerPtr second = make_server();
  Counter announced;
  second->method("s_c_createport", counting(announced));
  Capture capture;
  EXPECT_FALSE(start_server(second.get(), address));
  EXPECT_FALSE(second->isok());
  // A pipe's name is taken when it is bound, a port when it listens.
  EXPECT_EQ(capture.text(),
            start_line() + (is_pipe() ? "Bind" : "Listen") + " error: EADDRINUSE\n");
  EXPECT_EQ(announced.value(), 0);
  EXPECT_TRUE(RawClient(address).is_greeted()) << "the first server has lost its address";
}

TEST_P(ServerStartTwice, AfterAFailureSucceeds) {
  start();
  ServerPtr second = make_server();
  Counter announced;
  second->method("s_c_createport", counting(announced));
  ASSERT_FALSE(start_server(second.get(), address));
  server.reset();
  ASSERT_TRUE(start_server(second.get(), address));
  EXPECT_EQ(announced.value(), 1);
  EXPECT_TRUE(RawClient(address).is_greeted());
}

TEST_P(ServerStartTwice, FailuresLeakNothing) {
  start();
  ServerPtr second = make_server();
  ASSERT_FALSE(start_server(second.get(), address));
  ASSERT_TRUE(eventually([] { return open_loops() == 1; }));
  const int descriptors = most_descriptors();
  for (int i = 0; i < 20; ++i) ASSERT_FALSE(start_server(second.get(), address));
  EXPECT_TRUE(eventually([&] { return open_descriptors() <= descriptors; }))
      << open_descriptors() << " of " << descriptors;
}

TEST_P(ServerStart, OfARunningServerChangesNothing) {
  start();
  Capture capture;
  EXPECT_TRUE(start_server(server.get(), fresh_address(GetParam())));
  EXPECT_EQ(capture.text(), "");
  EXPECT_EQ(std::to_string(server->GetPort()), address.port);
}

TEST_P(ServerStart, OfAStoppedServerIsRefused) {
  start();
  server->close();
  Capture capture;
  EXPECT_FALSE(start_server(server.get(), address));
  EXPECT_EQ(capture.text(), "");
  EXPECT_FALSE(server->isok());
}

TEST_P(ServerStart, FromSeveralThreadsStartsOnce) {
  Counter announced;
  server->method("s_c_createport", counting(announced));
  std::atomic<int> started{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] { started += start_server(server.get(), address) ? 1 : 0; });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(started, 4);
  EXPECT_EQ(announced.value(), 1);
}

// The host provides the loop thread.
TEST_P(ServerStart, MayRunTheLoopOnAHostThread) {
  Counter listening;
  std::thread host([&] {
    const char* const port = address.port.c_str();
    const char* const at = address.host.c_str();
    const bool listens = is_pipe()                       ? server->ListenPipe(port)
                         : GetParam() == Transport::tcp4 ? server->ListenTcp4(at, port)
                                                         : server->ListenTcp6(at, port);
    EXPECT_TRUE(listens);
    listening.add();
    EXPECT_TRUE(server->run());
  });
  ASSERT_TRUE(listening.wait_for(1));
  EXPECT_TRUE(server->isok());
  EXPECT_TRUE(RawClient(address).is_greeted());
  server->close();
  host.join();
}

TEST_P(ServerStart, RunWithoutListenReturns) {
  EXPECT_TRUE(server->run());
  start();
  EXPECT_TRUE(server->run()) << "only the loop's own thread runs it";
}

class ServerStartTcp : public testing::Test {
 protected:
  ServerPtr server = make_server();
};

TEST_F(ServerStartTcp, OnAnInvalidAddressFailsSilently) {
  for (const char* const text : {"", "localhost", "256.0.0.1", "127.0.0.1:80", "::g"}) {
    Capture capture;
    EXPECT_FALSE(server->InitTolkServerTcp4(text, "4999")) << text;
    EXPECT_FALSE(server->InitTolkServerTcp6(text, "4999")) << text;
    const std::string line = std::string("Tcp ") + kVersion + " port:4999\n";
    EXPECT_EQ(capture.text(), line + line) << text;
  }
}

TEST_F(ServerStartTcp, OnAnAddressOfAnotherMachineFails) {
  Capture capture;
  EXPECT_FALSE(server->InitTolkServerTcp4("192.0.2.1", "4999"));
  EXPECT_EQ(capture.text(),
            std::string("Tcp ") + kVersion + " port:4999\nBind error: EADDRNOTAVAIL\n");
}

TEST_F(ServerStartTcp, OnANonNumericPortListensOnAnyPort) {
  Capture capture;
  ASSERT_TRUE(server->InitTolkServerTcp4("127.0.0.1", "http"));
  EXPECT_EQ(capture.text(), std::string("Tcp ") + kVersion + " port:0\n");
  EXPECT_EQ(server->GetPort(), 0);
}

// Changes the current directory and restores it at the end.
class InDirectory {
 public:
  explicit InDirectory(const std::string& path) : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~InDirectory() { std::filesystem::current_path(before_); }
  InDirectory(const InDirectory&) = delete;
  InDirectory& operator=(const InDirectory&) = delete;

 private:
  const std::filesystem::path before_;
};

class ServerFiles : public ServerTest {
 protected:
  TempDirectory directory;
  InDirectory in{directory.path()};
};
TOLK_OVER_TRANSPORTS(ServerFiles);

// On purpose: a TCP server removes the file; a pipe server leaves it.
TEST_P(ServerFiles, TcpStartRemovesAFileNamedLikeThePort) {
  std::ofstream(directory / address.port) << "x";
  start();
  EXPECT_EQ(std::filesystem::exists(directory / address.port), is_pipe());
}

TEST_P(ServerFiles, StartCreatesNothingInTheCurrentDirectory) {
  start();
  EXPECT_TRUE(RawClient(address).is_greeted());
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

class PipeServer : public testing::Test {
 protected:
  ServerPtr server = make_server();
};

TEST_F(PipeServer, NonNumericPortIsPipeZero) {
  Capture capture;
  if (!server->InitTolkServer("none")) {
    // Another test process may hold the name at this moment.
    EXPECT_EQ(capture.lines().back(), "Bind error: EADDRINUSE");
  }
  EXPECT_EQ(capture.lines().front(), std::string("Pipe ") + kVersion + " port:0");
  EXPECT_EQ(server->GetPort(), 0);
}

TEST(ServerObject, DestroyOfNullDoesNothing) {
  Capture capture;
  DestroyServer(nullptr);
  EXPECT_EQ(capture.text(), "");
}

TEST(ServerObject, DestroyOfANeverStartedServerPrintsOneLine) {
  Capture capture;
  make_server().reset();
  EXPECT_EQ(capture.text(), "Server Closing!\n");
}

TEST(ServerObject, NullTextsCountAsEmpty) {
  ServerPtr server = make_server();
  Capture capture;
  EXPECT_FALSE(server->InitTolkServerTcp4(nullptr, nullptr));
  EXPECT_EQ(capture.text(), std::string("Tcp ") + kVersion + " port:0\n");
}

}  // namespace
}  // namespace tolk::test
