#include "tests/stress/c_ends.h"

#include <array>

namespace tolk::stress {
namespace {

constexpr int kLongMs = 20000;

struct CountedDone {
  explicit CountedDone(Counts& counts_of_row) : counts(counts_of_row) {}

  Counts& counts;
  std::atomic<int> calls{0};
};

void count_done(void* context, const tolk_outcome*) {
  auto& done = *static_cast<CountedDone*>(context);
  if (++done.calls > 1) ++done.counts.done_twice;
  ++done.counts.done;
}

tolk_block* copied_arguments(const tolk_request* request) {
  return tolk_block_copy(tolk_request_arguments(request));
}

void echo_now(void*, tolk_request* request) {
  tolk_request_answer(request, copied_arguments(request));
}

void answer_later(void* context, tolk_request* request) {
  static_cast<CountedContext*>(context)->answerer->take(request);
}

void keep(void* context, tolk_request* request) {
  const auto caller = tolk_block_uint(tolk_request_arguments(request), 0) % 2;
  ++static_cast<CountedContext*>(context)->answerer->kept.at(caller);
  answer_later(context, request);
}

void drop(void*, tolk_request* request) { tolk_request_free(request); }

bool is_allowed(tolk_status status) {
  return status == TOLK_OK || status == TOLK_TIMED_OUT || status == TOLK_CANCELLED ||
         status == TOLK_GONE || status == TOLK_CLOSED || status == TOLK_UNANSWERED;
}

}  // namespace

tolk_block* number_block(int number) {
  tolk_block* const block = tolk_block_new();
  tolk_block_add_int(block, number);
  return block;
}

namespace {

void call_and_compare(tolk_client* client, const char* method, Counts& counts, Random& random) {
  const int number = random.between(1, 1000000);
  tolk_block* const arguments = number_block(number);
  tolk_block* result = nullptr;
  const tolk_status status =
      tolk_client_call(client, method, arguments, random.between(1, 300), &result, nullptr);
  if (!is_allowed(status)) counts.note_wrong(tolk_status_name(status));
  if (status == TOLK_OK && tolk_block_int(result, 0) != number) {
    counts.note_wrong("another call's result");
  }
  tolk_block_free(result);
  tolk_block_free(arguments);
}

void start_and_take(tolk_client* client, const char* method, Counts& counts, Random& random) {
  tolk_call call{};
  call.size = sizeof call;
  call.method = method;
  call.limit_ms = random.between(1, 300);
  const std::uint64_t number = tolk_client_start(client, &call);
  if (random.one_in(2)) tolk_client_cancel(client, number);
  const tolk_status status = tolk_client_wait(client, number, nullptr, nullptr);
  if (!is_allowed(status)) counts.note_wrong(tolk_status_name(status));
}

}  // namespace

std::string c_address_of(const test::Address& address) {
  using test::Transport;
  if (address.transport == Transport::tcp4) return "tcp4:" + address.host + ":" + address.port;
  if (address.transport == Transport::tcp6) return "tcp6:[" + address.host + "]:" + address.port;
  return "pipe:" + address.port;
}

CountedContext* CountedContext::make(Counts& counts, Answerer* answerer) {
  ++counts.contexts;
  auto* const context = kept(std::make_unique<CountedContext>());
  context->counts = &counts;
  context->answerer = answerer;
  return context;
}

void CountedContext::release(void* context) {
  auto& self = *static_cast<CountedContext*>(context);
  if (self.freed.exchange(true)) self.counts->note_wrong("a context was freed twice");
  ++self.counts->contexts_freed;
}

Answerer::Answerer(Random random) : random_(random), thread_([this] { run(); }) {}

Answerer::~Answerer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ends_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void Answerer::take(tolk_request* request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back(request);
  changed_.notify_all();
}

void Answerer::run() {
  for (;;) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return ends_ || !requests_.empty(); });
    if (requests_.empty()) return;
    tolk_request* const request = requests_.front();
    requests_.pop_front();
    const bool waits = !ends_;
    lock.unlock();
    if (waits) std::this_thread::sleep_for(std::chrono::microseconds(random_.between(0, 500)));
    switch (random_.between(0, 2)) {
      case 0:
        tolk_request_answer(request, copied_arguments(request));
        break;
      case 1:
        tolk_request_answer(request, tolk_block_copy(tolk_request_arguments(request)));
        break;
      default:
        tolk_request_free(request);
    }
  }
}

tolk_methods* stressed_methods(Counts& counts, Answerer& answerer) {
  struct Entry {
    const char* name;
    tolk_handler handler;
    unsigned flags;
  };
  static constexpr std::array<Entry, 6> kEntries{{{"echo", echo_now, 0},
                                                  {"inline", echo_now, TOLK_INLINE},
                                                  {"ordered", echo_now, TOLK_ORDERED},
                                                  {"later", answer_later, 0},
                                                  {"keep", keep, TOLK_INLINE},
                                                  {"drop", drop, 0}}};
  tolk_methods* const methods = tolk_methods_new();
  for (const Entry& entry : kEntries) {
    tolk_method_options options{};
    options.size = sizeof options;
    options.flags = entry.flags;
    options.free_context = CountedContext::release;
    tolk_methods_add(methods, entry.name, entry.handler, CountedContext::make(counts, &answerer),
                     &options, nullptr);
  }
  return methods;
}

tolk_client* stressed_client(const std::string& address, tolk_methods* methods, Counts& counts) {
  tolk_client_options options{};
  options.size = sizeof options;
  options.methods = methods;
  options.on_gone = [](void* context, tolk_client*, const tolk_error*) {
    ++static_cast<CountedContext*>(context)->counts->gone;
  };
  options.context = CountedContext::make(counts);
  options.free_context = CountedContext::release;
  tolk_client* client = nullptr;
  tolk_client_connect(address.c_str(), &options, &client, nullptr);
  return client;
}

tolk_server* stressed_server(const std::string& address, tolk_methods* methods, Counts& counts) {
  tolk_server_options options{};
  options.size = sizeof options;
  options.methods = methods;
  options.on_connect = [](void* context, tolk_server*, const tolk_peer*) {
    ++static_cast<CountedContext*>(context)->counts->connected;
  };
  options.on_gone = [](void* context, tolk_server*, const tolk_peer*) {
    ++static_cast<CountedContext*>(context)->counts->gone;
  };
  options.context = CountedContext::make(counts);
  options.free_context = CountedContext::release;
  tolk_server* server = nullptr;
  tolk_server_listen(address.c_str(), &options, &server, nullptr);
  return server;
}

std::uint64_t start_counted(tolk_client* client, const char* method, unsigned flags, int limit_ms,
                            Counts& counts) {
  tolk_call call{};
  call.size = sizeof call;
  call.method = method;
  call.flags = flags;
  call.limit_ms = limit_ms;
  call.done = count_done;
  call.context = kept(std::make_unique<CountedDone>(counts));
  ++counts.started;
  return tolk_client_start(client, &call);
}

void one_operation(tolk_client* client, Counts& counts, Random& random) {
  static constexpr std::array<const char*, 5> kMethods{"echo", "inline", "ordered", "later",
                                                       "drop"};
  const char* const method = kMethods.at(static_cast<std::size_t>(random.between(0, 4)));
  switch (random.between(0, 3)) {
    case 0:
      return call_and_compare(client, method, counts, random);
    case 1:
      return start_and_take(client, method, counts, random);
    case 2: {
      const unsigned flags = random.one_in(2) ? TOLK_INLINE : 0;
      const auto number =
          start_counted(client, method, flags, random.one_in(2) ? 1 : kLongMs, counts);
      if (random.one_in(3)) tolk_client_cancel(client, number);
      return;
    }
    default:
      tolk_client_post(client, method, nullptr, 1, nullptr);
  }
}

}  // namespace tolk::stress
