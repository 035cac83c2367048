// A server and clients of the C interface in one process, over each transport.
#pragma once

#include <gtest/gtest.h>
#include <tests/transport/event.h>
#include <tolk/c.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tolk::test {

struct FreeCapi {
  void operator()(tolk_block* block) const { tolk_block_free(block); }
  void operator()(tolk_error* error) const { tolk_error_free(error); }
  void operator()(tolk_methods* methods) const { tolk_methods_free(methods); }
  void operator()(tolk_client* client) const { tolk_client_free(client); }
  void operator()(tolk_server* server) const { tolk_server_free(server); }
};
template <class T>
using Owned = std::unique_ptr<T, FreeCapi>;

Owned<tolk_block> text_block(const std::string& text);
std::string text_of(const tolk_block* block);

// What became of a call.
struct Answer {
  tolk_status status = TOLK_OK;
  std::string text;    // the first value of the result
  std::string reason;  // of the error
  int code = 0;
};

Answer call_client(tolk_client* client, const char* method, const std::string& text,
                   int limit_ms = 0);
Answer call_server(tolk_server* server, std::uint64_t client, const char* method,
                   const std::string& text, int limit_ms = 0);

// Methods whose handlers are functions.
class Methods {
 public:
  using Handler = std::function<void(tolk_request*)>;

  void add(const char* name, Handler handler, unsigned flags = 0);
  // Answers with its argument.
  void add_echo(unsigned flags = 0);
  tolk_methods* get() const { return methods_.get(); }

 private:
  Owned<tolk_methods> methods_{tolk_methods_new()};
};

// A `done` that keeps what it gets.
class Done {
 public:
  static void call(void* self, const tolk_outcome* outcome);

  void wait() { done_->wait(); }
  Answer answer;
  std::uint64_t number = 0;
  std::atomic<int> calls{0};
  std::function<void(const tolk_outcome*)> also = [](const tolk_outcome*) {};

 private:
  // Whoever waits may be gone before the event is out of its own hands.
  const std::shared_ptr<Event> done_ = std::make_shared<Event>();
};

// With `done`, or one that is waited for.
tolk_call call_of(const char* method, Done* done = nullptr, int limit_ms = 0);

// The parameter is an address to listen on.
class Pair : public testing::TestWithParam<const char*> {
 protected:
  ~Pair() override;

  void listen(tolk_server_options options = {});
  Owned<tolk_client> connect(tolk_client_options options = {});
  // Both, with the methods that are there.
  void start();
  // Both ends: no handler uses what the test has any more.
  void end();
  std::uint64_t first_client() const;

  Methods server_methods;
  Methods client_methods;
  Owned<tolk_server> server;
  Owned<tolk_client> client;
};

inline const auto kAllTransports = testing::Values("pipe", "tcp4:127.0.0.1:0", "tcp6:[::1]:0");
// Those that a second server cannot take.
std::vector<const char*> addresses_of_one_server();
inline std::string transport_name(const testing::TestParamInfo<const char*>& info) {
  return std::string(info.param, 4);
}

}  // namespace tolk::test
