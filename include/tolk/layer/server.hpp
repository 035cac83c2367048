/// @file
/// A server: its methods, its clients, and calls to clients.
#pragma once

#include <tolk/layer/server_core.hpp>

namespace tolk {
inline namespace v1 {

/// A server. It listens from `listen` until it is closed or destroyed.
/// @code
/// tolk::Server server;
/// server.on("add", [](int a, int b) { return a + b; });
/// server.listen(tolk::pipe{5000});
/// server.wait();
/// @endcode
///
/// Thread: every operation is safe on any thread; set hooks, `on_any` and `log` before `listen`.
/// Handlers run concurrently on the four workers of the process, so they must be thread-safe; a
/// handler that waits occupies a worker. Hooks run on the loop thread and must be short. A hook may
/// close or destroy the server only if no call to a client is under way, because the call would
/// wait for this thread.
///
/// Owner: the server owns its handlers. `close` and the destructor wait for running handlers, hooks
/// and log sinks, except when one of them is the caller. None runs afterwards.
///
/// Failure: `listen`, `wait` and `on` throw tolk::Error. Calls return a Result.
class Server {
 public:
  /// A server that does not listen. It uses `limit` and `quiet` of the options.
  explicit Server(const Options& options = {})
      : core_(std::make_shared<detail::ServerCore>(options)) {}
  /// A moved-from server can only be destroyed or assigned to.
  Server(Server&&) noexcept = default;
  /// Exchanges the two servers.
  Server& operator=(Server&& other) noexcept {
    std::swap(core_, other.core_);
    return *this;
  }
  /// Closes the server.
  ~Server() { close(); }

  /// Registers a method. Its parameter and result types are deduced from the handler. codec.hpp
  /// lists the types; a handler may also take Caller, tolk::named and tolk::Values. The caller gets
  /// the return value, or an error with the text of the exception. `about` is a description for
  /// Client::describe. Throws Errc::misuse for a second handler of a name.
  template <class Handler>
  Server& on(std::string_view method, Handler handler, std::string about = {}) {
    core_->add(detail::make_method(method, std::move(handler), std::move(about)));
    return *this;
  }

  /// Sets the handler for all names without a handler. It gets the caller, whose `method()` is the
  /// name, and the arguments, and returns the result. A caller without this layer finds an
  /// additional last value "no event: NAME".
  Server& on_any(std::function<Values(const Caller&, const Values&)> handler) {
    core_->side->catch_all = [handler = std::move(handler)](const detail::Invocation& call) {
      const Caller caller(call.caller_id, call.method, call.back);
      handler(caller, Values::of(call.in)).put(call.out);
    };
    return *this;
  }
  /// Sets the hook for new clients. It gets the client's id, before the client can be called.
  Server& on_connect(std::function<void(int client)> hook) {
    core_->on_connect = std::move(hook);
    return *this;
  }
  /// Sets the hook for ended connections. It gets the client's id.
  Server& on_closed(std::function<void(int client)> hook) {
    core_->on_closed = std::move(hook);
    return *this;
  }
  /// Sets the hook for received pieces of large data (Client::send). It may cancel, or throw an
  /// exception, whose text the sender gets.
  Server& on_receiving(std::function<void(const Caller&, Progress)> hook) {
    core_->side->receiving = std::move(hook);
    return *this;
  }
  /// Sets the log sink. It gets the lines of the listening server with their line ends: connects,
  /// disconnects, failed handlers. Without a sink these lines are dropped. The lines of a close go
  /// to standard output, unless the server is quiet. The sink runs on the thread that logs, several
  /// at a time. It must be short and must not use the server.
  Server& log(std::function<void(std::string_view line)> sink) {
    core_->side->log = std::move(sink);
    return *this;
  }

  /// Starts to listen and returns. Throws tolk::Error (Errc::cannot_listen) with the reason.
  void listen(const Address& where) { core_->listen(where); }
  /// Ends all connections and stops listening. It first waits for outgoing calls to clients, up to
  /// their timeouts. After a client has stopped the server, it does not wait for them, because
  /// nothing checks their timeouts; they return when another server of the process makes calls. A
  /// closed server cannot listen again.
  void close() {
    if (const auto core = core_) core->close();
  }
  /// Returns whether the server listens. Any client may ask a server to close.
  bool listening() const { return core_->listening(); }
  /// Waits until another thread or a client closes the server. Throws Errc::misuse if the server
  /// never listened.
  void wait() { core_->wait(); }
  /// Returns the text form of the address; empty before `listen`.
  std::string address() const { return core_->address(); }

  /// Returns the ids of the connected clients; none after a close.
  std::vector<int> clients() const { return core_->clients.ids(); }
  /// Returns the methods of this server.
  std::vector<MethodInfo> methods() const { return core_->side->infos(); }

  /// Calls a method of a client and waits for the result, like Client::call. A client without this
  /// layer does not answer for an unknown method, which is Errc::timed_out. The end of the
  /// connection is noticed at the timeout.
  template <class T = void, class... Args>
  Result<T> call(int client, std::string_view method, const Args&... args) {
    const auto core = core_;
    return detail::call<T>(*core, client, method, args...);
  }
  /// Posts a call to a client, like Client::post.
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
