// Peers of the required interface, which meet the same failures.
#include <algorithm>
#include <array>
#include <cstring>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/waiting.h"
#include "tests/seam/c_data.h"
#include "tests/seam/faults.h"
#include "tests/seam/operation.h"

namespace tolk::test {
namespace {

constexpr int kRequiredId = 5;
constexpr int kRequiredTimeoutMs = 100;
constexpr Milliseconds kKnownWait{2000};
constexpr Milliseconds kKnownStep{20};

IServerMethod* required_echo() {
  return on_call(
      [](int, TolkParams* in, TolkParams* out) { out->AddString(string_at(in, 0).c_str()); });
}

// A required peer without memory answers nothing, or that it has no such method.
void wait_for_required(CWorld& world, const tolk_call& call) {
  if (!world.comes(call)) return;
  constexpr std::array kAnswersWithoutMemory{TOLK_TIMED_OUT, TOLK_NO_METHOD, TOLK_UNANSWERED,
                                             TOLK_NOT_CONNECTED};
  const tolk_status status = CWorld::status_of(call);
  const bool is_one = std::find(kAnswersWithoutMemory.begin(), kAnswersWithoutMemory.end(),
                                status) != kAnswersWithoutMemory.end();
  world.expect("a call of a required peer", is_one && Faults::injected() ? TOLK_NO_MEMORY : status);
}

// What a required host gets is right or nothing.
void judge_required(CWorld& world, TolkParams* answer) {
  const std::string text = answer == nullptr ? "" : string_at(answer, 0);
  const bool is_nothing = text.empty() || text == "no event: echo";
  world.expect_that(text == "ping" || (is_nothing && Faults::injected()),
                    "a required host gets a wrong answer");
}

void expect_connection(CWorld& world, bool is_there) {
  world.expect_that(is_there || Faults::injected(), "a required peer does not connect");
}

}  // namespace

void calls_with_a_required_server(CWorld& world) {
  const Exempt host;
  int ended_waits = 0;
  Operation operation(ended_waits);
  const Address address = fresh_address(Transport::pipe);
  const auto caller = std::make_shared<std::atomic<int>>(0);
  Counter posted;
  ServerPtr server = make_server();
  server->method("echo", required_echo());
  server->method("here", on_call([caller](int id, TolkParams*, TolkParams* out) {
                   *caller = id;
                   out->AddString("ping");
                 }));
  server->method("note", counting(posted));
  const bool started = operation([&] { return start_server(server.get(), address); });
  expect_connection(world, started);
  tolk_client_free(std::exchange(world.other, nullptr));
  if (started) {
    const Subject to_failures;
    world.other = world.connect(("pipe:" + address.port).c_str());
  }
  if (world.other != nullptr) {
    tolk_block* const ping = CWorld::ping();
    for (const char* const method : {"here", "echo"}) {
      const tolk_call call = world.new_call(method, ping);
      {
        const Subject to_failures;
        tolk_client_start(world.other, &call);
      }
      wait_for_required(world, call);
    }
    {
      const Subject to_failures;
      world.expect("a post to a required server",
                   tolk_client_post(world.other, "note", ping, 0, nullptr));
    }
    tolk_block_free(ping);
    TolkParams arguments;
    arguments.AddString("ping");
    TolkParams* const answer = operation([&] {
      return server->SendMsg(*caller, "echo", &arguments, kRequiredId, kRequiredTimeoutMs);
    });
    judge_required(world, answer);
    world.expect_that(posted.wait_for(1, kKnownWait) || Faults::injected(),
                      "a post to a required server does not arrive");
    tolk_client_free(std::exchange(world.other, nullptr));
  }
  operation([&] { DestroyServer(server.release()); });
}

void calls_with_a_required_client(CWorld& world) {
  const Exempt host;
  int ended_waits = 0;
  Operation operation(ended_waits);
  ClientPtr client = make_client();
  client->method("echo", required_echo());
  const std::uint64_t before = world.newest_client;
  const Address address = address_of(world.server);
  const bool connected = operation([&] { return connect_client(client.get(), address); });
  expect_connection(world, connected);
  if (connected) {
    TolkParams arguments;
    arguments.AddString("ping");
    judge_required(world, operation([&] {
                     return client->SendMsg("echo", &arguments, kRequiredId, kRequiredTimeoutMs);
                   }));
    operation([&] { client->PostMsg("drop", &arguments, kRequiredId); });
    // Without a thread for it, on_connect comes with the end.
    eventually([&] { return world.newest_client != before; },
               Faults::go_on() ? kKnownStep : kKnownWait);
    tolk_block* const ping = CWorld::ping();
    tolk_call call = world.new_call("echo", ping);
    call.client = world.newest_client;
    {
      const Subject to_failures;
      tolk_server_start(world.server, &call);
    }
    wait_for_required(world, call);
    tolk_block_free(ping);
  }
  operation([&] { client->close(); });
  operation([&] { DestroyClient(client.release()); });
}

}  // namespace tolk::test
