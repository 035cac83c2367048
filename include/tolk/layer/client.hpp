/// @file
/// A client: one connection to a server, with calls in both directions.
#pragma once

#include <thread>
#include <tolk/layer/method.hpp>

namespace tolk {
inline namespace v1 {
/// The settings of Client::reconnecting.
struct Reconnect {
  /// The pause before the second attempt. The first attempt has no pause.
  std::chrono::milliseconds first{100};
  /// The longest pause. Each pause is twice as long as the previous one.
  std::chrono::milliseconds most{5000};
  /// Whether calls wait for the new connection until their limit, or fail with Errc::gone.
  bool calls_wait = false;
  /// Runs on the reconnecting thread, with `false` when the connection is lost, and with `true`
  /// when the client is connected again. It must not close the client. Exceptions are dropped.
  Function<void(bool connected)> changed = {};
};

/// @cond internal
namespace detail {
// Thread: any. Only `connect` and the reconnecting thread replace a connection.
class ClientCore final : public Core {
 public:
  using Core::Core;

  void connect(const Address& where) {
    std::unique_lock<std::mutex> lock(mutex_);
    const char* const wrong = closed_             ? "a closed client can't connect"
                              : !address_.empty() ? "this client is or was connected"
                                                  : nullptr;
    if (wrong != nullptr) throw Error(Errc::misuse, "", where.text(), wrong);
    address_ = where.text();
    is_starting_ = true;
    lock.unlock();
    const auto failed = try_once(options.patience);
    lock.lock();
    is_starting_ = false;
    if (early_) std::exchange(early_, nullptr)->forget();
    if (failed) address_.clear();
    changed_.notify_all();
    if (failed) throw Error(*failed);
  }

  void reconnecting(Reconnect how) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || reconnector_.joinable()) {
      throw Error(Errc::misuse, "", address_, "asked to reconnect twice, or when closed");
    }
    how_ = std::move(how);
    const auto self = std::static_pointer_cast<ClientCore>(shared_from_this());
    reconnector_ = std::thread([self] { self->reconnect(); });
  }

  void close(bool is_destroyed) {
    note_change(true);
    std::thread reconnector;
    std::unique_lock<std::mutex> lock(mutex_);
    const bool may_wait = !Scope::is_inside(this);
    if (may_wait || is_destroyed) std::swap(reconnector, reconnector_);
    if (!may_wait && reconnector.joinable()) reconnector.detach();
    lock.unlock();
    if (reconnector.joinable()) reconnector.join();
    end_link(link_, is_destroyed);  // a connect that is under way ends its own
    if (is_destroyed) forget_methods();
  }

  bool is_connected() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return link_ && !closed_ && !is_lost();
  }

  Function<void()> on_closed;

 private:
  using Clock = std::chrono::steady_clock;

  // A call that starts when there is a connection.
  struct Waiting {
    std::shared_ptr<Pending> call;
    Clock::time_point begun;

    Clock::time_point end() const {
      return call->limits.stop.stop_requested() ? begun : end_of(begun, call->limits.limit);
    }
  };

  // A year is forever, and can be waited for everywhere.
  static Clock::time_point end_of(Clock::time_point begun, std::chrono::milliseconds limit) {
    return begun + std::min<std::chrono::milliseconds>(limit, std::chrono::hours(24 * 365));
  }

  static std::chrono::milliseconds since(Clock::time_point begun) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun);
  }

  struct Context {
    std::shared_ptr<Core> core;
    std::shared_ptr<std::atomic<bool>> lost;
  };

  // Makes a connection, which replaces the last one.
  std::optional<Error> try_once(std::chrono::milliseconds patience) {
    auto* const context =
        new Context{shared_from_this(), std::make_shared<std::atomic<bool>>(false)};
    const auto lost = context->lost;
    tolk_client_options wanted{};
    fill(wanted, context, delete_context<Context>);
    wanted.patience_ms = patience.count() <= 0 ? 0 : Limits{patience, {}}.ms();
    wanted.on_gone = [](void* of, tolk_client* client, const tolk_error*) {
      const auto& gone = *static_cast<Context*>(of);
      gone.core->note_client(client);
      static_cast<ClientCore&>(*gone.core).note_loss(*gone.lost);
    };
    tolk_client* client = nullptr;
    CError error;
    if (tolk_client_connect(address().c_str(), &wanted, &client, error.place()) != TOLK_OK) {
      received.keep_only(made_);
      return connect_error(error.get());
    }
    std::unique_lock<std::mutex> lock(mutex_);
    auto fresh = early_ ? early_ : std::make_shared<Link>(client);
    if (!closed_) {
      early_ = nullptr;
      std::swap(link_, fresh);
      lost_ = lost;
      made_ = client;
      changed_.notify_all();
    }
    lock.unlock();
    end_link(fresh, true);  // the last one, or this one in a closed client
    received.keep_only(client);
    return std::nullopt;
  }

  static Error connect_error(const tolk_error* error) {
    const std::string reason = tolk_error_reason(error);
    const std::string where = tolk_error_address(error);
    const char* const maybe_none =
        "look what listens there, it may be no server of this library; if it is, connect again";
    const Errc code = errc_of(error);
    if (code == Errc::not_connected) return {code, "", where, "not connected: " + reason};
    if (code == Errc::gone || code == Errc::timed_out) {
      const char* const what = code == Errc::gone ? " went away during the version check"
                                                  : " did not answer the version check in time";
      return {code, "", where, std::string("the server") + what, maybe_none};
    }
    if (code != Errc::refused_version) return to_error(error);
    const std::string wanted = tolk_error_wanted(error);
    const std::string found = tolk_error_found(error);
    const bool differ = !found.empty() && found != wanted;
    return {code, "", where,
            "refused: the server is of another version" +
                (differ ? ": wanted " + wanted + ", found " + found : "")};
  }

  void note_loss(std::atomic<bool>& lost) {
    const Scope scope(this);
    std::unique_lock<std::mutex> lock(mutex_);
    lost = true;
    changed_.notify_all();
    lock.unlock();
    if (on_closed && !closed_) on_closed();
  }
  // Under the lock.
  bool is_lost() const { return lost_ && *lost_; }

  std::shared_ptr<Link> usable_link(Limits& limits) override {
    const std::stop_callback wake(limits.stop, [this] { note_change(); });
    std::unique_lock<std::mutex> lock(mutex_);
    if (calls_must_wait()) {
      const auto begun = Clock::now();
      changed_.wait_until(lock, end_of(begun, limits.limit),
                          [&] { return !calls_must_wait() || limits.stop.stop_requested(); });
      if (limits.limit != forever) limits.limit -= since(begun);
    }
    lock.unlock();
    return limits.stop.stop_requested() ? nullptr : link();
  }
  bool start_later(const std::shared_ptr<Pending>& call) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!calls_must_wait() || call->limits.stop.stop_requested()) return false;
    waiting_.push_back({call, Clock::now()});
    changed_.notify_all();
    return true;
  }
  // Under the lock.
  bool calls_must_wait() const {
    if (early_ && Scope::is_inside(this)) return false;
    return how_ && how_->calls_wait && !closed_ && (!link_ || is_lost());
  }

  // Starts the calls that wait if there is a connection, and ends those that waited too long.
  void begin_waiting() {
    std::vector<Waiting> all;
    std::vector<Waiting> kept;
    std::unique_lock<std::mutex> lock(mutex_);
    const bool must_wait = calls_must_wait();
    for (Waiting& each : waiting_) {
      const bool stays = must_wait && Clock::now() < each.end();
      (stays ? kept : all).push_back(std::move(each));
    }
    waiting_.swap(kept);
    lock.unlock();
    for (const Waiting& each : all) {
      if (Clock::now() >= each.end() && !each.call->limits.stop.stop_requested()) {
        const Error error(Errc::timed_out, each.call->method, address(),
                          "timed out without a connection");
        each.call->finish(nullptr, &error, this);
        continue;
      }
      auto& limit = each.call->limits.limit;
      if (limit != forever) limit -= since(each.begun);
      start(shared_from_this(), each.call);
    }
  }

  Error unconnected(const std::string& method, ClientId) const override {
    if (closed_) {
      return {Errc::not_connected, method, address(), "not connected: the client was closed",
              "make a new client: a closed one stays closed"};
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (link_) return {Errc::gone, method, address_, "the server is gone"};
    return {Errc::not_connected, method, address_, "not connected yet",
            "connect the client before it calls"};
  }

  void reconnect() {
    while (wait_for([&] { return is_lost(); }, forever) && !closed_) {
      tell(false);
      if (connect_again()) tell(true);
    }
    begin_waiting();
  }

  // Waits until `what`, the limit or the close, and takes care of waiting calls. Returns `what()`.
  template <class What>
  bool wait_for(const What& what, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto end = end_of(Clock::now(), limit);
    while (!closed_ && !what() && Clock::now() < end) {
      auto wake = end;
      for (const Waiting& each : waiting_) wake = std::min(wake, each.end());
      if (!waiting_.empty() && (!calls_must_wait() || wake <= Clock::now())) {
        lock.unlock();
        begin_waiting();
        lock.lock();
      } else {
        changed_.wait_until(lock, wake);
      }
    }
    return what();
  }

  // False: the client is closed.
  bool connect_again() {
    for (auto pause = how_->first; !closed_; pause = std::min(pause * 2, how_->most)) {
      if (!try_once(std::chrono::milliseconds(0))) return !closed_;
      wait_for([] { return false; }, pause);
    }
    return false;
  }

  void tell(bool connected) const {
    try {
      if (how_->changed) how_->changed(connected);
    } catch (...) {  // no caller on this thread could handle it
    }
  }

  const tolk_client* made_ = nullptr;        // the last one
  std::shared_ptr<std::atomic<bool>> lost_;  // that of the link
  std::vector<Waiting> waiting_;
  std::optional<Reconnect> how_;
  std::thread reconnector_;
};
}  // namespace detail
/// @endcond

/// A connection to a server. Calls of different threads run concurrently. A moved-from client can
/// only be destroyed or assigned to. Failure: `connect` throws tolk::Error.
class Client : public Calls<Client>, public Endpoint<Client, detail::ClientCore> {
 public:
  /// A client that is not connected. Call `on` before `connect`: the server may call at once.
  explicit Client(const Options& options = {}) : Endpoint(options) {}

  /// Connects and checks the server's version. Throws tolk::Error: Errc::bad_address,
  /// Errc::not_connected, Errc::refused_version, Errc::timed_out (the version check took 10 s) or
  /// Errc::gone. A client connects once.
  void connect(const Address& where) { core_->connect(where); }

  /// Makes the client connect again after a lost connection, on a thread of the client, with
  /// growing pauses. Its methods stay. Calls that were under way fail with Errc::gone; the client
  /// does not repeat them.
  void reconnecting(Reconnect how = {}) { core_->reconnecting(std::move(how)); }

  /// Returns whether the client is connected.
  bool connected() const { return core_->is_connected(); }
  /// Sets the hook for a lost connection; set it before `connect`.
  Client& on_closed(Function<void()> hook) {
    core_->on_closed = std::move(hook);
    return *this;
  }

 private:
  friend class Calls<Client>;
  detail::Callee callee() const { return {core_}; }
};

/// Returns a client that is connected to `where`. Throws tolk::Error like Client::connect.
inline Client connect(const Address& where, const Options& options = {}) {
  Client client(options);
  client.connect(where);
  return client;
}

}  // namespace v1
}  // namespace tolk
