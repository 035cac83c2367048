/// @file
/// A server: methods, clients, and calls to them.
#pragma once

#include <tolk/layer/server_core.hpp>

namespace tolk {
inline namespace v1 {

/// A server of methods. It listens from `listen` until it is closed or destroyed.
/// @code
/// tolk::Server server;
/// server.on("add", [](int a, int b) { return a + b; });
/// server.listen(tolk::pipe{5000});
/// server.wait();
/// @endcode
///
/// Thread: any operation from any thread; hooks, `on_any` and `log` come before `listen`. Handlers
/// run on the library's four workers, several at a time, so they must be thread-safe; one that
/// waits keeps a worker busy. Hooks run on the loop thread and must be short; one may close or
/// destroy the server only while no call to a client is under way, which would wait for this
/// thread. Owner: the server holds its handlers. When `close` or the destructor has returned, no
/// handler, hook or log line runs any more: it waits for those that do (not when it is called in
/// one itself). Failure: `listen`, `wait` and `on` throw tolk::Error; calls give a Result.
class Server {
 public:
  /// A server that does not listen yet. Of `options`, the limit and `quiet` are used.
  explicit Server(const Options& options = {})
      : core_(std::make_shared<detail::ServerCore>(options)) {}
  /// One that was moved from can be destroyed or assigned to, and nothing else.
  Server(Server&&) noexcept = default;
  /// Exchanges the two: what this one was ends with `other`.
  Server& operator=(Server&& other) noexcept {
    std::swap(core_, other.core_);
    return *this;
  }
  /// Closes the server.
  ~Server() { close(); }

  /// Registers a method. What it takes and gives is found from the handler's types: values that
  /// travel (see codec.hpp), and besides them Caller, tolk::named and tolk::Values. What it
  /// returns is the result; what it throws becomes an error at the caller, with its text.
  /// `about` is for people who ask what there is. A second handler of a name is Errc::misuse.
  template <class Handler>
  Server& on(std::string_view method, Handler handler, std::string about = {}) {
    core_->add(detail::make_method(method, std::move(handler), std::move(about)));
    return *this;
  }

  /// Takes the calls of all names that have no handler. It is given the caller (whose `method()`
  /// tells the name) and the arguments, and returns the result. A caller without this layer finds
  /// a last value "no event: NAME" behind it.
  Server& on_any(std::function<Values(const Caller&, const Values&)> handler) {
    core_->side->catch_all = [handler = std::move(handler)](const detail::Invocation& call) {
      const Caller caller(call.caller_id, call.method, call.back);
      handler(caller, Values::of(call.in)).put(call.out);
    };
    return *this;
  }
  /// Called with the id of each client that comes, before it can be called.
  Server& on_connect(std::function<void(int client)> hook) {
    core_->on_connect = std::move(hook);
    return *this;
  }
  /// Called with the id of each client that has gone.
  Server& on_closed(std::function<void(int client)> hook) {
    core_->on_closed = std::move(hook);
    return *this;
  }
  /// Called for each piece of large data that comes in (Client::send). It may cancel, or throw: the
  /// sender gets the exception's text, as of a handler.
  Server& on_receiving(std::function<void(const Caller&, Progress)> hook) {
    core_->side->receiving = std::move(hook);
    return *this;
  }
  /// Takes the lines that the server writes while it listens, with their line ends: connections
  /// that come and go, failures of handlers. Without it they are dropped. Those that it writes
  /// while it closes come to standard output, unless it is quiet. Lines come on whichever thread
  /// writes them, several at a time. It must be short, and not use the server.
  Server& log(std::function<void(std::string_view line)> sink) {
    core_->side->log = std::move(sink);
    return *this;
  }

  /// Starts to listen, and returns. Throws tolk::Error: Errc::cannot_listen with what was wrong.
  void listen(const Address& where) { core_->listen(where); }
  /// Stops listening and ends all connections. Calls to clients that are under way are waited for;
  /// they end by their limits. But when a client has stopped the server, nothing looks after their
  /// limits: they are not waited for, and return only when another server of the process makes
  /// calls. A closed server can't listen again.
  void close() {
    if (const auto core = core_) core->close();
  }
  /// Whether it listens. A client can end that: any client may ask a server to close.
  bool listening() const { return core_->listening(); }
  /// Waits until the server is closed, by another thread or by a client. Throws Errc::misuse when
  /// it never listened.
  void wait() { core_->wait(); }
  /// Where it listens, as text; empty before it does.
  std::string address() const { return core_->address(); }

  /// The ids of the clients that are connected; none once the server is closed.
  std::vector<int> clients() const { return core_->clients.ids(); }
  /// Its own methods.
  std::vector<MethodInfo> methods() const { return core_->side->infos(); }

  /// Calls a method of a client and waits for the result, as Client::call.
  /// A client that does not have the method and does not use this layer does not answer at all:
  /// that is a time-out. A connection that ends meanwhile is noticed at the limit.
  template <class T = void, class... Args>
  Result<T> call(int client, std::string_view method, const Args&... args) {
    const auto core = core_;
    return detail::call<T>(*core, client, method, args...);
  }
  /// Calls a method of a client without waiting, as Client::post.
  template <class... Args>
  Result<void> post(int client, std::string_view method, const Args&... args) {
    const auto core = core_;
    return detail::post(*core, client, method, args...);
  }

 private:
  std::shared_ptr<detail::ServerCore> core_;
};

}  // namespace v1
}  // namespace tolk
