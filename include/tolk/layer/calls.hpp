/// @file
/// The ways to call a peer: wait for the result, get a future, or await it in a coroutine.
#pragma once

#include <coroutine>
#include <future>
#include <tolk/layer/transfer.hpp>

namespace tolk {
inline namespace v1 {
/// @cond internal
namespace detail {
template <class T>
Result<T> result_of(const tolk_block* block, std::string_view method, const Core& core) {
  if constexpr (std::is_void_v<T>) {
    return {};
  } else {
    if constexpr (!std::same_as<T, Values>) static_assert(is_owned<T>());
    T value{};
    std::string why;
    if (get_result<T>(From::position(block, 0, &why), value)) return value;
    return Error(Errc::wrong_type, method, core.address(), "wrong result type" + why);
  }
}

template <class T>
class ResultCall final : public Pending {
 public:
  Function<void()> done;

  void finish(const tolk_block* block, const Error* error, const Core* core) override {
    try {
      result_.emplace(error != nullptr ? Result<T>(*error) : result_of<T>(block, method, *core));
    } catch (...) {
      thrown_ = std::current_exception();
    }
    done();
  }
  Result<T> take() {
    if (thrown_) std::rethrow_exception(thrown_);
    return *std::move(result_);
  }

 private:
  std::optional<Result<T>> result_;
  std::exception_ptr thrown_;
};

// Who is called. Without a core this end is gone.
struct Callee {
  std::shared_ptr<Core> core;
  ClientId id = 0;
};
}  // namespace detail
/// @endcond

/// A call that a coroutine awaits: `co_await client.call_async<int>("add", 2, 3)` gives a
/// Result<int>. The call starts then. The coroutine resumes on a worker or Options::executor.
template <class T>
class [[nodiscard]] AsyncCall {
 public:
  /// @cond internal
  AsyncCall(std::shared_ptr<detail::Core> core, std::shared_ptr<detail::ResultCall<T>> call)
      : core_(std::move(core)), call_(std::move(call)) {}

  bool await_ready() const noexcept { return false; }
  // From the start on, this object may be gone: the coroutine may run on another thread.
  void await_suspend(std::coroutine_handle<> waiting) {
    const auto core = core_;
    const auto call = call_;
    call->done = [waiting] { waiting.resume(); };
    detail::Core::start(core, call);
  }
  Result<T> await_resume() { return call_->take(); }
  /// @endcond

 private:
  std::shared_ptr<detail::Core> core_;
  std::shared_ptr<detail::ResultCall<T>> call_;
};

/// The calls of a Client, of a Caller, and of a Server, where each function takes the ClientId of
/// the called client first: `server.call<int>(id, "add", 2, 3)`.
///
/// Thread: any. Failure: calls return a Result.
template <class Self, class... Who>
class Calls {
 public:
  /// Calls a method and waits for its result: a `T`, a tuple for several, tolk::Values for all.
  ///
  /// `args` are the arguments of the method; tolk::arg makes a keyed one. The last ones may be a
  /// duration, which is the limit (otherwise Options::limit; tolk::forever means none), and an
  /// std::stop_token, which cancels the call. A duration before another one is an argument.
  template <class T = void, class... Args>
  Result<T> call(Who... client, std::string_view method, const Args&... args) const {
    const detail::Callee to = callee(client...);
    return run<T>(to, outgoing(to, method, args...));
  }
  /// Starts a call. The future gives its result or throws its Error. Its destructor does not wait.
  template <class T = void, class... Args>
  std::future<T> async(Who... client, std::string_view method, const Args&... args) const {
    const detail::Callee to = callee(client...);
    const auto call = pending<T>(to, method, args...);
    const auto promise = std::make_shared<std::promise<T>>();
    std::future<T> future = promise->get_future();
    call->is_inline = true;
    call->done = [promise, ended = call.get()] {
      try {
        if constexpr (std::is_void_v<T>) {
          ended->take().value();
          promise->set_value();
        } else {
          promise->set_value(ended->take().value());
        }
      } catch (...) {
        promise->set_exception(std::current_exception());
      }
    };
    detail::Core::start(to.core, call);
    return future;
  }
  /// A call for coroutines: see AsyncCall.
  template <class T = void, class... Args>
  AsyncCall<T> call_async(Who... client, std::string_view method, const Args&... args) const {
    const detail::Callee to = callee(client...);
    return {to.core, pending<T>(to, method, args...)};
  }
  /// Posts a call, which has no result and no limit. Returns when the call is queued; calls and
  /// posts of one thread arrive in order. Nothing reports whether the method ran.
  template <class... Args>
  Result<void> post(Who... client, std::string_view method, const Args&... args) const {
    static_assert(detail::count_limits<Args...>() == 0,
                  "tolk: a posted call waits for nothing: it has no limit. To send a duration as "
                  "the last argument, make it a keyed one: tolk::arg");
    const detail::Callee to = callee(client...);
    return detail::Core::post(to.core, outgoing(to, method, args...));
  }

  /// Calls a method with large data beside the arguments: bytes, a text, or a tolk::Source such as
  /// a file. The handler has them as its first argument, or where Endpoint::on_data puts them.
  ///
  /// `progress` runs where handlers run, at first, and as the peer confirms pieces; it may cancel.
  /// An exception of it cancels too, and comes out of here. The limit, last among `args`, is for
  /// each piece and for the run of the method. A peer without pieces gets the data in one call.
  template <class T = void, class Data, class... Args>
  Result<T> send(Who... client, std::string_view method, Data&& data,
                 const Function<void(Progress)>& progress = nullptr, const Args&... args) const {
    const detail::Callee to = callee(client...);
    const detail::Outgoing out = outgoing(to, method, args...);  // which may throw
    if constexpr (std::same_as<std::remove_cvref_t<Data>, Source>) {
      return transfer<T>(to, out, data.release(), nullptr, progress);
    } else {
      detail::Lent lent(detail::view_of(data));
      return transfer<T>(to, out, lent.source().release(), nullptr, progress);
    }
  }
  /// Calls a method whose answer has large data: they go into a tolk::Sink, such as a file. Without
  /// a sink, `call<tolk::bytes>` has them as its first result.
  template <class T = void, class... Args>
  Result<T> fetch(Who... client, std::string_view method, Sink sink,
                  const Function<void(Progress)>& progress = nullptr, const Args&... args) const {
    const detail::Callee to = callee(client...);
    const detail::Outgoing out = outgoing(to, method, args...);  // which may throw
    return transfer<T>(to, out, nullptr, sink.release(), progress);
  }

  /// Returns the methods of the peer. One without "tolk.describe" is Errc::no_such_method.
  Result<std::vector<MethodInfo>> describe(Who... client) const {
    using Column = std::vector<std::string>;
    const auto columns = call<std::tuple<Column, Column, Column>>(client..., "tolk.describe");
    if (!columns) return columns.error();
    const auto& [names, signatures, abouts] = *columns;
    const auto at = [](const Column& all, std::size_t i) { return i < all.size() ? all[i] : ""; };
    std::vector<MethodInfo> all;
    for (std::size_t i = 0; i < names.size(); ++i) {
      all.push_back({names[i], at(signatures, i), at(abouts, i)});
    }
    return all;
  }

 private:
  detail::Callee callee(Who... client) const {
    return static_cast<const Self*>(this)->callee(client...);
  }

  template <class... Args>
  static detail::Outgoing outgoing(const detail::Callee& to, std::string_view method,
                                   const Args&... args) {
    detail::Outgoing out{to.id, std::string(method), {}, {}};
    if (to.core) out.limits.limit = to.core->options.limit;
    detail::take_arguments(out.arguments, out.limits, args...);
    return out;
  }
  template <class T, class... Args>
  static std::shared_ptr<detail::ResultCall<T>> pending(const detail::Callee& to,
                                                        std::string_view method,
                                                        const Args&... args) {
    auto call = std::make_shared<detail::ResultCall<T>>();
    static_cast<detail::Outgoing&>(*call) = outgoing(to, method, args...);
    return call;
  }

  template <class T>
  static Result<T> run(const detail::Callee& to, const detail::Outgoing& out, tolk_call more = {}) {
    const Result<detail::Block> result = detail::Core::call(to.core, out, more);
    if (!result) return result.error();
    return detail::result_of<T>(result->get(), out.method, *to.core);
  }
  // Takes the source and the sink.
  template <class T>
  static Result<T> transfer(const detail::Callee& to, const detail::Outgoing& out,
                            tolk_source* source, tolk_sink* sink,
                            const Function<void(Progress)>& progress) {
    detail::Reporting reporting(to.core.get(), progress);
    tolk_call more{};
    more.source = source;
    more.sink = sink;
    more.progress = detail::Reporting::run;
    more.context = &reporting;
    more.piece_limit_ms = out.limits.ms();
    auto result = run<T>(to, out, more);
    reporting.rethrow();
    return result;
  }
};

}  // namespace v1
}  // namespace tolk
