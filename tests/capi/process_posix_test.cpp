// Forked children, other processes and users, and the end of the process.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

#include "pair.h"
#include "tests/e2e/support/waiting.h"
#include "tests/sanitized.h"

namespace {

using tolk::test::call_of;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::Methods;
using tolk::test::Owned;
using tolk::test::Pair;

class CapiProcess : public Pair {};
INSTANTIATE_TEST_SUITE_P(All, CapiProcess, tolk::test::kAllTransports, tolk::test::transport_name);

// The number of the first thing that is wrong; 0 is none.
int wrong_in_child(tolk_client* client, tolk_server* server, std::uint64_t started) {
  Done done;
  tolk_call call = call_of("echo", &done);
  if (tolk_client_call(client, "echo", nullptr, 0, nullptr, nullptr) != TOLK_CLOSED) return 1;
  if (tolk_client_wait(client, started, nullptr, nullptr) != TOLK_CLOSED) return 2;
  if (tolk_client_post(client, "echo", nullptr, TOLK_FOREVER, nullptr) != TOLK_CLOSED) return 3;
  tolk_client_start(client, &call);
  if (done.calls != 1 || done.answer.status != TOLK_CLOSED) return 4;
  if (tolk_client_cancel(client, started)) return 5;
  if (tolk_server_clients(server, nullptr, 0) != 0) return 6;
  if (tolk_server_disconnect(server, 1)) return 7;
  if (tolk_client_close(client, TOLK_FOREVER) != TOLK_OK) return 8;
  if (tolk_server_wait_closed(server, TOLK_FOREVER) != TOLK_OK) return 9;
  tolk_client_free(client);
  tolk_server_free(server);
  return 0;
}

TEST_P(CapiProcess, ObjectsAreClosedInAForkedChild) {
  server_methods.add_echo();
  start();
  EXPECT_EQ(tolk::test::call_client(client.get(), "echo", "x").text, "x");
  tolk_call call = call_of("echo");
  const auto started = tolk_client_start(client.get(), &call);
  const pid_t child = fork();
  if (child == 0) _exit(wrong_in_child(client.get(), server.get(), started));
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << WEXITSTATUS(status);
  EXPECT_EQ(tolk_client_wait(client.get(), started, nullptr, nullptr), TOLK_OK);
}

// The child has the socket too.
TEST_P(CapiProcess, RequestsAreAnsweredByTheParentAlone) {
  tolk_request* kept = nullptr;
  Event begun;
  server_methods.add("keep", [&](tolk_request* request) {
    kept = request;
    begun.set();
  });
  start();
  Done done;
  tolk_call call = call_of("keep", &done, TOLK_FOREVER);
  tolk_client_start(client.get(), &call);
  begun.wait();
  using End = void (*)(tolk_request*);
  const End ends_of_a_child[] = {
      [](tolk_request* request) { tolk_request_answer(request, nullptr); },
      [](tolk_request* request) {
        tolk_request_answer_data(request, nullptr, tolk_source_memory("x", 1, nullptr, nullptr));
      },
      [](tolk_request* request) { tolk_request_fail(request, TOLK_FAILED, 1, "child", nullptr); },
      tolk_request_free,
  };
  for (const End end_request : ends_of_a_child) {
    const pid_t child = fork();
    if (child == 0) {
      end_request(kept);
      _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  tolk_request_fail(kept, TOLK_FAILED, 2, "parent", nullptr);
  done.wait();
  EXPECT_EQ(done.answer.reason, "parent");
  EXPECT_EQ(done.calls, 1);
  end();
}

TEST_P(CapiProcess, APeerOfAPipeHasAUserAndAProcess) {
  std::string user;
  std::int64_t process = -1;
  const auto look = [&](tolk_request* request) {
    user = tolk_request_peer(request)->user;
    process = tolk_request_peer(request)->process;
    tolk_request_answer(request, nullptr);
  };
  server_methods.add("look", look);
  client_methods.add("look", look);
  start();
  const bool is_pipe = std::string(GetParam()) == "pipe";
  for (const bool of_server : {false, true}) {
    user = "?";
    if (of_server) {
      tolk::test::call_server(server.get(), first_client(), "look", "");
    } else {
      tolk::test::call_client(client.get(), "look", "");
    }
    EXPECT_EQ(user.empty(), !is_pipe);
    EXPECT_EQ(process, is_pipe ? getpid() : 0);
  }
  end();
}

// A child may free what it has of its parent's objects. The peer hears nothing of that.
TEST_P(CapiProcess, ARequestThatAChildFreesStaysTheParents) {
  tolk_request* kept = nullptr;
  Event has_kept;
  server_methods.add(
      "keep",
      [&](tolk_request* request) {
        kept = request;
        has_kept.set();
      },
      TOLK_INLINE);
  start();
  tolk_call call = call_of("keep", nullptr, TOLK_FOREVER);
  const auto number = tolk_client_start(client.get(), &call);
  ASSERT_TRUE(has_kept.wait());
  const pid_t child = fork();
  if (child == 0) {
    if (tolk_request_state(kept) != TOLK_CLOSED) _exit(1);
    tolk_request_free(kept);
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << WEXITSTATUS(status);
  tolk_request_answer(kept, nullptr);
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_OK);
  end();
}

// What threads of the parent have is neither used nor released in a child.
TEST_P(CapiProcess, AChildReleasesNothingAndRunsNothing) {
  struct Seen {
    Event has_task;
    tolk_task* task = nullptr;
    std::atomic<int> released{0};
  } seen;
  Methods methods;
  Event handled;
  methods.add("handle", [&](tolk_request* request) {
    handled.set();
    tolk_request_answer(request, nullptr);
  });
  server_methods.add_echo();
  start();
  tolk_client_options options{};
  options.size = sizeof options;
  options.methods = methods.get();
  options.context = &seen;
  options.execute = [](void* context, tolk_task* task) {
    static_cast<Seen*>(context)->task = task;
    static_cast<Seen*>(context)->has_task.set();
  };
  options.free_context = [](void* context) { ++static_cast<Seen*>(context)->released; };
  tolk_client* open = nullptr;
  tolk_client* closed = nullptr;
  const char* const address = tolk_server_address(server.get());
  ASSERT_EQ(tolk_client_connect(address, &options, &closed, nullptr), TOLK_OK);
  EXPECT_EQ(tolk_client_close(closed, TOLK_FOREVER), TOLK_OK);
  ASSERT_EQ(tolk_client_connect(address, &options, &open, nullptr), TOLK_OK);
  std::array<std::uint64_t, 3> ids{};
  const auto count = tolk_server_clients(server.get(), ids.data(), ids.size());
  ASSERT_GE(count, 2U);
  EXPECT_EQ(tolk_server_post(server.get(), ids[count - 1], "handle", nullptr, 0, nullptr), TOLK_OK);
  ASSERT_TRUE(seen.has_task.wait());
  const pid_t child = fork();
  if (child == 0) {
    tolk_task_run(seen.task);
    tolk_client_free(open);
    tolk_client_free(closed);
    _exit(seen.released + (handled.happened() ? 10 : 0));
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << WEXITSTATUS(status);
  tolk_task_run(seen.task);
  EXPECT_TRUE(handled.wait());
  tolk_client_free(open);
  tolk_client_free(closed);
  EXPECT_TRUE(tolk::test::eventually([&] { return seen.released == 2; }));
}

#if TOLK_CHILDREN_HAVE_THREADS
tolk_status waits_in_a_worker(const char* address) {
  static tolk_client* own = nullptr;
  Methods methods;
  methods.add("wait", [](tolk_request* request) {
    tolk_client_wait(own, 1, nullptr, nullptr);  // no such call: it has to look for it
    tolk_request_answer(request, nullptr);
  });
  tolk_server_options options{};
  options.size = sizeof options;
  options.methods = methods.get();
  tolk_server* server = nullptr;
  if (tolk_server_listen(address, &options, &server, nullptr) != TOLK_OK) return TOLK_CANNOT_LISTEN;
  tolk_client_connect(tolk_server_address(server), nullptr, &own, nullptr);
  return tolk_client_call(own, "wait", nullptr, 10000, nullptr, nullptr);
}

// Workers of the parent go in and out of waits, so that some are on their way at each fork.
TEST_P(CapiProcess, WorkersOfAChildWaitForNoThreadOfTheParent) {
  constexpr unsigned kWorkers = 4;
  std::atomic<bool> stops{false};
  std::atomic<unsigned> running{0};
  server_methods.add("wait on", [&](tolk_request* request) {
    ++running;
    while (!stops) tolk_client_wait(client.get(), 1, nullptr, nullptr);
    tolk_request_answer(request, nullptr);
    --running;
  });
  start();
  for (unsigned i = 0; i < kWorkers; ++i) {
    EXPECT_EQ(tolk_client_post(client.get(), "wait on", nullptr, 0, nullptr), TOLK_OK);
  }
  EXPECT_TRUE(tolk::test::eventually([&] { return running == kWorkers; }));
  int status = 0;
  for (int i = 0; i < 20 && status == 0; ++i) {
    const pid_t child = fork();
    if (child == 0) _exit(waits_in_a_worker("tcp4:127.0.0.1:0"));
    EXPECT_EQ(waitpid(child, &status, 0), child);
  }
  stops = true;
  EXPECT_TRUE(tolk::test::eventually([&] { return running == 0; })) << "they use the client";
  EXPECT_EQ(status, 0) << WEXITSTATUS(status);
  end();
}
#endif

class CapiTcp : public Pair {};
INSTANTIATE_TEST_SUITE_P(All, CapiTcp, testing::Values("tcp4:127.0.0.1:0"),
                         tolk::test::transport_name);

TEST_P(CapiTcp, AClientThatSaysNothingIsDisconnected) {
  server_methods.add_echo();
  tolk_server_options options{};
  options.hello_limit_ms = 1000;  // enough for who does say something
  listen(options);
  client = connect();
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(static_cast<std::uint16_t>(tolk_server_port(server.get())));
  const int silent = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(::connect(silent, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  char byte = 0;
  EXPECT_EQ(recv(silent, &byte, 1, 0), 0);  // waits for the end
  close(silent);
  EXPECT_EQ(tolk::test::call_client(client.get(), "echo", "x").text, "x");
  EXPECT_EQ(tolk_server_clients(server.get(), nullptr, 0), 1U);
}

// A socket of the loopback that listens.
int listening_socket(sockaddr_in& at) {
  at = {};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int made = socket(AF_INET, SOCK_STREAM, 0);
  socklen_t size = sizeof at;
  EXPECT_EQ(bind(made, reinterpret_cast<const sockaddr*>(&at), size), 0);
  EXPECT_EQ(listen(made, 5), 0);
  EXPECT_EQ(getsockname(made, reinterpret_cast<sockaddr*>(&at), &size), 0);
  return made;
}

TEST(CapiSockets, AnInheritedOneIsListenedOn) {
  sockaddr_in at{};
  const int inherited = listening_socket(at);
  Methods methods;
  methods.add_echo();
  tolk_server_options options{};
  options.size = sizeof options;
  options.methods = methods.get();
  tolk_server* made = nullptr;
  tolk_error* error = nullptr;
  ASSERT_EQ(
      tolk_server_listen(("fd:" + std::to_string(inherited)).c_str(), &options, &made, &error),
      TOLK_OK)
      << tolk_error_text(error);
  const Owned<tolk_server> server(made);
  EXPECT_EQ(tolk_server_port(made), ntohs(at.sin_port));
  EXPECT_EQ(tolk_server_address(made), "tcp4:127.0.0.1:" + std::to_string(ntohs(at.sin_port)));
  tolk_client* client = nullptr;
  ASSERT_EQ(tolk_client_connect(tolk_server_address(made), nullptr, &client, nullptr), TOLK_OK);
  EXPECT_EQ(tolk::test::call_client(client, "echo", "x").text, "x");
  tolk_client_free(client);
  EXPECT_EQ(tolk_server_listen("fd:9999", &options, &made, nullptr), TOLK_CANNOT_LISTEN);
}

// It accepts by the system alone, and never says a word.
TEST(CapiSockets, AnAttemptThatIsNotAnsweredNamesNoMethod) {
  sockaddr_in at{};
  const int silent = listening_socket(at);
  const std::string address = "tcp4:127.0.0.1:" + std::to_string(ntohs(at.sin_port));
  tolk_client_options options{};
  options.size = sizeof options;
  options.connect_limit_ms = 50;
  tolk_client* none = nullptr;
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_connect(address.c_str(), &options, &none, &error), TOLK_TIMED_OUT);
  EXPECT_STREQ(tolk_error_method(error), "");
  EXPECT_EQ(tolk_error_text(error), address + ": the server does not answer");
  tolk_error_free(error);
  close(silent);
}

tolk_status connect_and_fail(const char* address, std::string& reason, std::string& hint) {
  tolk_client* none = nullptr;
  tolk_error* error = nullptr;
  const tolk_status status = tolk_client_connect(address, nullptr, &none, &error);
  reason = tolk_error_reason(error);
  hint = tolk_error_hint(error);
  tolk_error_free(error);
  return status;
}

TEST(CapiSockets, AnAttemptThatFailsSaysWhatTheSystemSaid) {
  std::string reason;
  std::string usual_hint;
  std::string hint;
  EXPECT_EQ(connect_and_fail("tcp4:127.0.0.1:1", reason, usual_hint), TOLK_NOT_CONNECTED);
  EXPECT_EQ(reason, "nobody listens there");
  EXPECT_EQ(connect_and_fail("pipe:nobody-at-all", reason, usual_hint), TOLK_NOT_CONNECTED);
  EXPECT_EQ(reason, "nobody listens there");
  // No connection leads to a multicast address.
  EXPECT_EQ(connect_and_fail("tcp4:224.0.0.1:5000", reason, hint), TOLK_NOT_CONNECTED);
  EXPECT_EQ(reason, "network is unreachable");
  EXPECT_NE(hint, usual_hint);
}

#if !TOLK_LOOKS_THROUGH_PIPES
TEST(CapiSockets, AProcessWithoutDescriptorsIsToldSo) {
  std::string reason;
  std::string hint;
  std::string usual_hint;
  connect_and_fail("pipe:nobody-at-all", reason, usual_hint);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = dup(0);
  close(next);
  rlimit none = before;
  none.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const tolk_status status = connect_and_fail("pipe:nobody-at-all", reason, hint);
  tolk_server* no_server = nullptr;
  tolk_error* error = nullptr;
  const tolk_status listened =
      tolk_server_listen("pipe:nobody-at-all", nullptr, &no_server, &error);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(listened, TOLK_CANNOT_LISTEN);
  EXPECT_STREQ(tolk_error_reason(error), "too many open files");
  tolk_error_free(error);
  EXPECT_EQ(status, TOLK_NOT_CONNECTED);
  EXPECT_EQ(reason, "too many open files");
  EXPECT_NE(hint, usual_hint);
}
#endif

// A handler of one server waits forever for a call to another one.
Owned<tolk_server> ends_at_exit;

[[noreturn]] void exit_while_a_handler_waits() {
  std::atexit([] { ends_at_exit.reset(); });  // before the library's own: runs behind it
  static Event begun;
  static Methods methods;
  static Methods others;
  static tolk_client* client = nullptr;
  others.add("never", [](tolk_request*) { begun.set(); });
  methods.add("wait", [](tolk_request* request) {
    const tolk_status status =
        tolk_client_call(client, "never", nullptr, TOLK_FOREVER, nullptr, nullptr);
    if (status != TOLK_CLOSED) _exit(3);
    tolk_request_free(request);
  });
  const auto listen = [](const Methods& with) {
    tolk_server_options options{};
    options.size = sizeof options;
    options.methods = with.get();
    tolk_server* made = nullptr;
    if (tolk_server_listen("tcp4:127.0.0.1:0", &options, &made, nullptr) != TOLK_OK) _exit(4);
    return made;
  };
  tolk_server* const other = listen(others);
  ends_at_exit.reset(listen(methods));
  tolk_client* caller = nullptr;
  tolk_client_connect(tolk_server_address(other), nullptr, &client, nullptr);
  tolk_client_connect(tolk_server_address(ends_at_exit.get()), nullptr, &caller, nullptr);
  tolk_client_post(caller, "wait", nullptr, 0, nullptr);
  begun.wait();
  std::exit(0);
}

TEST(CapiProcessExit, WaitsOfHandlersEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit_while_a_handler_waits(), testing::ExitedWithCode(0), "");
}

#if TOLK_CHILDREN_HAVE_THREADS
// The parent has an exit handler already.
[[noreturn]] void exit_of_a_child_while_a_handler_waits() {
  tolk_server* of_the_parent = nullptr;
  tolk_server_listen("tcp4:127.0.0.1:0", nullptr, &of_the_parent, nullptr);
  const pid_t child = fork();
  if (child == 0) {
    alarm(10);
    exit_while_a_handler_waits();
  }
  int status = -1;
  waitpid(child, &status, 0);
  _exit(status == 0 ? 0 : 1);
}

TEST(CapiProcessExit, WaitsOfHandlersEndInAForkedChild) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit_of_a_child_while_a_handler_waits(), testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
