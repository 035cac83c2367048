/// @file
/// What clients and servers share: the settings, the connection, and the calls through it.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <tolk/layer/arguments.hpp>
#include <tolk/layer/function.hpp>

namespace tolk {
inline namespace v1 {

/// Work for an executor: a handler, a hook, or the rest of a coroutine. Call it once.
class Work {
 public:
  /// @cond internal
  explicit Work(tolk_task* task) : task_(task) {}
  /// @endcond

  /// Does the work, on the calling thread.
  void operator()() const { tolk_task_run(task_); }

 private:
  tolk_task* task_;
};

/// The settings of a client or a server.
struct Options {
  /// The limit of calls that have no limit argument.
  std::chrono::milliseconds limit{5000};
  /// How long a connect keeps trying while nobody listens. 0 means one attempt.
  std::chrono::milliseconds patience{0};
  /// Has no effect: the layer prints nothing.
  bool quiet = false;
  /// The threads for handlers, hooks and coroutines, which are started when needed. One that waits
  /// for a call is replaced meanwhile. 0 means 4.
  unsigned workers = 0;
  /// Has handlers, hooks and coroutines run on threads of the program, such as that of a user
  /// interface, instead of workers: it puts each Work into a queue, and returns. The thread calls
  /// each once, even after the end of the client or server, when that only frees it. A close on
  /// that thread waits in vain for Work that is still queued: Options::close_limit.
  Function<void(Work)> executor = {};
  /// How long a close waits for running handlers, their answers and posted calls.
  std::chrono::milliseconds close_limit{1000};
  /// Whether a server obeys a client that asks it to close.
  bool clients_may_stop = false;
};

/// Describes a method.
struct MethodInfo {
  std::string name;       ///< the name in calls
  std::string signature;  ///< `"(int, int) -> int"`
  std::string about;      ///< the host's description; may be empty
  /// Whether all members are equal.
  bool operator==(const MethodInfo& other) const = default;
};

/// A server's number for a client. It is never used again in the process.
using ClientId = std::uint64_t;

class Caller;
class Progress;

/// @cond internal
namespace detail {
class Core;

// Data of requests that a hook watches, from their begin until the handler. Thread: any.
class ReceivedData {
 public:
  // What the library keeps for one client, too.
  static constexpr std::uint64_t kMost = 2'147'483'643;

  struct Data {
    const tolk_request* request;
    std::uint64_t peer;  // the client that called, or that was called
    std::uint64_t total;
    bytes all;
  };

  // Null: the client has too much under way.
  std::shared_ptr<Data> add(const tolk_request* request, std::uint64_t total) {
    const std::uint64_t peer = peer_of(request);
    const std::lock_guard<std::mutex> lock(mutex_);
    std::uint64_t left = kMost;
    remove(request);  // one of this address has ended without its handler
    for (const auto& each : all_) left -= each->peer == peer ? each->total : 0;
    if (total > left) return nullptr;
    return all_.emplace_back(new Data{request, peer, total, {}});
  }
  // Those of a request whose handler begins, or of a transfer that has failed. Null without.
  std::shared_ptr<Data> take(const tolk_request* request, const Data* failed = nullptr) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = remove(request, failed);
    return found && !failed && found->peer == peer_of(request) ? found : nullptr;
  }
  // The other clients have ended.
  void keep_only(const tolk_client* one) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = all_.size(); i-- > 0;) {
      if (all_[i]->peer != reinterpret_cast<std::uintptr_t>(one)) remove(all_[i]->request);
    }
  }

 private:
  static std::uint64_t peer_of(const tolk_request* request) {
    const std::uint64_t id = tolk_request_peer(request)->client;
    return id != 0 ? id : reinterpret_cast<std::uintptr_t>(tolk_request_client(request));
  }
  std::shared_ptr<Data> remove(const tolk_request* request, const Data* only = nullptr) {
    for (auto& each : all_) {
      if (each->request != request || (only != nullptr && each.get() != only)) continue;
      std::swap(each, all_.back());
      auto found = std::move(all_.back());
      all_.pop_back();
      return found;
    }
    return nullptr;
  }

  std::mutex mutex_;
  std::vector<std::shared_ptr<Data>> all_;
};

// This thread runs a callback of an object.
class Scope {
 public:
  explicit Scope(const Core* core, bool is_inline = false)
      : core_(core), is_inline_(is_inline), outer_(innermost()) {
    innermost() = this;
  }
  ~Scope() { innermost() = outer_; }

  static bool is_inside(const Core* core, bool only_inline = false) {
    for (const Scope* at = innermost(); at != nullptr; at = at->outer_) {
      if (at->core_ == core && (at->is_inline_ || !only_inline)) return true;
    }
    return false;
  }

 private:
  static const Scope*& innermost() {
    thread_local const Scope* scope = nullptr;
    return scope;
  }

  const Core* const core_;
  const bool is_inline_;
  const Scope* const outer_;
};

struct Outgoing {
  ClientId to = 0;
  std::string method;
  Block arguments;
  Limits limits;

  void fill(tolk_call& c) const {
    c.size = sizeof c;
    c.method = method.c_str();
    c.arguments = arguments.get();
    c.client = to;
    c.limit_ms = limits.ms();
  }
};

// A tolk_client or tolk_server, and the number of threads that use it. It is freed when they have
// left: functions of the C interface must not begin after the free.
// Thread: any. Owner: the client or server.
class Link : public std::enable_shared_from_this<Link> {
 public:
  explicit Link(tolk_client* client) : client_(client) {}
  explicit Link(tolk_server* server) : server_(server) {}
  ~Link() { free(); }

  // Counts a thread, until it drops this. None after the end.
  struct Leave {
    std::shared_ptr<Link> link;
    void operator()(Link* left) const { left->leave(); }
  };
  using Use = std::unique_ptr<Link, Leave>;
  static Use use(const std::shared_ptr<Link>& link) {
    return link && link->enter() ? Use(link.get(), Leave{link}) : Use();
  }

  tolk_server* server() const { return server_; }
  tolk_status call(const tolk_call& c, Block& result, CError& error) {
    if (c.source != nullptr || c.sink != nullptr) return wait(start(c), result, error);
    if (client_ != nullptr) {
      return tolk_client_call(client_, c.method, c.arguments, c.limit_ms, result.place(),
                              error.place());
    }
    return tolk_server_call(server_, c.client, c.method, c.arguments, c.limit_ms, result.place(),
                            error.place());
  }
  std::uint64_t start(const tolk_call& c) {
    return client_ != nullptr ? tolk_client_start(client_, &c) : tolk_server_start(server_, &c);
  }
  tolk_status wait(std::uint64_t call, Block& result, CError& error) {
    if (client_ != nullptr) return tolk_client_wait(client_, call, result.place(), error.place());
    return tolk_server_wait(server_, call, result.place(), error.place());
  }
  void cancel(std::uint64_t call) {
    client_ != nullptr ? tolk_client_cancel(client_, call) : tolk_server_cancel(server_, call);
  }
  tolk_status post(const Outgoing& o, CError& error) {
    const char* const method = o.method.c_str();
    const tolk_block* const values = o.arguments.get();
    const int ms = o.limits.ms();
    return client_ != nullptr ? tolk_client_post(client_, method, values, ms, error.place())
                              : tolk_server_post(server_, o.to, method, values, ms, error.place());
  }

  // Refuses calls, waits until the others are through or the limit has passed, and ends the
  // connection. In a callback of the object it does not wait.
  void close(std::chrono::milliseconds limit) {
    const int ms = limit.count() <= 0 ? 0 : Limits{limit, {}}.ms();
    if (!enter()) return;
    client_ != nullptr ? tolk_client_close(client_, ms) : tolk_server_close(server_, ms);
    leave();
  }
  // After a close. Waits until nobody uses the connection and callbacks have returned.
  void end() {
    refuse_users();
    std::unique_lock<std::mutex> lock(waiting_);
    left_.wait(lock, [&] { return users_ == kRefused; });
    lock.unlock();
    free();
  }
  // The same in a callback, which does not wait: it frees, or the last user has that done.
  void abandon() {
    is_abandoned_ = true;
    if (refuse_users() == 0) free();
  }
  // Instead of the free, for a client that the library has freed.
  void forget() {
    refuse_users();
    client_ = nullptr;
  }

 private:
  static constexpr unsigned kRefused = 1U << 31;

  bool enter() {
    for (unsigned users = users_; (users & kRefused) == 0;) {
      if (users_.compare_exchange_weak(users, users + 1)) return true;
    }
    return false;
  }
  void leave() {
    if (users_.fetch_sub(1) != kRefused + 1) return;
    if (is_abandoned_) return free_in_callback();
    // Not by the atomic: mingw-w64 loses its notifications.
    const std::lock_guard<std::mutex> lock(waiting_);
    left_.notify_all();
  }
  unsigned refuse_users() { return users_.fetch_or(kRefused) & ~kRefused; }
  // A free waits for callbacks, but not in one. Whatever they wait for may wait for this thread.
  void free_in_callback() {
    tolk_call c{};  // without a method: it is refused
    c.size = sizeof c;
    c.context = new std::shared_ptr<Link>(shared_from_this());
    c.done = [](void* link, const tolk_outcome*) {
      (*static_cast<std::shared_ptr<Link>*>(link))->free();
      delete static_cast<std::shared_ptr<Link>*>(link);
    };
    start(c);
  }
  void free() {
    const std::lock_guard<std::mutex> lock(free_);
    tolk_client_free(std::exchange(client_, nullptr));
    tolk_server_free(std::exchange(server_, nullptr));
  }

  tolk_client* client_ = nullptr;
  tolk_server* server_ = nullptr;
  std::atomic<unsigned> users_{0};
  std::atomic<bool> is_abandoned_{false};
  std::mutex waiting_;
  std::condition_variable left_;
  std::mutex free_;
};

// An asynchronous call until its end. The thread that starts it, and its outcome, own it.
class Pending : public Outgoing {
 public:
  virtual ~Pending() = default;
  // The result, or why there is none. Must not throw.
  virtual void finish(const tolk_block* result, const Error* error, const Core* core) = 0;

  bool is_inline = false;  // on the loop thread; otherwise on a worker or the executor

 private:
  friend class Core;
  struct OnStop {
    std::shared_ptr<Core> core;
    std::uint64_t call;  // 0: it waits for a connection
    void operator()() const;
  };

  std::shared_ptr<Core> core_;
  std::optional<std::stop_callback<OnStop>> on_stop_;
};

// What an object, its handlers and its callers share.
// Thread: any. Owner: the table of methods and the connection.
class Core : public std::enable_shared_from_this<Core> {
 public:
  explicit Core(const Options& wanted) : options(wanted), methods_(tolk_methods_new()) {
    if (methods_ == nullptr) throw std::bad_alloc();
  }
  virtual ~Core() { tolk_methods_free(methods_); }

  // The calls. Without a core, this end is gone.
  // `c` has what is not in `out`: a source and a sink, which it takes.
  static Result<Block> call(const std::shared_ptr<Core>& core, const Outgoing& out, tolk_call c) {
    Limits limits = out.limits;
    const Link::Use use = Link::use(core ? core->usable_link(limits) : nullptr);
    if (!use) {
      tolk_source_free(c.source);
      tolk_sink_free(c.sink);
      return unconnected(core, out);
    }
    out.fill(c);
    c.limit_ms = limits.ms();
    Block result;
    CError error;
    tolk_status status = TOLK_OK;
    if (!limits.stop.stop_possible()) {
      status = use->call(c, result, error);
    } else {
      const std::uint64_t number = use->start(c);
      const std::stop_callback cancel(limits.stop, [&] { use->cancel(number); });
      status = use->wait(number, result, error);
    }
    if (status != TOLK_OK) return core->error_of(error.get(), out);
    return result;
  }
  static void start(const std::shared_ptr<Core>& core, const std::shared_ptr<Pending>& pending) {
    const std::stop_token& stop = pending->limits.stop;
    if (core && stop.stop_possible()) pending->on_stop_.emplace(stop, Pending::OnStop{core, 0});
    if (core && core->start_later(pending)) return;
    const Link::Use use = Link::use(core ? core->link() : nullptr);
    if (!use || stop.stop_requested()) {
      const Error error = unconnected(core, *pending);
      return pending->finish(nullptr, &error, core.get());
    }
    pending->core_ = core;
    tolk_call c{};
    pending->fill(c);
    c.flags = pending->is_inline ? TOLK_INLINE : 0;
    c.done = finish;
    c.context = new std::shared_ptr<Pending>(pending);
    const std::uint64_t number = use->start(c);
    pending->arguments = Block();
    if (stop.stop_possible()) pending->on_stop_.emplace(stop, Pending::OnStop{core, number});
  }
  static Result<void> post(const std::shared_ptr<Core>& core, const Outgoing& out) {
    const Link::Use use = Link::use(core ? core->link() : nullptr);
    if (!use) return unconnected(core, out);
    CError error;
    if (use->post(out, error) == TOLK_OK) return {};
    return core->error_of(error.get(), out);
  }

  // Takes the context. Throws Errc::misuse. Without an info it is the catch-all.
  void add(const MethodInfo* info, tolk_handler handler, void* context,
           tolk_method_options& c_options) {
    c_options.size = sizeof c_options;
    if (info != nullptr) {
      c_options.signature = info->signature.c_str();
      c_options.about = info->about.c_str();
    }
    const char* const name = info == nullptr ? nullptr : info->name.c_str();
    if (tolk_methods_add(methods_, name, handler, context, &c_options, nullptr) == TOLK_OK) {
      const std::lock_guard<std::mutex> lock(mutex_);
      auto at = infos_.begin();
      while (info != nullptr && at != infos_.end() && at->name < info->name) ++at;
      if (info != nullptr) infos_.insert(at, *info);
      return;
    }
    const bool reserved =
        info != nullptr && (is_reserved(name) || info->name.empty() || info->name == "retval");
    throw Error(Errc::misuse, info == nullptr ? "" : name, "",
                reserved ? "a method's name is not empty, not retval, and does not begin with s_c_ "
                           "or tolk."
                         : "there is a method of this name already");
  }
  bool remove(const std::string& method) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto at = infos_.begin();
    while (at != infos_.end() && at->name != method) ++at;
    if (at != infos_.end()) infos_.erase(at);
    lock.unlock();
    return tolk_methods_remove(methods_, method.c_str());
  }
  std::vector<MethodInfo> infos() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return infos_;
  }

  void log_line(const std::string& line) const {
    const Scope scope(this, true);
    if (log) log(line + "\n");
  }
  // Has the caller of a request told why it failed. The line of the host replaces the library's.
  template <class Tell>
  void tell_failure(const std::string& line, const Tell& tell) const {
    own_line() = &line;
    tell();
    own_line() = nullptr;
  }

  std::string address() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return address_;
  }
  // Null without a connection. A callback of a server that is not inline waits for its listen. A
  // connect waits for callbacks when it fails, so that they use the client that it makes.
  std::shared_ptr<Link> link() const {
    std::unique_lock<std::mutex> lock(mutex_);
    if (link_ == nullptr && is_starting_ && Scope::is_inside(this)) {
      if (early_) return early_;
      if (!Scope::is_inside(this, true)) changed_.wait(lock, [&] { return !is_starting_; });
    }
    return link_;
  }
  // Wakes what waits for a connection.
  void note_change(bool closes = false) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closes) closed_ = true;
    changed_.notify_all();
  }
  // In a callback, which may come before the connect returns. Null: a server's.
  void note_client(tolk_client* client) {
    if (client == nullptr || !is_starting_) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!link_ && is_starting_ && !early_) early_ = std::make_shared<Link>(client);
  }

  const Options options;
  Function<void(std::string_view)> log;
  Function<void(const Caller&, Progress)> receiving;
  ReceivedData received;

 protected:
  // Waits for a connection if the object is told so, and takes that off the limit.
  virtual std::shared_ptr<Link> usable_link(Limits&) { return link(); }
  // The same for a call that nobody waits for: true if it starts later.
  virtual bool start_later(const std::shared_ptr<Pending>&) { return false; }
  virtual Error unconnected(const std::string& method, ClientId to) const = 0;

  template <class COptions>
  void fill(COptions& to, void* context, tolk_release release) const {
    to.size = sizeof to;
    to.methods = methods_;
    to.limit_ms = Limits{options.limit, {}}.ms();
    to.workers = options.workers;
    if (options.executor) {
      to.execute = [](void* of, tolk_task* task) { core_of(of).options.executor(Work(task)); };
    }
    if (log) to.log = take_line;
    to.context = context;
    to.free_context = release;
  }
  // What `context` points to begins with a shared pointer to the core.
  static Core& core_of(void* context) { return **static_cast<std::shared_ptr<Core>*>(context); }

  static std::string text_of(ClientId to, const std::string& address) {
    if (to == 0) return address;
    const std::string client = to == TOLK_ALL ? "all clients" : "client " + std::to_string(to);
    return address.empty() ? client : client + " of " + address;
  }

  void end_link(const std::shared_ptr<Link>& link, bool is_destroyed) {
    if (!link) return;
    const bool waits = !Scope::is_inside(this);
    // The answers of handlers are lost only if the object is destroyed in one.
    link->close(waits || !is_destroyed ? options.close_limit : std::chrono::milliseconds(0));
    if (waits) return link->end();
    if (is_destroyed) link->abandon();
  }

  // The library keeps the table for a moment after the end of the object.
  void forget_methods() {
    for (const MethodInfo& info : infos()) remove(info.name);
    tolk_methods_remove(methods_, nullptr);
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::shared_ptr<Link> link_;
  std::shared_ptr<Link> early_;  // until the first connect has ended
  std::string address_;
  std::atomic<bool> is_starting_{false};
  std::atomic<bool> closed_{false};

 private:
  static const std::string*& own_line() {
    thread_local const std::string* line = nullptr;
    return line;
  }
  static void take_line(void* context, tolk_level, const char* text) {
    const std::string* const own = std::exchange(own_line(), nullptr);
    core_of(context).log_line(own != nullptr ? *own : text);
  }

  static void finish(void* context, const tolk_outcome* outcome) {
    const auto held = static_cast<std::shared_ptr<Pending>*>(context);
    const auto pending = std::move(*held);
    delete held;
    const auto core = std::move(pending->core_);
    const Scope scope(core.get(), pending->is_inline);
    if (outcome->status == TOLK_OK) return pending->finish(outcome->result, nullptr, core.get());
    const Error error = core->error_of(outcome->error, *pending);
    pending->finish(nullptr, &error, core.get());
  }

  static Error unconnected(const std::shared_ptr<Core>& core, const Outgoing& out) {
    if (out.limits.stop.stop_requested()) {
      return {Errc::cancelled, out.method, core ? core->address() : "", "cancelled"};
    }
    if (core) return core->unconnected(out.method, out.to);
    return {Errc::not_connected, out.method, "", "not connected: this end was closed"};
  }
  Error error_of(const tolk_error* error, const Outgoing& out) const {
    switch (tolk_error_status(error)) {
      case TOLK_TIMED_OUT:
        return to_error(error,
                        "timed out after " + std::to_string(out.limits.limit.count()) + " ms");
      case TOLK_NO_METHOD:
        return to_error(error, "there is no such method");
      case TOLK_NOT_CONNECTED:
        return {Errc::not_connected, out.method, text_of(out.to, address()),
                "not connected: there is no such client",
                "take the ids of clients from on_connect, clients() or a Caller"};
      case TOLK_CLOSED:
        return unconnected(out.method, out.to);
      default:
        return to_error(error);
    }
  }

  tolk_methods* const methods_;
  std::vector<MethodInfo> infos_;  // ordered by name
};

// Not through the link that the call began with: a connect that fails frees that.
inline void Pending::OnStop::operator()() const {
  if (call == 0) return core->note_change();
  if (const Link::Use use = Link::use(core->link())) use->cancel(call);
}
}  // namespace detail
/// @endcond
}  // namespace v1
}  // namespace tolk
