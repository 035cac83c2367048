#include "tests/seam/c_scenarios.h"

#include <algorithm>
#include <array>
#include <memory>

#include "tests/seam/c_data.h"
#include "tests/seam/faults.h"

namespace tolk::test {
namespace {

struct FreeBlock {
  void operator()(tolk_block* block) const { tolk_block_free(block); }
};
using Block = std::unique_ptr<tolk_block, FreeBlock>;
Block ping() { return Block(CWorld::ping()); }

void come_up(CWorld& world) {
  world.make_methods();
  world.listen();
  world.client = world.connect();
}

void call(CWorld& world) {
  tolk_block* result = nullptr;
  tolk_error* error = nullptr;
  const Block arguments = ping();
  const tolk_status status =
      tolk_client_call(world.client, "echo", arguments.get(), CWorld::limit_ms(), &result, &error);
  world.expect("a client's call", status, TOLK_OK, error);
  world.expect_that((status == TOLK_OK) == CWorld::is_ping(result), "a wrong result");
  tolk_block_free(result);
}

void call_a_client(CWorld& world) {
  tolk_block* result = nullptr;
  tolk_error* error = nullptr;
  const Block arguments = ping();
  const tolk_status status = tolk_server_call(world.server, world.newest_client, "echo",
                                              arguments.get(), CWorld::limit_ms(), &result, &error);
  const bool has_gone = status == TOLK_NOT_CONNECTED;
  world.expect("a server's call", has_gone ? TOLK_GONE : status, TOLK_OK, error);
  world.expect_that((status == TOLK_OK) == CWorld::is_ping(result), "a wrong result");
  tolk_block_free(result);
}

void start(CWorld& world) {
  const Block arguments = ping();
  tolk_call first = world.new_call("echo", arguments.get());
  tolk_call second = world.new_call("inline", arguments.get(), TOLK_INLINE);
  tolk_client_start(world.client, &first);
  tolk_client_start(world.client, &second);
  world.wait(first);
  world.wait(second);
}

void start_and_wait(CWorld& world) {
  const Block arguments = ping();
  tolk_call call{};
  call.size = sizeof call;
  call.method = "inline";
  call.arguments = arguments.get();
  const std::uint64_t number = tolk_client_start(world.client, &call);
  tolk_block* result = nullptr;
  tolk_error* error = nullptr;
  const tolk_status status = tolk_client_wait(world.client, number, &result, &error);
  world.expect("a wait", number == 0 ? TOLK_NO_MEMORY : status, TOLK_OK, error);
  world.expect_that((status == TOLK_OK) == CWorld::is_ping(result), "a wrong result");
  tolk_block_free(result);
}

void post(CWorld& world) {
  const Block arguments = ping();
  tolk_status status = tolk_client_post(world.client, "drop", arguments.get(), 0, nullptr);
  world.expect("a client's post", status);
  if (status == TOLK_OK) world.wait_for_post();
  status = tolk_server_post(world.server, TOLK_ALL, "drop", arguments.get(), 0, nullptr);
  world.expect("a server's post to all", status);
  if (status != TOLK_OK) return;
  world.wait_for_post();
  world.wait_for_post();
}

void call_all(CWorld& world) {
  const Block arguments = ping();
  tolk_call call = world.new_call("echo", arguments.get());
  call.client = TOLK_ALL;
  tolk_server_start(world.server, &call);
  world.wait(call);
}

void cancel(CWorld& world) {
  tolk_call call = world.new_call("keep", nullptr);
  const std::uint64_t number = tolk_client_start(world.client, &call);
  tolk_request* const request = world.kept_request(call);
  const bool cancelled = tolk_client_cancel(world.client, number);
  world.wait(call, TOLK_CANCELLED);
  if (request != nullptr) tolk_request_free(request);
  if (Faults::go_on()) return;  // the outcome may come with the end
  world.expect_that(cancelled == (CWorld::status_of(call) == TOLK_CANCELLED),
                    "a cancel says what is not true");
}

void cancel_all(CWorld& world) {
  tolk_call call = world.new_call("unknown", nullptr);
  call.client = TOLK_ALL;
  const std::uint64_t number = tolk_server_start(world.server, &call);
  tolk_server_cancel(world.server, number);
  world.wait_either(call, TOLK_CANCELLED, TOLK_NO_METHOD);
}

void order(CWorld& world) {
  const Block arguments = ping();
  std::array<tolk_call, 3> calls{};
  for (tolk_call& each : calls) {
    each = world.new_call("ordered", arguments.get());
    tolk_client_start(world.client, &each);
  }
  for (const tolk_call& each : calls) world.wait(each);
}

void answer_later(CWorld& world) {
  tolk_call call = world.new_call("keep", nullptr);
  tolk_client_start(world.client, &call);
  if (tolk_request* const request = world.kept_request(call)) {
    tolk_request_answer(request, CWorld::ping());
  }
  world.wait(call);
}

void fail(CWorld& world) {
  tolk_call refused = world.new_call("refuse", nullptr);
  tolk_call dropped = world.new_call("drop", nullptr);
  tolk_call unknown = world.new_call("unknown", nullptr);
  tolk_call described = world.new_call("tolk.describe", nullptr);
  tolk_client_start(world.client, &refused);
  tolk_client_start(world.client, &dropped);
  tolk_client_start(world.client, &unknown);
  tolk_client_start(world.client, &described);
  world.wait(refused, TOLK_FAILED);
  world.wait(dropped, TOLK_UNANSWERED);
  world.wait(unknown, TOLK_NO_METHOD);
  world.wait(described);
}

// A timer that is there can be started.
void time_out(CWorld& world) {
  if (Faults::of_calls()) return;
  tolk_call call = world.new_call("keep", nullptr);
  call.limit_ms = 5;
  tolk_client_start(world.client, &call);
  world.wait(call, TOLK_TIMED_OUT);
}

void call_back(CWorld& world) {
  tolk_call call = world.new_call("call back", nullptr);
  tolk_client_start(world.client, &call);
  world.wait(call);
}

void send_data(CWorld& world) {
  tolk_call call = world.new_call("take", nullptr);
  call.source = world.source();
  if (call.source == nullptr) return world.skip(call);
  tolk_client_start(world.client, &call);
  world.wait(call);
}

void get_data(CWorld& world) {
  tolk_call call = world.new_call("give", nullptr);
  tolk_client_start(world.client, &call);
  world.wait(call);
}

void close(CWorld& world) {
  const Block arguments = ping();
  tolk_call call = world.new_call("echo", arguments.get());
  tolk_client_start(world.client, &call);
  tolk_client_post(world.client, "drop", arguments.get(), 0, nullptr);
  world.expect("a client's close", tolk_client_close(world.client, CWorld::limit_ms()));
  world.wait_either(call, TOLK_OK, TOLK_CLOSED);
  world.expect("a server's close", tolk_server_close(world.server, CWorld::limit_ms()));
  world.expect("a wait for it", tolk_server_wait_closed(world.server, CWorld::limit_ms()));
}

void end_with_calls(CWorld& world) {
  std::array<tolk_call, 3> calls{};
  for (tolk_call& each : calls) {
    each = world.new_call("keep", nullptr);
    tolk_client_start(world.client, &each);
  }
  world.end();
  for (const tolk_call& each : calls) world.wait(each, TOLK_CLOSED);
}

void free_in_callback(CWorld& world, unsigned flags) {
  const Block arguments = ping();
  tolk_client* const client = world.client;
  tolk_call kept = world.new_call("keep", nullptr);
  tolk_client_start(client, &kept);
  tolk_call call = world.new_call("echo", arguments.get(), flags);
  world.free_in(call);
  tolk_client_start(client, &call);
  world.wait(call);
  world.wait(kept, TOLK_CLOSED);
}

void free_in_a_callback(CWorld& world) { free_in_callback(world, 0); }

void free_in_an_inline_callback(CWorld& world) { free_in_callback(world, TOLK_INLINE); }

void remove_a_method(CWorld& world) {
  tolk_call before = world.new_call("keep", nullptr);
  tolk_client_start(world.client, &before);
  tolk_request* const request = world.kept_request(before);
  world.expect_that(world.remove_method("keep"), "a method is not there");
  world.expect_that(!world.remove_method("keep"), "a method that was removed is there");
  tolk_call after = world.new_call("keep", nullptr);
  tolk_client_start(world.client, &after);
  world.wait(after, TOLK_NO_METHOD);
  if (request != nullptr) tolk_request_answer(request, CWorld::ping());
  world.wait(before);
}

bool has_client(const CWorld& world, std::uint64_t id) {
  std::array<std::uint64_t, 4> ids{};
  tolk_server_clients(world.server, ids.data(), ids.size());
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

void lose_a_client(CWorld& world) {
  tolk_call call = world.new_call("keep", nullptr);
  tolk_client_start(world.client, &call);
  tolk_request* const request = world.kept_request(call);
  std::array<std::uint64_t, 2> ids{};
  if (tolk_server_clients(world.server, ids.data(), ids.size()) == ids.size()) {
    for (const std::uint64_t each : ids) {
      // A failure may have ended it meanwhile.
      world.expect_that(tolk_server_disconnect(world.server, each) || !has_client(world, each),
                        "a client is not there");
    }
    world.wait(call, TOLK_GONE);
  }
  if (request != nullptr) tolk_request_answer(request, CWorld::ping());
}

void stop_the_server(CWorld& world) {
  tolk_call call = world.new_call("s_c_close_server", nullptr);
  tolk_client_start(world.client, &call);
  world.wait(call);
  if (CWorld::status_of(call) != TOLK_OK) return;
  world.expect("a wait for a stopped server",
               tolk_server_wait_closed(world.server, CWorld::limit_ms()));
  world.wait_until_stopped();
}

constexpr auto kHost = CWorld::Executor::host;
constexpr std::array kAll{
    CScenario{"come up", come_up, false},
    CScenario{"call", call},
    CScenario{"call a client", call_a_client},
    CScenario{"start", start},
    CScenario{"start, executor", start, true, kHost},
    CScenario{"start and wait", start_and_wait},
    CScenario{"post", post},
    CScenario{"call all", call_all},
    CScenario{"cancel", cancel},
    CScenario{"cancel all", cancel_all},
    CScenario{"order", order},
    CScenario{"order, executor", order, true, kHost},
    CScenario{"answer later", answer_later},
    CScenario{"fail", fail},
    CScenario{"time out", time_out},
    CScenario{"call back", call_back},
    CScenario{"send data", send_data},
    CScenario{"get data", get_data},
    CScenario{"send data to a sink", send_data_to_a_sink},
    CScenario{"send data to a sink, executor", send_data_to_a_sink, true, kHost},
    CScenario{"get data into a sink", get_data_into_a_sink},
    CScenario{"send a file to a file", send_a_file_to_a_file},
    CScenario{"cancel a transfer", cancel_a_transfer},
    CScenario{"a plain client's large call", large_call_of_a_plain_client},
    CScenario{"give data to a plain client", give_data_to_a_plain_client},
    CScenario{"exchange data with a plain server", exchange_data_with_a_plain_server},
    CScenario{"calls with a required server", calls_with_a_required_server},
    CScenario{"calls with a required client", calls_with_a_required_client},
    CScenario{"close", close},
    CScenario{"end with calls", end_with_calls},
    CScenario{"free in a callback", free_in_a_callback},
    CScenario{"free in an inline callback", free_in_an_inline_callback},
    CScenario{"remove a method", remove_a_method},
    CScenario{"lose a client", lose_a_client},
    CScenario{"stop the server", stop_the_server},
};

}  // namespace

std::span<const CScenario> c_scenarios() { return kAll; }

}  // namespace tolk::test
