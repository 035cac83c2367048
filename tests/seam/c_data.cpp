#include "tests/seam/c_data.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/seam/faults.h"

namespace tolk::test {
namespace {

// Of the sink that the last accept has made; null without one.
std::atomic<CWorld::Token*> stored{nullptr};
std::string stored_path;

std::size_t read_data(void* context, void* to, std::size_t capacity) {
  auto& token = *static_cast<CWorld::Token*>(context);
  const auto rest = CWorld::data().subspan(token.bytes);
  const std::size_t size = std::min(capacity, rest.size());
  std::memcpy(to, rest.data(), size);
  token.bytes += size;
  return size;
}

bool write_data(void* context, const void* bytes, std::size_t size) {
  auto& token = *static_cast<CWorld::Token*>(context);
  const auto rest = CWorld::data().subspan(token.bytes);
  if (size > rest.size() || std::memcmp(rest.data(), bytes, size) != 0) token.is_right = false;
  token.bytes += std::min(size, rest.size());
  return true;
}

bool go_on_with(void*, std::uint64_t done, std::uint64_t total) { return done <= total; }

bool begin_alone(void*, std::uint64_t done, std::uint64_t) { return done == 0; }

tolk_status store_data(void* context, const tolk_request*, std::uint64_t, tolk_sink** sink) {
  stored = CWorld::of(context).new_context();
  *sink = tolk_sink_callback(write_data, stored, CWorld::release);
  return *sink == nullptr ? TOLK_NO_MEMORY : TOLK_OK;
}

tolk_status store_file(void*, const tolk_request*, std::uint64_t, tolk_sink** sink) {
  return tolk_sink_file(stored_path.c_str(), sink, nullptr);
}

void answer_stored(void*, tolk_request* request) { tolk_request_answer(request, CWorld::ping()); }

// As the world's other methods, it is there before the failures.
void add_store(CWorld& world, tolk_accept accept, tolk_progress progress) {
  const Exempt setting_up;
  tolk_method_options options{};
  options.accept = accept;
  options.progress = progress;
  world.add("store", answer_stored, options);
  stored = nullptr;
}

void expect_all(CWorld& world, const CWorld::Token* token, const char* what) {
  world.expect_that(token != nullptr && token->is_right && token->bytes == CWorld::data().size(),
                    what);
}

tolk_call new_transfer(CWorld& world, CWorld::Token* from, tolk_progress progress) {
  tolk_call call = world.new_call("store", nullptr);
  call.progress = progress;
  call.source = tolk_source_callback(CWorld::data().size(), read_data, from, CWorld::release);
  return call;
}

void play_transfer(CWorld& world, const tolk_call& call, tolk_status right) {
  if (call.source == nullptr) return world.skip(call);
  tolk_client_start(world.client, &call);
  world.wait(call, right);
}

// The whole file, or none. That of a call which failed later is there. Its removal may fail.
void judge_file(CWorld& world, bool is_stored) {
  const Exempt reading;
  std::ifstream in(stored_path, std::ios::binary);
  const bool is_there = in.is_open();
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto data = CWorld::data();
  const bool is_whole = std::equal(bytes.begin(), bytes.end(), data.begin(), data.end());
  world.expect_that(is_there || !is_stored, "the file is not there");
  world.expect_that(is_whole || !is_there || (Faults::of_calls() && !is_stored),
                    "half a file is left");
  std::remove(stored_path.c_str());
}

}  // namespace

void send_data_to_a_sink(CWorld& world) {
  add_store(world, store_data, go_on_with);
  CWorld::Token* const from = world.new_context();
  const tolk_call call = new_transfer(world, from, go_on_with);
  play_transfer(world, call, TOLK_OK);
  if (call.source == nullptr || CWorld::status_of(call) != TOLK_OK || !CWorld::is_over(call))
    return;
  expect_all(world, from, "not all data were read");
  expect_all(world, stored, "not all data were stored");
}

void get_data_into_a_sink(CWorld& world) {
  CWorld::Token* const to = world.new_context();
  tolk_call call = world.new_call("stream", nullptr);
  call.progress = go_on_with;
  call.sink = tolk_sink_callback(write_data, to, CWorld::release);
  if (call.sink == nullptr) return world.skip(call);
  tolk_client_start(world.client, &call);
  world.wait(call);
  if (CWorld::status_of(call) != TOLK_OK || !CWorld::is_over(call)) return;
  expect_all(world, to, "not all data were stored");
}

void send_a_file_to_a_file(CWorld& world) {
  std::string path;
  {
    const Exempt setting_up;
    path = "/tmp/tolk-c-seam-" + std::to_string(getpid());
    stored_path = path + "-stored";
    const auto data = CWorld::data();
    std::ofstream(path, std::ios::binary).write(data.data(), std::streamsize(data.size()));
  }
  add_store(world, store_file, nullptr);
  tolk_call call = world.new_call("store", nullptr);
  tolk_error* error = nullptr;
  const tolk_status opened = tolk_source_file(path.c_str(), &call.source, &error);
  world.expect("a file to send", opened, TOLK_OK, error);
  play_transfer(world, call, TOLK_OK);
  world.end();
  judge_file(world, opened == TOLK_OK && CWorld::status_of(call) == TOLK_OK);
  std::remove(path.c_str());
}

void cancel_a_transfer(CWorld& world) {
  add_store(world, store_data, go_on_with);
  const tolk_call by_sender = new_transfer(world, world.new_context(), begin_alone);
  play_transfer(world, by_sender, TOLK_CANCELLED);
  {
    const Exempt setting_up;
    world.expect_that(world.remove_method("store"), "a method is not there");
  }
  add_store(world, store_data, begin_alone);
  const tolk_call by_receiver = new_transfer(world, world.new_context(), nullptr);
  play_transfer(world, by_receiver, TOLK_CANCELLED);
}

}  // namespace tolk::test
