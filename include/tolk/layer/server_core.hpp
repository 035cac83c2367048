/// @file
/// The state that a server, its handlers and its callers share.
#pragma once

#include <tolk/IServer.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <random>
#include <tolk/layer/connection.hpp>

namespace tolk {
inline namespace v1 {

/// @cond internal
namespace detail {

// An IServer. Every call through it keeps it alive.
// Thread: any. Owner: the IServer, and the handlers of one that never listened.
class Listening {
 public:
  Listening() : native(CreateServer()) {
    if (native == nullptr) throw std::bad_alloc();
  }
  ~Listening() {
    native->close();
    DestroyServer(native);
    if (!started) ownership->free_if_not_taken();
  }
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;

  IServer* const native;
  const std::shared_ptr<Ownership> ownership = std::make_shared<Ownership>();
  CallIds ids;
  bool started = false;  // then the library deletes the handlers, possibly after this object's end
};

// The connected clients.
class Clients {
 public:
  void came(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    known_.emplace(id, false);
  }
  void went(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    known_.erase(id);
  }
  bool has(int id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return known_.contains(id);
  }
  void all_went() {
    const std::lock_guard<std::mutex> lock(mutex_);
    known_.clear();
  }
  std::vector<int> ids() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<int> all;
    for (const auto& [id, silent] : known_) all.push_back(id);
    return all;
  }
  // A client without the layer does not answer "tolk.describe".
  void note_silent(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto at = known_.find(id);
    if (at != known_.end()) at->second = true;
  }
  bool is_silent(int id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto at = known_.find(id);
    return at != known_.end() && at->second;
  }

 private:
  mutable std::mutex mutex_;
  std::map<int, bool> known_;  // by id: whether the client does not answer "tolk.describe"
};

class ServerCore final : public Peer, public std::enable_shared_from_this<ServerCore> {
 public:
  using ClientHook = std::function<void(int)>;

  explicit ServerCore(const Options& wanted) : options(wanted) {}

  void listen(const Address& where) {
    std::shared_ptr<Listening> old;  // a server that a client has stopped; freed after the locks
    const std::lock_guard<std::mutex> one_at_a_time(life_);
    if (closed_) throw Error(Errc::misuse, "", where.text(), "a closed server can't listen again");
    if (listening()) throw Error(Errc::misuse, "", where.text(), "this server listens already");
    // Set once, because handlers of a failed attempt may still read it.
    if (side->back.expired()) side->back = weak_from_this();
    auto fresh = std::make_shared<Listening>();
    register_handlers(*fresh);
    set_address(where);
    starting_ = true;
    const bool started = start(*fresh->native, where);
    // Not earlier, because a line gives the reason of a failure.
    if (options.quiet) silence(*fresh->native);
    starting_ = false;
    if (!started) {
      const std::string why = last_line();
      throw Error(Errc::cannot_listen, "", where.text(), "can't listen: " + why,
                  hint_of(why, where.transport()));
    }
    fresh->started = true;
    const std::lock_guard<std::mutex> lock(mutex_);
    old = std::exchange(listening_, std::move(fresh));
    ever_listened_ = true;
  }

  // Waits for the calls to clients first, because the library would leave them waiting forever. It
  // holds no lock while it waits, because a handler may close the server too.
  void close() {
    std::shared_ptr<Listening> ending;
    if (!begin_end(ending)) return wait_for_first();
    if (ending) {
      calls_.close();
      wait_for_calls(*ending->native);
      ending->native->close();
    }
    side->end();
    ending.reset();
    ended();
  }

  bool listening() const {
    const auto current = this->current();
    return current && current->native->isok();
  }
  // Waits until this program or a client closes the server.
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!ever_listened_) throw Error(Errc::misuse, "", "", "this server does not listen");
    changed_.wait(lock, [&] { return ended_; });
  }

  // Excludes `listen`, so that a new IServer registers the method exactly once.
  void add(Method method) {
    const std::lock_guard<std::mutex> one_at_a_time(life_);
    const Method& kept = side->add(std::move(method));
    const auto current = this->current();
    if (!current) return;
    current->native->method(kept.info.name.c_str(),
                            current->ownership->keep(MethodHandler::of_method(side, kept)));
  }

  std::optional<Error> exchange(int to, const std::string& method, TolkParams* arguments,
                                Limit limit, Read read) override {
    auto failed = exchange_once(to, method, arguments, limit, read);
    if (!failed || failed->code() != Errc::timed_out) return failed;
    if (!clients.has(to)) return failure(Errc::gone, to, method, "the client is gone");
    return lacks_method(to, method) ? no_such_method(to, method) : failed;
  }

  std::optional<Error> post(int to, const std::string& method, TolkParams* arguments) override {
    const Gate::Pass pass(calls_);
    const auto current = pass ? this->current() : nullptr;
    if (!current || !current->native->isok()) return not_listening(to, method);
    if (!clients.has(to)) return no_such_client(to, method);
    if (auto large = too_large(arguments, method, address())) return large;
    current->native->PostMsg(to, method.c_str(), arguments, kPostId);
    return std::nullopt;
  }

  std::chrono::milliseconds usual_limit() const override { return options.limit; }
  std::string address() const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return where_;
  }

  const Options options;
  const std::shared_ptr<Side> side = std::make_shared<Side>();
  Clients clients;
  ClientHook on_connect;
  ClientHook on_closed;

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr int kPostId = 0x40000001;

  // The log sink. Its destructor shows that the library deletes the handlers. It is also registered
  // under a secret name, which no peer can call, so it is never busy then.
  class Sink final : public IServerMethod {
   public:
    Sink(std::weak_ptr<ServerCore> core, std::shared_ptr<Ownership> ownership)
        : core_(std::move(core)), ownership_(std::move(ownership)) {}
    ~Sink() override {
      ownership_->taken();
      if (const auto core = core_.lock()) core->ended();
    }
    void callback(int, TolkParams* in, TolkParams* out) override {
      const auto core = core_.lock();
      if (core && in != nullptr && out == nullptr) core->take_line(in->GetValue(0));
    }

   private:
    const std::weak_ptr<ServerCore> core_;
    const std::shared_ptr<Ownership> ownership_;
  };

  // Returns false if a close has begun before.
  bool begin_end(std::shared_ptr<Listening>& ending) {
    const std::lock_guard<std::mutex> one_at_a_time(life_);
    if (std::exchange(closed_, true)) return false;
    const std::lock_guard<std::mutex> lock(mutex_);
    ending.swap(listening_);
    return true;
  }

  // A handler does not wait, because the first close waits for the handler.
  void wait_for_first() {
    side->end();
    if (side->gate.has_this_thread()) return;
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return ended_; });
  }

  // Does not wait after a client has stopped the server, because nothing ends the calls then.
  void wait_for_calls(IServer& native) const {
    static constexpr std::chrono::milliseconds kLook{10};
    while (!calls_.is_empty() && native.isok()) std::this_thread::sleep_for(kLook);
  }

  std::shared_ptr<Listening> current() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return listening_;
  }

  void register_handlers(Listening& fresh) {
    IServer& native = *fresh.native;
    Ownership& ownership = *fresh.ownership;
    auto* const sink = ownership.keep(std::make_unique<Sink>(weak_from_this(), fresh.ownership));
    native.method("s_c_log", sink);
    native.method(secret_name().c_str(), sink);
    register_all(native, ownership, side);
    const auto hook = [&](const char* name, Hook::Happened happened) {
      native.method(name, ownership.keep(std::make_unique<Hook>(side, std::move(happened))));
    };
    hook("s_c_connect", [weak = weak_from_this()](int id, bool open) {
      if (const auto core = weak.lock()) core->client_came(id, open);
    });
    hook("s_c_closed", [weak = weak_from_this()](int id, bool open) {
      if (const auto core = weak.lock()) core->client_went(id, open);
    });
    if (side->catch_all) native.methodall(ownership.keep(std::make_unique<CatchAllHandler>(side)));
  }

  class CatchAllHandler final : public IMethodAll {
   public:
    explicit CatchAllHandler(std::shared_ptr<Side> side) : side_(std::move(side)) {}
    void callback(const char* name, int id, TolkParams* in, TolkParams* out) override {
      if (in != nullptr && out != nullptr) side_->serve_unknown(name, id, *in, *out);
    }

   private:
    const std::shared_ptr<Side> side_;
  };

  static std::string secret_name() {
    std::random_device random;
    return "tolk.sink." + std::to_string(random()) + "." + std::to_string(random());
  }

  static bool start(IServer& native, const Address& where) {
    const std::string number = std::to_string(where.number());
    if (where.transport() == Transport::pipe) return native.InitTolkServer(number.c_str());
    return where.transport() == Transport::tcp4
               ? native.InitTolkServerTcp4(where.host().c_str(), number.c_str())
               : native.InitTolkServerTcp6(where.host().c_str(), number.c_str());
  }

  void client_came(int id, bool open) {
    clients.came(id);
    if (open && on_connect) on_connect(id);
  }
  void client_went(int id, bool open) {
    side->transfers.forget_all_of(id);
    clients.went(id);
    if (open && on_closed) on_closed(id);
  }

  void take_line(const TolkValue* value) {
    if (value == nullptr || !value->IsString()) return;
    const std::string line(bytes_of(*value));
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      last_line_ = line;
    }
    if (!(options.quiet && starting_)) side->log_line(line);
  }
  std::string last_line() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t end = last_line_.find_last_not_of("\n ");
    const bool says_why = last_line_.find("rror") != std::string::npos;
    return says_why ? last_line_.substr(0, end + 1) : "the address can't be used here";
  }
  // The hint for a failure other than a taken address; null otherwise.
  static const char* hint_of(std::string_view why, Transport transport) {
    const auto is = [&](std::string_view reason) { return why.ends_with(reason); };
    if (is("EADDRNOTAVAIL")) return "use an address that this machine has";
    if (is("EACCES") && transport != Transport::pipe) {
      return "choose a port from 1024 on: lower ones are not forevery user";
    }
    if (is("EACCES") || is("ENOTDIR")) {
      return "see that the directory of the pipes, and what is in it, is this user's alone: "
             "tolk(7), FILES";
    }
    return nullptr;
  }
  void set_address(const Address& where) {
    const std::lock_guard<std::mutex> lock(mutex_);
    where_ = where.text();
    last_line_.clear();
    ended_ = false;
  }
  void ended() {
    clients.all_went();
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  std::optional<Error> exchange_once(int to, const std::string& method, TolkParams* arguments,
                                     Limit limit, const Read& read) {
    const Gate::Pass pass(calls_);
    const auto current = pass ? this->current() : nullptr;
    if (!current || !current->native->isok()) return not_listening(to, method);
    if (auto large = too_large(arguments, method, address())) return large;
    const auto begun = Clock::now();
    Lease lease(current->ids, [] {});
    const auto milliseconds = static_cast<int>(limit.server_ms());
    TolkParams* const answer =
        current->native->SendMsg(to, method.c_str(), arguments, lease.id(), milliseconds);
    // Every answer has an envelope. A block without one is an emptied result of an earlier call.
    if (answer != nullptr && answer->MapSize() > 0) {
      lease.note_answered(answer);
      read(*answer);
      return std::nullopt;
    }
    reclaim_spoiled(*current);
    return why_unanswered(to, method, limit, begun);
  }

  // A late answer appears in the slot of its id. When it has been removed, the id is usable again.
  // The library's own calls use the same table, so it cannot be cleared as a whole.
  static void reclaim_spoiled(Listening& current) {
    const auto id = current.ids.take_spoiled();
    if (!id) return;
    // No client has the id 0, so this only reads the slot.
    TolkParams* const late = current.native->SendMsg(0, "", nullptr, *id, 1);
    if (late == nullptr || late->MapSize() == 0) return current.ids.still_spoiled(*id);
    late->Clear();
    current.ids.clean_again(*id);
  }

  // A client does not answer a call of an unknown method. A client with the layer lists its methods
  // at once. A client without it is asked only once.
  bool lacks_method(int to, const std::string& method) {
    static constexpr std::chrono::milliseconds kPatience{200};
    if (clients.is_silent(to)) return false;
    bool lacks = false;
    const auto failed =
        exchange_once(to, kMethodDescribe, nullptr, Limit{kPatience}, [&](TolkParams& block) {
          std::vector<std::string> names;
          const bool told = Codec<std::vector<std::string>>::get(block.GetValue(0), names);
          lacks = told && std::find(names.begin(), names.end(), method) == names.end();
        });
    if (failed) clients.note_silent(to);
    return lacks;
  }

  std::optional<Error> why_unanswered(int to, const std::string& method, Limit limit,
                                      Clock::time_point begun) const {
    if (limit.endless() || Clock::now() - begun < limit.asked) return no_such_client(to, method);
    return failure(Errc::timed_out, to, method,
                   "timed out after " + std::to_string(limit.asked.count()) + " ms");
  }
  Error failure(Errc code, int to, const std::string& method, std::string_view detail,
                const char* hint = nullptr) const {
    const std::string where = address();
    const std::string of = where.empty() ? where : " of " + where;
    return {code, method, "client " + std::to_string(to) + of, detail, hint};
  }
  Error not_listening(int to, const std::string& method) const {
    return failure(Errc::not_connected, to, method, "not connected: the server does not listen",
                   "let the server listen, then call");
  }
  Error no_such_client(int to, const std::string& method) const {
    return failure(Errc::not_connected, to, method, "not connected: there is no such client",
                   "take the ids of clients from on_connect, clients() or a Caller");
  }
  Error no_such_method(int to, const std::string& method) const {
    return failure(Errc::no_such_method, to, method, "there is no such method");
  }

  std::mutex life_;
  bool closed_ = false;  // under `life_`
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<Listening> listening_;
  std::string where_;  // empty before `listen`
  std::string last_line_;
  bool ended_ = false;
  bool ever_listened_ = false;         // under `mutex_`
  std::atomic<bool> starting_{false};  // a quiet server is not silenced meanwhile
  Gate calls_;
};

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
