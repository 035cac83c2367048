/// @file
/// A client: one connection to a server, and calls in both directions.
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
/// Thread: any operation from any thread; calls of different threads run side by side, and none
/// shares a result with another. Handlers run on the library's workers, as a server's do.
/// Owner: results are copies. The destructor ends the connection and waits for handlers that run
/// (not when it is called in one); it takes a third of a second, in which what was posted last gets
/// out.
/// Failure: `connect` and `on` throw tolk::Error; calls give a Result that says why.
class Client {
 public:
  /// A client that is not connected yet: for `on` before `connect`, when the server may call at
  /// once.
  explicit Client(const Options& options = {})
      : core_(std::make_shared<detail::ClientCore>(options)) {}
  /// One that was moved from can be destroyed or assigned to, and nothing else.
  Client(Client&&) noexcept = default;
  /// Exchanges the two: what this one was ends with `other`.
  Client& operator=(Client&& other) noexcept {
    std::swap(core_, other.core_);
    return *this;
  }
  /// Ends the connection.
  ~Client() { close(); }

  /// Connects, and checks that the server is of the same version. Throws tolk::Error:
  /// Errc::not_connected, Errc::refused_version, Errc::timed_out (of the version check, 10 s) or
  /// Errc::gone. A client connects once.
  void connect(const Address& where) { core_->connect(where); }

  /// From now on a lost connection is made anew, by a new object of the library's on a thread of
  /// the client's, with pauses that grow. Methods are registered again. Calls that were under way
  /// fail with Errc::gone; none is made twice.
  void reconnecting(Reconnect how = {}) { core_->reconnecting(std::move(how)); }

  /// Ends the connection, as the destructor does. Calls under way fail.
  void close() {
    if (const auto core = core_) core->close();
  }
  /// Whether the server is there.
  bool connected() const { return core_->is_connected(); }
  /// Where the server is, as text; empty before `connect`.
  std::string address() const { return core_->address(); }

  /// Registers a method that the server can call. As Server::on; also while connected.
  template <class Handler>
  Client& on(std::string_view method, Handler handler, std::string about = {}) {
    core_->add(detail::make_method(method, std::move(handler), std::move(about)));
    return *this;
  }
  /// Called when the server has gone, on the loop thread: it must be short, and make no calls. Set
  /// it before `connect`. It may close or destroy the client, but not one that reconnects or has
  /// calls of `async` under way: those would wait for this thread.
  Client& on_closed(std::function<void()> hook) {
    core_->on_closed = std::move(hook);
    return *this;
  }

  /// Calls a method and waits for its result.
  ///
  /// `args` are what the method takes, keyed ones (tolk::arg) among them; a duration as the last
  /// one is the limit of time, otherwise Options::limit counts. tolk::forever is no limit. The
  /// library looks after limits every 100 ms: a call never ends before its limit, but up to two
  /// steps later.
  template <class T = void, class... Args>
  Result<T> call(std::string_view method, const Args&... args) {
    const auto core = core_;
    return detail::call<T>(*core, 0, method, args...);
  }

  /// Calls a method and does not wait. The future gives the result, or throws tolk::Error.
  ///
  /// Arguments are taken at once. The call itself is made by one of the client's own threads
  /// (Options::async_threads, made when needed); the limit counts from here, so a call that has
  /// waited in line for too long is not made. A future that is dropped waits for nothing.
  template <class T = void, class... Args>
  std::future<T> async(std::string_view method, const Args&... args) {
    const auto core = core_;
    const detail::Limit limit = detail::limit_of(core->usual_limit(), args...);
    auto arguments = std::make_shared<TolkParams>();
    detail::put_arguments(*arguments, args...);
    const auto promise = std::make_shared<std::promise<T>>();
    std::future<T> future = promise->get_future();
    const auto begun = std::chrono::steady_clock::now();
    // The core's own threads do not own it: the last owner joins them.
    core->workers.add([=, self = core.get(), name = std::string(method)](bool wanted) {
      fulfil<T>(*promise, [&]() -> Result<T> {
        if (wanted) return made<T>(*self, name, *arguments, limit, begun);
        return detail::client_closed(name, self->address());
      });
    });
    return future;
  }

  /// Calls a method without waiting for an answer: it is on its way when this returns. Whether the
  /// method ran is not told; the Result says only whether there was a connection.
  template <class... Args>
  Result<void> post(std::string_view method, const Args&... args) {
    const auto core = core_;
    return detail::post(*core, 0, method, args...);
  }

  /// Calls a method whose first argument is large, in pieces: `progress` is called before the first
  /// one and after each, on this thread, and may cancel. The method is called once, with `data` as
  /// its first argument and `args` behind it.
  ///
  /// The limit, last among `args`, counts for each piece, and for the run of the method. A server
  /// without this layer, and a catch-all (Server::on_any), get everything in one call: progress is
  /// 0 and then all.
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
  /// The same with bytes of the other kind that travels.
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
  /// The same without progress. With further arguments, pass nullptr as `progress` above.
  template <class T = void, class Data>
  Result<T> send(std::string_view method, const Data& data) {
    return send<T>(method, data, nullptr);
  }

  /// The methods that the server has, if it is made with this layer. One that is not has no such
  /// method as "tolk.describe": Errc::no_such_method.
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

  // Also when `make` throws or there is no memory for the result: the promise is always kept.
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

/// A client that is connected to the server at `where`, which may be text: `"pipe:5000"`.
/// Throws tolk::Error as Client::connect does, and Errc::bad_address.
inline Client connect(const Address& where, const Options& options = {}) {
  Client client(options);
  client.connect(where);
  return client;
}

}  // namespace v1
}  // namespace tolk
