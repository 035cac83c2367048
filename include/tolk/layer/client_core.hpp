/// @file
/// The state that a client, its threads and its handlers share: the current connection, and the
/// replacement of a lost one.
#pragma once

#include <atomic>
#include <condition_variable>
#include <tolk/layer/connection.hpp>
#include <tolk/layer/workers.hpp>

namespace tolk {
inline namespace v1 {

/// The settings of Client::reconnecting.
struct Reconnect {
  /// The pause before the second attempt. The first attempt has no pause.
  std::chrono::milliseconds first{100};
  /// The longest pause. Each pause is twice as long as the previous one.
  std::chrono::milliseconds most{5000};
  /// Whether calls wait for the new connection until their timeout. Otherwise they fail at once
  /// with Errc::gone.
  bool calls_wait = false;
  /// Runs on the reconnecting thread, with `false` when the connection is lost, and with `true`
  /// when the client is connected again and the lost connection is freed. Freeing takes 300 ms.
  /// Calls work meanwhile, but its end interrupts those that are under way (Errc::interrupted). The
  /// callback must not close or destroy the client, which would wait for this thread. Exceptions
  /// are dropped.
  std::function<void(bool connected)> changed = {};
};

/// @cond internal
namespace detail {

// Thread: any. Only the reconnecting thread replaces a connection.
class ClientCore final : public Peer, public std::enable_shared_from_this<ClientCore> {
 public:
  explicit ClientCore(const Options& wanted) : options(wanted), workers(wanted.async_threads) {}

  // Throws when the connect fails for good.
  void connect(const Address& where) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (closed_) throw Error(Errc::misuse, "", where.text(), "a closed client can't connect");
      if (where_) throw Error(Errc::misuse, "", where.text(), "this client is or was connected");
      where_ = where;
    }
    // Set once, because handlers of a failed attempt may still read it.
    if (side->back.expired()) side->back = weak_from_this();
    auto fresh = new_connection();
    if (auto failed = try_for_a_while(fresh)) {
      const std::lock_guard<std::mutex> lock(mutex_);
      where_.reset();
      throw *std::move(failed);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) throw Error(Errc::not_connected, "", where.text(), "the client was closed");
    connection_ = std::move(fresh);
    changed_.notify_all();
  }

  void reconnecting(Reconnect how) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || reconnector_.joinable()) {
      throw Error(Errc::misuse, "", address_text(), "asked to reconnect twice, or when closed");
    }
    how_ = std::move(how);
    reconnector_ = std::thread([this] { reconnect(); });
  }

  // A second caller waits only for the handlers, because the first caller may be a handler.
  void close() {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (closed_.exchange(true)) {
        lock.unlock();
        return side->end();
      }
      changed_.notify_all();
    }
    workers.drop();
    if (reconnector_.joinable()) reconnector_.join();
    std::shared_ptr<Connection> last;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      last = std::exchange(connection_, nullptr);
    }
    if (last) last->let_go();
    workers.stop();
    last.reset();
    side->end();
  }

  // The lock covers everything, so that a new connection registers the method exactly once.
  void add(Method method) {
    std::shared_ptr<Connection> coming;  // outlives the lock: this may be its last owner
    const std::lock_guard<std::mutex> lock(mutex_);
    const Method& kept = side->add(std::move(method));
    coming = coming_.lock();
    if (connection_) connection_->register_late(side, kept);
    if (coming && coming != connection_) coming->register_late(side, kept);
  }

  bool is_connected() const {
    const auto now = current();
    return now && now->is_connected();
  }

  std::optional<Error> exchange(int to, const std::string& method, TolkParams* arguments,
                                Limit limit, Read read) override {
    Limit left = limit;
    const auto connection = await_connection(left);
    if (!connection) return unconnected(method);
    return connection->exchange(to, method, arguments, left, read);
  }
  std::optional<Error> post(int to, const std::string& method, TolkParams* arguments) override {
    const auto connection = current();
    if (!connection) return unconnected(method);
    return connection->post(to, method, arguments);
  }
  std::chrono::milliseconds usual_limit() const override { return options.limit; }
  std::string address() const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return address_text();
  }

  const Options options;
  const std::shared_ptr<Side> side = std::make_shared<Side>();
  Workers workers;
  std::function<void()> on_closed;

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kAgain{20};

  std::shared_ptr<Connection> new_connection() {
    const auto lost = [weak = weak_from_this()](int, bool open) {
      if (const auto core = weak.lock()) core->note_loss(open);
    };
    const std::lock_guard<std::mutex> lock(mutex_);
    auto fresh = Connection::make(side, *where_, options, lost);
    coming_ = fresh;
    return fresh;
  }

  std::optional<Error> try_for_a_while(std::shared_ptr<Connection>& fresh) {
    const auto end = Clock::now() + options.patience;
    while (true) {
      auto failed = fresh->connect();
      if (!failed || failed->code() != Errc::not_connected || Clock::now() >= end) return failed;
      std::this_thread::sleep_for(kAgain);
    }
  }

  void note_loss(bool open) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ++losses_;
      changed_.notify_all();
    }
    if (open && on_closed) on_closed();
  }

  std::shared_ptr<Connection> current() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return connection_;
  }

  // Reduces the limit by the time of the wait.
  std::shared_ptr<Connection> await_connection(Limit& limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!how_ || !how_->calls_wait || (connection_ && connection_->is_connected())) {
      return connection_;
    }
    const auto begun = Clock::now();
    const auto ready = [&] { return closed_ || (connection_ && connection_->is_connected()); };
    if (limit.endless()) {
      changed_.wait(lock, ready);
      return connection_;
    }
    changed_.wait_until(lock, begun + limit.asked, ready);
    limit.asked -= std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun);
    return connection_;
  }

  // Runs until the client is closed.
  void reconnect() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!closed_) {
      changed_.wait(lock, [&] { return closed_ || lost(); });
      if (closed_) return;
      lock.unlock();
      tell(false);
      auto fresh = connect_again();
      lock.lock();
      if (!fresh || closed_) {
        lock.unlock();  // the destructor of `fresh` waits for its loop, which may need the lock
        return;
      }
      std::swap(connection_, fresh);
      changed_.notify_all();
      lock.unlock();
      fresh.reset();  // frees the lost connection, unless a call still uses it
      tell(true);
      lock.lock();
    }
  }

  void tell(bool connected) const {
    try {
      if (how_->changed) how_->changed(connected);
    } catch (...) {  // no caller on this thread could handle it
    }
  }

  bool lost() const { return connection_ && !connection_->is_connected(); }

  // Returns null when the client is closed meanwhile.
  std::shared_ptr<Connection> connect_again() {
    std::shared_ptr<Connection> fresh;
    auto pause = how_->first;
    while (true) {
      if (try_again(fresh)) return fresh;
      std::unique_lock<std::mutex> lock(mutex_);
      if (changed_.wait_for(lock, pause, [&] { return closed_.load(); })) return nullptr;
      pause = std::min(pause * 2, how_->most);
    }
  }

  // Memory may be available at a later attempt.
  bool try_again(std::shared_ptr<Connection>& fresh) {
    try {
      if (!fresh || !fresh->may_try_again()) fresh = new_connection();
      return !fresh->connect();
    } catch (const std::exception&) {
      return false;
    }
  }

  std::string address_text() const { return where_ ? where_->text() : std::string(); }

  Error unconnected(const std::string& method) const {
    if (closed_) return client_closed(method, address());
    return {Errc::not_connected, method, address(), "not connected yet",
            "connect the client before it calls"};
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Address> where_;
  std::shared_ptr<Connection> connection_;
  std::weak_ptr<Connection> coming_;  // the newest connection, which may still be connecting
  std::optional<Reconnect> how_;
  std::thread reconnector_;
  int losses_ = 0;
  std::atomic<bool> closed_{false};
};

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
