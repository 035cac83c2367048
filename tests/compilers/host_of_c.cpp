// A C++ host of the C interface: its threads, exceptions and containers are those of a standard
// library that need not be the one inside libtolk. Prints nothing and ends with 0 when all is
// right.
#include <tolk/c.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Free {
  void operator()(tolk_block* block) const { tolk_block_free(block); }
  void operator()(tolk_client* client) const { tolk_client_free(client); }
  void operator()(tolk_server* server) const { tolk_server_free(server); }
  void operator()(tolk_methods* methods) const { tolk_methods_free(methods); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

void check(bool is_right, const char* what) {
  if (!is_right) throw std::runtime_error(what);
}

Owned<tolk_block> block_of(const std::string& text) {
  Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_text(block.get(), text.c_str(), TOLK_TO_ZERO);
  return block;
}

// Answers with the text twice; an empty one is refused by an exception of the host's own.
void twice(void* calls, tolk_request* request) {
  ++*static_cast<std::atomic<int>*>(calls);
  try {
    const std::string text = tolk_block_text(tolk_request_arguments(request), 0, nullptr);
    check(!text.empty(), "nothing to say");
    tolk_request_answer(request, block_of(text + text).release());
  } catch (const std::exception& error) {
    tolk_request_fail(request, TOLK_FAILED, 1, error.what(), nullptr);
  }
}

tolk_status call(tolk_client* client, const std::string& text, std::string* answer) {
  tolk_block* result = nullptr;
  tolk_error* error = nullptr;
  const tolk_status status =
      tolk_client_call(client, "twice", block_of(text).get(), 5000, &result, &error);
  const Owned<tolk_block> owner(result);
  *answer = status == TOLK_OK ? tolk_block_text(result, 0, nullptr) : tolk_error_reason(error);
  tolk_error_free(error);
  return status;
}

void call_from_threads(tolk_client* client) {
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, text = std::string(100, static_cast<char>('a' + i))] {
      std::string answer;
      if (call(client, text, &answer) == TOLK_OK && answer == text + text) ++right;
    });
  }
  for (std::thread& thread : threads) thread.join();
  check(right == 4, "calls of threads");
}

void run() {
  std::atomic<int> calls{0};
  const Owned<tolk_methods> methods(tolk_methods_new());
  check(tolk_methods_add(methods.get(), "twice", twice, &calls, nullptr, nullptr) == TOLK_OK,
        "add");
  tolk_server_options options{};
  options.size = sizeof options;
  options.methods = methods.get();
  tolk_server* listening = nullptr;
  check(tolk_server_listen("tcp4:127.0.0.1:0", &options, &listening, nullptr) == TOLK_OK, "listen");
  const Owned<tolk_server> server(listening);
  tolk_client* connected = nullptr;
  check(
      tolk_client_connect(tolk_server_address(listening), nullptr, &connected, nullptr) == TOLK_OK,
      "connect");
  const Owned<tolk_client> client(connected);
  call_from_threads(connected);
  std::string answer;
  check(call(connected, "", &answer) == TOLK_FAILED && answer == "nothing to say", "a failure");
  check(calls == 5, "each call once");
}

}  // namespace

int main() {
  try {
    run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
