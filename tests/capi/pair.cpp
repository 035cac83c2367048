#include "pair.h"

#include <random>

#include "tests/e2e/support/system.h"

namespace tolk::test {
namespace {

std::string unused_address(const std::string& kind) {
  static const auto process = std::random_device()();
  static std::atomic<int> last{0};
  if (kind != "pipe") return kind;
  return "pipe:capi-" + std::to_string(process) + "-" + std::to_string(++last);
}

Answer answer_of(tolk_status status, tolk_block* result, tolk_error* error) {
  const Owned<tolk_block> result_owner(result);
  const Owned<tolk_error> error_owner(error);
  return {status, text_of(result), tolk_error_reason(error), tolk_error_code(error)};
}

}  // namespace

Owned<tolk_block> text_block(const std::string& text) {
  Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_text(block.get(), text.data(), text.size());
  return block;
}

std::string text_of(const tolk_block* block) {
  std::size_t size = 0;
  const char* const text = tolk_block_text(block, 0, &size);
  return text == nullptr ? "" : std::string(text, size);
}

Answer call_client(tolk_client* client, const char* method, const std::string& text, int limit_ms) {
  tolk_block* result = nullptr;
  tolk_error* error = nullptr;
  const tolk_status status =
      tolk_client_call(client, method, text_block(text).get(), limit_ms, &result, &error);
  return answer_of(status, result, error);
}

Answer call_server(tolk_server* server, std::uint64_t client, const char* method,
                   const std::string& text, int limit_ms) {
  tolk_block* result = nullptr;
  tolk_error* error = nullptr;
  const tolk_status status =
      tolk_server_call(server, client, method, text_block(text).get(), limit_ms, &result, &error);
  return answer_of(status, result, error);
}

void Methods::add(const char* name, Handler handler, unsigned flags) {
  tolk_method_options options{};
  options.size = sizeof options;
  options.flags = flags;
  options.free_context = [](void* context) { delete static_cast<Handler*>(context); };
  const auto call = [](void* context, tolk_request* request) {
    (*static_cast<Handler*>(context))(request);
  };
  ASSERT_EQ(tolk_methods_add(methods_.get(), name, call, new Handler(std::move(handler)), &options,
                             nullptr),
            TOLK_OK);
}

void Methods::add_echo(unsigned flags) {
  const auto echo = [](tolk_request* request) {
    tolk_request_answer(request, text_block(text_of(tolk_request_arguments(request))).release());
  };
  add("echo", echo, flags);
}

void Done::call(void* self, const tolk_outcome* outcome) {
  auto& done = *static_cast<Done*>(self);
  const auto event = done.done_;
  done.answer = {outcome->status, text_of(outcome->result), tolk_error_reason(outcome->error),
                 tolk_error_code(outcome->error)};
  done.number = outcome->call;
  done.also(outcome);
  ++done.calls;
  event->set();
}

tolk_call call_of(const char* method, Done* done, int limit_ms) {
  tolk_call call{};
  call.size = sizeof call;
  call.method = method;
  call.limit_ms = limit_ms;
  if (done == nullptr) return call;
  call.done = Done::call;
  call.context = done;
  return call;
}

Pair::~Pair() { end(); }

void Pair::end() {
  client.reset();
  server.reset();
}

void Pair::listen(tolk_server_options options) {
  options.size = sizeof options;
  options.methods = server_methods.get();
  tolk_server* made = nullptr;
  tolk_error* error = nullptr;
  ASSERT_EQ(tolk_server_listen(unused_address(GetParam()).c_str(), &options, &made, &error),
            TOLK_OK)
      << tolk_error_text(error);
  server.reset(made);
}

Owned<tolk_client> Pair::connect(tolk_client_options options) {
  options.size = sizeof options;
  if (options.methods == nullptr) options.methods = client_methods.get();
  tolk_client* made = nullptr;
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_connect(tolk_server_address(server.get()), &options, &made, &error),
            TOLK_OK)
      << tolk_error_text(error);
  tolk_error_free(error);
  return Owned<tolk_client>(made);
}

void Pair::start() {
  ASSERT_NO_FATAL_FAILURE(listen());
  client = connect();
  ASSERT_NE(client, nullptr);
}

std::vector<const char*> addresses_of_one_server() {
  std::vector<const char*> all{"tcp4:127.0.0.1:0", "tcp6:[::1]:0"};
  if (pipe_names_are_exclusive()) all.push_back("pipe");
  return all;
}

std::uint64_t Pair::first_client() const {
  std::uint64_t id = 0;
  EXPECT_GE(tolk_server_clients(server.get(), &id, 1), 1U);
  return id;
}

}  // namespace tolk::test
