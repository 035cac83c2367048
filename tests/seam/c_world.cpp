#include "tests/seam/c_world.h"

#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "tests/e2e/support/waiting.h"
#include "tests/seam/faults.h"

namespace tolk::test {
namespace {

constexpr std::chrono::milliseconds kLongWait{4000};
constexpr std::chrono::milliseconds kShortWait{20};
constexpr std::size_t kDataBytes = std::size_t{700} << 10;  // three pieces
constexpr char kPing[] = "ping";

bool is_data(const tolk_block* block) {
  const Exempt reading;
  std::size_t size = 0;
  const void* const bytes = tolk_block_bytes(block, 0, &size);
  return bytes != nullptr && size == CWorld::data().size() &&
         std::memcmp(bytes, CWorld::data().data(), size) == 0;
}

// False after a short wait if `may_fail`, which may begin meanwhile; otherwise after a long one.
template <class MayFail>
bool acquire(std::counting_semaphore<64>& semaphore, MayFail may_fail) {
  const Stopwatch since;
  bool may_have_failed = false;
  while (!semaphore.try_acquire_for(kShortWait)) {
    if (may_have_failed || since.elapsed() > kLongWait) return false;
    may_have_failed = may_fail();
  }
  return true;
}

bool is_result_of(const char* method, const tolk_block* result) {
  if (std::strcmp(method, "give") == 0) return is_data(result);
  const bool is_of_the_library = std::strpbrk(method, "._") != nullptr;
  return is_of_the_library || CWorld::is_ping(result);
}

}  // namespace

// The handlers and callbacks.
struct CWorld::Host {
  static void echo(void*, tolk_request* request) {
    if (is_ping(tolk_request_arguments(request))) return tolk_request_answer(request, ping());
    tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "not a ping", nullptr);
  }
  static void take(void*, tolk_request* request) {
    if (is_data(tolk_request_arguments(request))) return tolk_request_answer(request, ping());
    tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "not the data", nullptr);
  }
  static void give(void* token, tolk_request* request) {
    tolk_source* const source = of(token).source();
    if (source == nullptr) {
      return tolk_request_fail(request, TOLK_FAILED, 0, "no memory", nullptr);
    }
    tolk_request_answer_data(request, ping(), source);
  }
  static void refuse(void*, tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 7, "on purpose", ping());
  }
  static void drop(void* token, tolk_request* request) {
    CWorld& world = of(token);
    tolk_request_free(request);
    world.arrived_.release();
  }
  static void keep(void* token, tolk_request* request) {
    CWorld& world = of(token);
    world.kept_[world.next_kept_++ % world.kept_.size()] = request;
  }
  // Calls the client of the request back.
  static void call_back(void* token, tolk_request* request) {
    tolk_block* result = nullptr;
    const std::uint64_t caller = tolk_request_peer(request)->client;
    tolk_block* const arguments = ping();
    tolk_error* error = nullptr;
    const tolk_status status = tolk_server_call(tolk_request_server(request), caller, "echo",
                                                arguments, limit_ms(), &result, &error);
    tolk_block_free(arguments);
    of(token).expect("a call from a handler", status, TOLK_OK, error);
    if (status == TOLK_OK) return tolk_request_answer(request, result);
    tolk_request_fail(request, TOLK_FAILED, 0, "no memory to call back", nullptr);
  }

  static void done(void* context, const tolk_outcome* outcome) {
    auto& owed = *static_cast<Owed*>(context);
    CWorld& world = *owed.world;
    ++owed.outcomes;
    world.expect_that(tolk_error_status(outcome->error) == outcome->status,
                      "an error has another status");
    const char* const reason = tolk_error_reason(outcome->error);
    // The piece that is missing is the one for which there was no memory.
    const bool no_memory = std::strncmp(reason, "no memory", 9) == 0 ||
                           (Faults::injected() && std::strcmp(reason, "a piece is missing") == 0);
    std::strncpy(owed.reason.data(), reason, owed.reason.size() - 1);
    owed.status = no_memory ? TOLK_NO_MEMORY : outcome->status;
    if (outcome->status == TOLK_OK) {
      world.expect_that(is_result_of(owed.method, outcome->result), "a result is wrong");
    }
    tolk_client_free(owed.frees.exchange(nullptr));
    if (outcome->left == 0) ++owed.last_ones;
    owed.over.release();
  }
  static void on_connect(void* token, tolk_server*, const tolk_peer* client) {
    of(token).newest_client = client->client;
    ++of(token).connects_;
  }
  static void on_gone(void* token, tolk_server*, const tolk_peer*) { ++of(token).gones_; }
  static void on_stopped(void* token, tolk_server*, const tolk_error*) {
    ++of(token).servers_stopped;
  }
  static void on_server_gone(void* token, tolk_client*, const tolk_error* why) {
    of(token).expect_that(tolk_error_status(why) != TOLK_OK, "on_gone has no error");
  }
  static void log(void*, tolk_level, const char*) {}
  static void execute(void* token, tolk_task* task) {
    CWorld& world = of(token);
    world.tasks_[world.next_task_.fetch_add(1) % world.tasks_.size()] = task;
    world.has_task_.release();
  }
};

CWorld::CWorld(const char* address, Executor executor)
    : address_(address), execute_(executor == Executor::host ? Host::execute : nullptr) {
  if (execute_ != nullptr) executor_ = std::thread([this] { run_tasks(); });
}

CWorld::~CWorld() {
  ends_ = true;
  has_task_.release();
  if (executor_.joinable()) executor_.join();
}

void CWorld::run_tasks() {
  for (std::size_t at = 0;; ++at) {
    has_task_.acquire();
    if (ends_) return;
    std::atomic<tolk_task*>& place = tasks_[at % tasks_.size()];
    while (place == nullptr) std::this_thread::yield();
    tolk_task_run(place.exchange(nullptr));
  }
}

CWorld::Token* CWorld::new_context() {
  Token& token = tokens_[next_token_++];
  token.world = this;
  return &token;
}

CWorld& CWorld::of(void* token) { return *static_cast<Token*>(token)->world; }

void CWorld::release(void* token) { ++static_cast<Token*>(token)->releases; }

void CWorld::add(const char* name, tolk_handler handler, tolk_method_options options) {
  options.size = sizeof options;
  options.free_context = release;
  expect("tolk_methods_add",
         tolk_methods_add(methods_, name, handler, new_context(), &options, nullptr),
         methods_ == nullptr ? TOLK_MISUSE : TOLK_OK);
}

void CWorld::make_methods() {
  methods_ = tolk_methods_new();
  add("echo", Host::echo);
  tolk_method_options options{};
  options.flags = TOLK_INLINE;
  add("inline", Host::echo, options);
  options.flags = TOLK_ORDERED;
  add("ordered", Host::echo, options);
  add("take", Host::take);
  add("give", Host::give);
  add("stream", Host::give);
  add("refuse", Host::refuse);
  add("drop", Host::drop);
  add("keep", Host::keep);
  add("call back", Host::call_back);
}

bool CWorld::remove_method(const char* name) { return tolk_methods_remove(methods_, name); }

void CWorld::listen() {
  tolk_server_options options{};
  options.size = sizeof options;
  options.methods = methods_;
  options.execute = execute_;
  options.log = Host::log;
  options.on_connect = Host::on_connect;
  options.on_gone = Host::on_gone;
  options.on_stopped = Host::on_stopped;
  options.context = new_context();
  options.free_context = release;
  options.clients_may_stop = true;
  tolk_error* error = nullptr;
  const tolk_status status = tolk_server_listen(address_, &options, &server, &error);
  expect("tolk_server_listen", status, TOLK_OK, error);
  expect_that((status == TOLK_OK) == (server != nullptr), "a failed listen gives a server");
}

tolk_client* CWorld::connect(const char* address) {
  if (address == nullptr && server == nullptr) return nullptr;
  tolk_client_options options{};
  options.size = sizeof options;
  options.methods = methods_;
  options.execute = execute_;
  options.limit_ms = limit_ms();
  options.log = Host::log;
  options.on_gone = Host::on_server_gone;
  options.context = new_context();
  options.free_context = release;
  tolk_client* made = nullptr;
  tolk_error* error = nullptr;
  if (address == nullptr) address = tolk_server_address(server);
  const tolk_status status = tolk_client_connect(address, &options, &made, &error);
  expect("tolk_client_connect", status, TOLK_OK, error);
  expect_that((status == TOLK_OK) == (made != nullptr), "a failed connect gives a client");
  return made;
}

void CWorld::end() {
  for (Owed& owed : owed_) tolk_client_free(owed.frees.exchange(nullptr));
  tolk_client_free(std::exchange(other, nullptr));
  tolk_client_free(std::exchange(client, nullptr));
  tolk_server_free(std::exchange(server, nullptr));
  tolk_methods_free(std::exchange(methods_, nullptr));
  while (tolk_request* const kept = take_kept()) tolk_request_free(kept);
}

std::string CWorld::judge() {
  const bool released = eventually([this] { return owed_trouble().empty(); }, kLongWait);
  if (trouble_.empty() && !released) trouble_ = owed_trouble();
  return trouble_;
}

std::string CWorld::owed_trouble() const {
  for (std::size_t i = 0; i < next_token_; ++i) {
    const int releases = tokens_[i].releases;
    if (releases != 1)
      return "context " + std::to_string(i) + " released " + std::to_string(releases) + " times";
  }
  for (std::size_t i = 0; i < next_owed_; ++i) {
    const std::string method = owed_[i].method;
    if (owed_[i].last_ones != 1)
      return "calls of " + method + " have ended " + std::to_string(owed_[i].last_ones) + " times";
  }
  if (connects_ == gones_) return "";
  return "on_connect was called " + std::to_string(connects_) + " times, on_gone " +
         std::to_string(gones_) + " times";
}

void CWorld::note(const char* what, const char* detail) {
  const Exempt test;
  if (!has_trouble_.exchange(true)) trouble_ = std::string(what) + detail;
}

// Without a thread for a handler, a call ends with its limit.
int CWorld::limit_ms() { return Faults::will_go_on() ? 30 : 2000; }

void CWorld::expect_that(bool right, const char* what) {
  if (!right) note(what);
}

void CWorld::expect(const char* what, tolk_status status, tolk_status right, tolk_error* error) {
  const Exempt test;
  const bool no_memory = std::strncmp(tolk_error_reason(error), "no memory", 9) == 0;
  const bool after_a_failure =
      no_memory || status == TOLK_NO_MEMORY || status == TOLK_GONE || status == TOLK_CLOSED ||
      (Faults::of_calls() && (status == TOLK_NOT_CONNECTED || status == TOLK_CANNOT_LISTEN ||
                              status == TOLK_BAD_ADDRESS));
  // The limit is short there, and the machine may be busy.
  const bool too_slow = Faults::will_go_on() && status == TOLK_TIMED_OUT;
  if (status != right && !too_slow && !(Faults::injected() && after_a_failure)) {
    const std::string detail =
        std::string(": ") + tolk_status_name(status) + " " + tolk_error_text(error);
    note(what, detail.c_str());
  }
  tolk_error_free(error);
}

tolk_call CWorld::new_call(const char* method, const tolk_block* arguments, unsigned flags) {
  Owed& owed = owed_[next_owed_++];
  owed.world = this;
  owed.method = method;
  tolk_call call{};
  call.size = sizeof call;
  call.method = method;
  call.arguments = arguments;
  call.limit_ms = limit_ms();
  call.flags = flags;
  call.done = Host::done;
  call.context = &owed;
  return call;
}

void CWorld::wait(const tolk_call& call, tolk_status right) { wait_either(call, right, right); }

bool CWorld::comes(const tolk_call& call) {
  auto& owed = *static_cast<Owed*>(call.context);
  while (owed.last_ones == 0) {
    if (acquire(owed.over, [] { return Faults::go_on(); })) continue;
    // Without a thread for callbacks it comes with the end.
    if (!Faults::go_on()) note("no outcome of ", owed.method);
    return false;
  }
  return true;
}

void CWorld::wait_either(const tolk_call& call, tolk_status right, tolk_status also) {
  if (!comes(call)) return;
  auto& owed = *static_cast<Owed*>(call.context);
  const Exempt test;
  const std::string what = std::string(owed.method) + " (" + owed.reason.data() + ")";
  expect(what.c_str(), owed.status, owed.status == also ? also : right);
}

tolk_status CWorld::status_of(const tolk_call& call) {
  return static_cast<Owed*>(call.context)->status;
}

bool CWorld::is_over(const tolk_call& call) {
  return static_cast<Owed*>(call.context)->last_ones != 0;
}

void CWorld::free_in(const tolk_call& call) {
  static_cast<Owed*>(call.context)->frees = std::exchange(client, nullptr);
}

void CWorld::skip(const tolk_call& call) { static_cast<Owed*>(call.context)->last_ones = 1; }

void CWorld::wait_for_clients(int count) {
  expect_that(eventually([&] { return connects_ == count; }), "on_connect was not called");
}

void CWorld::wait_until_stopped() {
  const Stopwatch since;
  while (servers_stopped == 0 && !Faults::go_on() && since.elapsed() < kLongWait) {
    std::this_thread::yield();
  }
  expect_that(servers_stopped == 1 || Faults::go_on(), "on_stopped was not called once");
}

tolk_request* CWorld::take_kept() {
  for (auto& place : kept_) {
    if (tolk_request* const request = place.exchange(nullptr)) return request;
  }
  return nullptr;
}

tolk_request* CWorld::kept_request(const tolk_call& call) {
  const Stopwatch since;
  for (;;) {
    const bool over = static_cast<Owed*>(call.context)->last_ones != 0;
    tolk_request* const request = take_kept();
    if (request != nullptr || over || since.elapsed() > (Faults::go_on() ? kShortWait : kLongWait))
      return request;
    std::this_thread::yield();
  }
}

void CWorld::wait_for_post() {
  const bool arrived = acquire(arrived_, [] { return Faults::injected(); });
  expect_that(arrived || Faults::injected(), "a post does not arrive");
}

tolk_block* CWorld::ping() {
  tolk_block* const block = tolk_block_new();
  tolk_block_add_text(block, kPing, TOLK_TO_ZERO);
  return block;
}

bool CWorld::is_ping(const tolk_block* block) {
  const Exempt reading;
  const char* const text = tolk_block_text(block, 0, nullptr);
  return text != nullptr && std::strcmp(text, kPing) == 0;
}

std::span<const char> CWorld::data() {
  static const std::vector<char> bytes = [] {
    std::vector<char> made(kDataBytes);
    for (std::size_t i = 0; i < made.size(); ++i) made[i] = static_cast<char>(i * 7 + i / 251);
    return made;
  }();
  return bytes;
}

tolk_source* CWorld::source() {
  return tolk_source_memory(data().data(), data().size(), new_context(), release);
}

}  // namespace tolk::test
