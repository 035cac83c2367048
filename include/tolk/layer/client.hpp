/// @file
/// A client: one connection to a server, with calls in both directions.
#pragma once

#include <future>
#include <tolk/layer/client_core.hpp>

namespace tolk {
inline namespace v1 {

/// A connection to a server.
/// @code
/// tolk::Client client = tolk::connect("pipe:5000");
/// int sum = client.call<int>("add", 2, 3, 500ms).value();
/// @endcode
///
/// Thread: every operation is safe on any thread. Calls of different threads run concurrently and
/// get separate results. Handlers run on the library's worker threads, as on a server. Owner:
/// results are copies. The destructor ends the connection and waits for running handlers, except
/// when a handler calls it. It takes 300 ms, during which posted calls are still sent. Failure:
/// `connect` and `on` throw tolk::Error. Calls return a Result.
class Client {
 public:
  /// A client that is not connected. Use it to call `on` before `connect`, because the server may
  /// call at once.
  explicit Client(const Options& options = {})
      : core_(std::make_shared<detail::ClientCore>(options)) {}
  /// A moved-from client can only be destroyed or assigned to.
  Client(Client&&) noexcept = default;
  /// Exchanges the two clients.
  Client& operator=(Client&& other) noexcept {
    std::swap(core_, other.core_);
    return *this;
  }
  /// Ends the connection.
  ~Client() { close(); }

  /// Connects and checks the server's version. Throws tolk::Error: Errc::not_connected,
  /// Errc::refused_version, Errc::timed_out (the version check took 10 s) or Errc::gone. A client
  /// connects once.
  void connect(const Address& where) { core_->connect(where); }

  /// Makes the client connect again after a lost connection, on a thread of the client, with
  /// growing pauses. It registers the methods again. Calls that were under way fail with
  /// Errc::gone; the client does not repeat them.
  void reconnecting(Reconnect how = {}) { core_->reconnecting(std::move(how)); }

  /// Ends the connection, as the destructor does. Calls that are under way fail.
  void close() {
    if (const auto core = core_) core->close();
  }
  /// Returns whether the client is connected.
  bool connected() const { return core_->is_connected(); }
  /// Returns the text form of the server's address; empty before `connect`.
  std::string address() const { return core_->address(); }

  /// Registers a method that the server can call, like Server::on. The client may be connected.
  template <class Handler>
  Client& on(std::string_view method, Handler handler, std::string about = {}) {
    core_->add(detail::make_method(method, std::move(handler), std::move(about)));
    return *this;
  }
  /// Sets the hook for a lost connection; set it before `connect`. It runs on the loop thread, must
  /// be short, and must make no calls. It may close or destroy the client, unless the client
  /// reconnects or has calls of `async` under way, which would wait for this thread.
  Client& on_closed(std::function<void()> hook) {
    core_->on_closed = std::move(hook);
    return *this;
  }

  /// Calls a method and waits for its result.
  ///
  /// `args` are the arguments of the method; tolk::arg makes a keyed one. A duration as the last
  /// argument is the timeout, which otherwise is Options::limit; tolk::forever means none. The
  /// library checks timeouts every 100 ms. A call never ends before its timeout, and at most two
  /// checks after it.
  template <class T = void, class... Args>
  Result<T> call(std::string_view method, const Args&... args) {
    const auto core = core_;
    return detail::call<T>(*core, 0, method, args...);
  }

  /// Calls a method and returns a future for the result, whose `get` throws tolk::Error.
  ///
  /// The arguments are encoded at once. A thread of the client makes the call
  /// (Options::async_threads, started when needed). The timeout includes the time in the queue; a
  /// call that times out there is not made. The destructor of the future does not wait.
  template <class T = void, class... Args>
  std::future<T> async(std::string_view method, const Args&... args) {
    const auto core = core_;
    const detail::Limit limit = detail::limit_of(core->usual_limit(), args...);
    auto arguments = std::make_shared<TolkParams>();
    detail::put_arguments(*arguments, args...);
    const auto promise = std::make_shared<std::promise<T>>();
    std::future<T> future = promise->get_future();
    const auto begun = std::chrono::steady_clock::now();
    // The workers must not own the core, because its last owner joins them.
    core->workers.add([=, self = core.get(), name = std::string(method)](bool wanted) {
      fulfil<T>(*promise, [&]() -> Result<T> {
        if (wanted) return made<T>(*self, name, *arguments, limit, begun);
        return detail::client_closed(name, self->address());
      });
    });
    return future;
  }

  /// Calls a method without waiting for an answer. Returns when the call is on its way. The Result
  /// says only whether there was a connection; nothing reports whether the method ran.
  template <class... Args>
  Result<void> post(std::string_view method, const Args&... args) {
    const auto core = core_;
    return detail::post(*core, 0, method, args...);
  }

  /// Calls a method with a large first argument, which is sent in pieces. `progress` runs on this
  /// thread before the first piece and after each piece, and may cancel. The method runs once, with
  /// `data` as its first argument, followed by `args`.
  ///
  /// The timeout, last among `args`, applies to each piece and to the run of the method. A server
  /// without this layer, and a catch-all handler (Server::on_any), get the data in one call;
  /// progress then is 0 and the total.
  template <class T = void, class... Args>
  Result<T> send(std::string_view method, std::span<const std::byte> data,
                 const std::function<void(Progress)>& progress, const Args&... args) {
    const std::string_view chars = detail::chars(data.data(), data.size());
    const auto core = core_;
    detail::Sending sending(*core, 0, method, chars,
                            detail::limit_of(core->usual_limit(), args...));
    return sending.run<T>([&](TolkParams& block) { detail::put_arguments(block, args...); },
                          [&](Progress now) {
                            if (progress) progress(now);
                          });
  }
  /// The same with unsigned characters.
  template <class T = void, class... Args>
  Result<T> send(std::string_view method, std::span<const unsigned char> data,
                 const std::function<void(Progress)>& progress, const Args&... args) {
    return send<T>(method, std::as_bytes(data), progress, args...);
  }
  /// The same with the bytes of a string.
  template <class T = void, class... Args>
  Result<T> send(std::string_view method, std::string_view data,
                 const std::function<void(Progress)>& progress, const Args&... args) {
    return send<T>(method, std::as_bytes(std::span(data)), progress, args...);
  }
  /// The same without progress and further arguments. With arguments, pass nullptr as `progress`.
  template <class T = void, class Data>
  Result<T> send(std::string_view method, const Data& data) {
    return send<T>(method, data, nullptr);
  }

  /// Returns the methods of a server that uses this layer. Another server has no method
  /// "tolk.describe", which is Errc::no_such_method.
  Result<std::vector<MethodInfo>> describe() {
    using Column = std::vector<std::string>;
    auto columns = call<std::tuple<Column, Column, Column>>(detail::kMethodDescribe);
    if (!columns) return columns.error();
    const auto& [names, signatures, abouts] = *columns;
    std::vector<MethodInfo> all(names.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
      all[i].name = names[i];
      if (i < signatures.size()) all[i].signature = signatures[i];
      if (i < abouts.size()) all[i].about = abouts[i];
    }
    return all;
  }

 private:
  template <class T>
  static Result<T> made(detail::ClientCore& core, const std::string& name, TolkParams& arguments,
                        detail::Limit limit, std::chrono::steady_clock::time_point begun) {
    if (!limit.endless()) {
      const auto waited = std::chrono::steady_clock::now() - begun;
      limit.asked -= std::chrono::duration_cast<std::chrono::milliseconds>(waited);
      if (limit.asked.count() <= 0) {
        return Error(Errc::timed_out, name, core.address(), "timed out in line, and was not made");
      }
    }
    return detail::exchange<T>(core, 0, name, &arguments, limit);
  }

  // Always sets the promise, also when `make` throws or there is no memory for the result.
  template <class T, class Make>
  static void fulfil(std::promise<T>& promise, const Make& make) {
    try {
      Result<T> result = make();
      if constexpr (std::is_void_v<T>) {
        result.value();
        promise.set_value();
      } else {
        promise.set_value(std::move(result).value());
      }
    } catch (...) {
      promise.set_exception(std::current_exception());
    }
  }

  std::shared_ptr<detail::ClientCore> core_;
};

/// Returns a client that is connected to the server at `where`, which may be text: `"pipe:5000"`.
/// Throws tolk::Error like Client::connect, and Errc::bad_address.
inline Client connect(const Address& where, const Options& options = {}) {
  Client client(options);
  client.connect(where);
  return client;
}

}  // namespace v1
}  // namespace tolk
