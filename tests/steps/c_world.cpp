#include "tests/steps/c_world.h"

#include <algorithm>
#include <cstring>

#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

constexpr int kBystanderLoops = 2;
constexpr std::size_t kCDataBytes = std::size_t{700} << 10;  // three pieces
constexpr char kCPing[] = "ping";
constexpr Milliseconds kOwedWait{10'000};

char c_byte(std::size_t at) { return static_cast<char>(at * 7 + at / 251); }

std::string c_text_of(const Address& address) {
  return address.is_pipe() ? "pipe:" + address.port : "tcp4:" + address.host + ":" + address.port;
}

}  // namespace

tolk_block* c_ping() {
  tolk_block* const block = tolk_block_new();
  tolk_block_add_text(block, kCPing, TOLK_TO_ZERO);
  return block;
}

bool is_c_ping(const tolk_block* block) {
  const char* const text = tolk_block_text(block, 0, nullptr);
  return text != nullptr && std::strcmp(text, kCPing) == 0;
}

// COwed

COwed::Context* COwed::new_context() {
  const std::lock_guard lock(mutex_);
  contexts_.emplace_back().owed = this;
  return &contexts_.back();
}

void COwed::release(void* context) { ++static_cast<Context*>(context)->releases; }

COwed::Call* COwed::new_call() {
  const std::lock_guard lock(mutex_);
  calls_.emplace_back().owed = this;
  return &calls_.back();
}

void COwed::done(void* call, const tolk_outcome* outcome) {
  auto& made = *static_cast<Call*>(call);
  made.status = outcome->status;
  if (outcome->status == TOLK_OK && !is_c_ping(outcome->result)) made.owed->has_wrong_result = true;
  ++made.outcomes;
}

void COwed::keep(tolk_request* request) {
  const std::lock_guard lock(mutex_);
  kept_.push_back(request);
}

tolk_request* COwed::take_kept() {
  const std::lock_guard lock(mutex_);
  if (kept_.empty()) return nullptr;
  tolk_request* const request = kept_.back();
  kept_.pop_back();
  return request;
}

std::size_t COwed::kept() const {
  const std::lock_guard lock(mutex_);
  return kept_.size();
}

std::string COwed::open_calls() const {
  const std::lock_guard lock(mutex_);
  for (const Call& call : calls_) {
    if (call.outcomes == 1) continue;
    return "a call has ended " + std::to_string(call.outcomes) + " times";
  }
  return {};
}

std::string COwed::open_contexts() const {
  const std::lock_guard lock(mutex_);
  for (const Context& context : contexts_) {
    if (context.releases == 1) continue;
    return "a context was released " + std::to_string(context.releases) + " times";
  }
  if (connects == gones) return {};
  return "on_connect was called " + std::to_string(connects) + " times, on_gone " +
         std::to_string(gones) + " times";
}

// CPair

struct CPair::Handlers {
  static COwed& owed(void* context) { return *static_cast<COwed::Context*>(context)->owed; }

  static void echo(void*, tolk_request* request) {
    tolk_request_answer(request, tolk_block_copy(tolk_request_arguments(request)));
  }
  static void drop(void*, tolk_request* request) { tolk_request_free(request); }
  static void keep(void* context, tolk_request* request) { owed(context).keep(request); }
  static void store(void*, tolk_request* request) { tolk_request_answer(request, c_ping()); }
  static void give(void* context, tolk_request* request) {
    COwed::Context* const from = owed(context).new_context();
    tolk_request_answer_data(request, c_ping(),
                             tolk_source_callback(kCDataBytes, read, from, COwed::release));
  }
  static tolk_status accept(void* context, const tolk_request*, std::uint64_t, tolk_sink** sink) {
    *sink = tolk_sink_callback(write, owed(context).new_context(), COwed::release);
    return TOLK_OK;
  }
  static std::size_t read(void* context, void* to, std::size_t capacity) {
    auto& from = *static_cast<COwed::Context*>(context);
    const std::size_t begin = from.bytes;
    const std::size_t size = std::min(capacity, kCDataBytes - begin);
    for (std::size_t i = 0; i < size; ++i) static_cast<char*>(to)[i] = c_byte(begin + i);
    from.bytes += size;
    return size;
  }
  static bool write(void* context, const void* bytes, std::size_t size) {
    auto& to = *static_cast<COwed::Context*>(context);
    const std::size_t begin = to.bytes;
    bool is_right = begin + size <= kCDataBytes;
    for (std::size_t i = 0; i < size; ++i) {
      is_right = is_right && static_cast<const char*>(bytes)[i] == c_byte(begin + i);
    }
    to.bytes += size;
    if (!is_right) to.owed->has_wrong_result = true;
    return true;
  }
  static void on_connect(void* context, tolk_server*, const tolk_peer* client) {
    owed(context).client_id = client->client;
    ++owed(context).connects;
  }
  static void on_gone(void* context, tolk_server*, const tolk_peer*) { ++owed(context).gones; }
  static void on_server_gone(void*, tolk_client*, const tolk_error*) {}
  static void execute(void* context, tolk_task* task) {
    auto& of = *static_cast<COwed::Context*>(context);
    if (of.is_freed) of.owed->has_late_task = true;
    of.executor->add(task);
  }
};

CPair::CPair(Transport transport, RunsOn runs_on)
    : executor_(runs_on == RunsOn::executor ? std::make_unique<HostExecutor>() : nullptr),
      front_(fresh_address(transport)),
      back_(fresh_address(transport)),
      relay(front_, back_) {
  add("echo", Handlers::echo);
  add("drop", Handlers::drop);
  add("keep", Handlers::keep);
  add("store", Handlers::store, Handlers::accept);
  add("give", Handlers::give);
}

CPair::~CPair() { leave(); }

void CPair::add(const char* name, tolk_handler handler, tolk_accept accept) {
  tolk_method_options options{};
  options.size = sizeof options;
  options.accept = accept;
  options.free_context = COwed::release;
  tolk_methods_add(methods_, name, handler, owed->new_context(), &options, nullptr);
}

template <class Options>
Options CPair::options_of_both(COwed::Context* context) {
  context->executor = executor_.get();
  Options options{};
  options.size = sizeof options;
  options.methods = methods_;
  if (executor_) options.execute = Handlers::execute;
  options.context = context;
  options.free_context = COwed::release;
  return options;
}

tolk_client* CPair::connect(const Address& to, COwed::Context* context) {
  auto options = options_of_both<tolk_client_options>(context);
  options.on_gone = Handlers::on_server_gone;
  tolk_client* made = nullptr;
  tolk_client_connect(c_text_of(to).c_str(), &options, &made, nullptr);
  return made;
}

tolk_client* CPair::connect_another() { return connect(back_, owed->new_context()); }

bool CPair::come_up() {
  server_context_ = owed->new_context();
  client_context_ = owed->new_context();
  auto options = options_of_both<tolk_server_options>(server_context_);
  options.on_connect = Handlers::on_connect;
  options.on_gone = Handlers::on_gone;
  tolk_server* made = nullptr;
  if (tolk_server_listen(c_text_of(back_).c_str(), &options, &made, nullptr) != TOLK_OK)
    return false;
  server = made;
  client = connect(front_, client_context_);
  return client != nullptr && eventually([this] { return owed->connects == 1; });
}

std::string CPair::trouble() {
  tolk_block* const arguments = c_ping();
  std::string trouble;
  for (const bool by_client : {true, false}) {
    tolk_block* result = nullptr;
    if (by_client) {
      tolk_client_call(client, "echo", arguments, 0, &result, nullptr);
    } else {
      tolk_server_call(server, owed->client_id, "echo", arguments, 0, &result, nullptr);
    }
    if (!is_c_ping(result)) trouble = "the bystander's call is not answered";
    tolk_block_free(result);
  }
  tolk_block_free(arguments);
  return trouble;
}

void CPair::free_client() {
  tolk_client* const mine = client.exchange(nullptr);
  tolk_client_free(mine);
  if (mine != nullptr) client_context_->is_freed = true;
}

void CPair::free_server() {
  tolk_server* const mine = server.exchange(nullptr);
  tolk_server_free(mine);
  if (mine != nullptr) server_context_->is_freed = true;
}

std::string CPair::leave() {
  free_client();
  free_server();
  tolk_methods_free(std::exchange(methods_, nullptr));
  std::string trouble = owed->open_calls();
  if (executor_) executor_->end();
  if (executor_ && trouble.empty()) trouble = executor_->trouble();
  if (trouble.empty() && owed->has_late_task) trouble = "the executor is called after a free";
  while (tolk_request* const request = owed->take_kept()) tolk_request_free(request);
  relay.cut(Relay::Ending::closed);
  const bool all_released = eventually([this] { return owed->open_contexts().empty(); }, kOwedWait);
  if (trouble.empty() && !all_released) trouble = owed->open_contexts();
  if (trouble.empty() && owed->has_wrong_result) trouble = "a wrong result";
  if (trouble.empty() && !eventually([] { return open_loops() <= kBystanderLoops; }, kOwedWait))
    return "a loop is left";
  return trouble;
}

tolk_source* CPair::new_source() {
  return tolk_source_callback(kCDataBytes, Handlers::read, owed->new_context(), COwed::release);
}

tolk_sink* CPair::new_sink() {
  return tolk_sink_callback(Handlers::write, owed->new_context(), COwed::release);
}

}  // namespace tolk::test
