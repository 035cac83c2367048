/// @file
/// A call of a peer: who made it, and the answer to it, which may come later or from a coroutine.
#pragma once

#include <tolk/layer/calls.hpp>

namespace tolk {
inline namespace v1 {
/// @cond internal
namespace detail {
// A request of the C interface until its answer.
// Thread: any. Owner: the handler, or whoever answers later; the caller learns if all drop it.
class Request {
 public:
  // Without `owned` its handler has not begun.
  Request(std::shared_ptr<Core> core, const tolk_request* known, tolk_request* owned)
      : core_(std::move(core)), request_(owned), known_(known) {}
  ~Request() { tolk_request_free(request_); }

  // Valid until the answer.
  const tolk_request* get() const { return known_; }

  void answer(Block result) {
    if (tolk_request* const taken = take()) tolk_request_answer(taken, result.release());
  }
  void answer(Block result, Source data) {
    if (tolk_request* const taken = take()) {
      tolk_request_answer_data(taken, result.release(), data.release());
    }
  }
  void fail(tolk_status status, const std::string& text, int number = 0, Block details = {}) {
    tolk_request* const taken = take();
    if (taken == nullptr) return;
    core_->tell_failure("handler error: " + (tolk_request_method(taken) + (": " + text)), [&] {
      tolk_request_fail(taken, status, number, text.c_str(), details.release());
    });
  }
  void fail(const Error& error) {
    Block details;
    if (!(error.details() == Values())) {
      details = new_block();
      Positions to(details.get());
      put_argument(to, error.details());
    }
    fail(TOLK_FAILED, error.text_for_caller(), error.number(), std::move(details));
  }
  std::chrono::milliseconds limit_left() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int left = request_ == nullptr ? TOLK_FOREVER : tolk_request_limit_left(request_);
    return left == TOLK_FOREVER ? forever : std::chrono::milliseconds(left);
  }
  bool is_wanted() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return request_ != nullptr && tolk_request_state(request_) == TOLK_OK;
  }

 private:
  tolk_request* take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(request_, nullptr);
  }

  const std::shared_ptr<Core> core_;
  mutable std::mutex mutex_;
  tolk_request* request_ = nullptr;
  const tolk_request* const known_;
};
}  // namespace detail
/// @endcond

/// The caller of a handler: an extra parameter in any position, which the caller does not pass.
///
/// Thread: a value; every operation is safe on any thread. A handler may keep it after it returns.
/// Failure: calls fail with Errc::not_connected when this end is gone.
class Caller : public Calls<Caller> {
 public:
  /// @cond internal
  Caller() = default;
  Caller(const std::shared_ptr<detail::Core>& core, const std::shared_ptr<detail::Request>& request)
      : method_(tolk_request_method(request->get())), core_(core), request_(request) {
    number_ = reinterpret_cast<std::uintptr_t>(request->get());
    const tolk_peer* const peer = tolk_request_peer(request->get());
    id_ = peer->client;
    address_ = peer->address;
    user_ = peer->user;
    process_ = peer->process;
  }
  /// @endcond

  /// On a server, the client's id for Server::call. On a client 0.
  ClientId id() const noexcept { return id_; }
  /// A number of this call alone. Both functions of Endpoint::on_data see the same one.
  std::uintptr_t number() const noexcept { return number_; }
  /// The name of the called method.
  const std::string& method() const noexcept { return method_; }
  /// The address of the caller.
  const std::string& address() const noexcept { return address_; }
  /// On a local pipe the number of the caller's user, on Windows the SID; otherwise empty.
  const std::string& user() const noexcept { return user_; }
  /// On a local pipe the caller's process id; otherwise, or if it is unknown, 0.
  std::int64_t process() const noexcept { return process_; }

  /// Returns how long the caller still waits, at least 1 ms, or tolk::forever if it does not say.
  std::chrono::milliseconds limit_left() const {
    const auto request = request_.lock();
    return request ? request->limit_left() : forever;
  }
  /// Returns whether nobody waits for the answer any more: the caller has cancelled the call, its
  /// limit has passed, it is gone, or the answer is given.
  bool cancelled() const {
    const auto request = request_.lock();
    return !request || !request->is_wanted();
  }

 private:
  friend class Calls<Caller>;
  detail::Callee callee() const { return {core_.lock(), id_}; }

  ClientId id_ = 0;
  std::uintptr_t number_ = 0;
  std::string method_;
  std::string address_;
  std::string user_;
  std::int64_t process_ = 0;
  std::weak_ptr<detail::Core> core_;
  std::weak_ptr<detail::Request> request_;
};

/// A result that a handler gives later: the handler returns it, and any thread answers it.
///
/// Thread: any; the first answer counts. Owner: copies share one answer. When the last copy is
/// destroyed without an answer, the caller gets Errc::unanswered.
template <class T = void>
class Deferred {
 public:
  using value_type = T;  ///< the type of the result
  /// Answers with a result.
  template <class... Value>
  requires(sizeof...(Value) ==
           (std::is_void_v<T> ? 0 : 1)) void answer(const Value&... value) const {
    auto block = std::make_shared<detail::Block>(detail::new_block());
    (detail::put_result<T>(block->get(), value), ...);
    end_->set([block](detail::Request& request) { request.answer(std::move(*block)); });
  }
  /// Answers with a failure: tolk::failure, or the Error of another call.
  void fail(const Error& error) const {
    end_->set([error](detail::Request& request) { request.fail(error); });
  }

  /// @cond internal
  void bind(const std::shared_ptr<detail::Request>& request) const {
    end_->then([request](End& end) { end(*request); });
  }
  /// @endcond

 private:
  using End = Function<void(detail::Request&)>;

  std::shared_ptr<detail::Later<End>> end_ = std::make_shared<detail::Later<End>>();
};

/// The return type of a coroutine. It begins to run when it is called, on the calling thread, and
/// goes on on the thread that resumes it. A handler may be such a coroutine: its parameters, and
/// what it captures, live until it ends.
///
/// Thread: one thread awaits or waits. Owner: a coroutine whose Task is destroyed goes on.
template <class T = void>
class [[nodiscard]] Task {
 public:
  using value_type = T;  ///< the type of the result
  struct promise_type;

  /// Waits until the coroutine has ended, and returns its result or throws its exception.
  T get() { return taken(state_->wait()); }

  /// @cond internal
  bool await_ready() const { return false; }
  void await_suspend(std::coroutine_handle<> waiting) {
    state_->then([waiting](Outcome&) { waiting.resume(); });
  }
  T await_resume() { return get(); }

  // Calls `done` when the coroutine has ended, which may be now. It gets the task to `get`.
  template <class Done>
  void then(Done done) {
    state_->then([state = state_, done = std::move(done)](Outcome&) { done(Task(state)); });
  }
  /// @endcond

 private:
  using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
  struct Outcome {
    std::optional<Stored> value;
    std::exception_ptr thrown;
  };
  using State = detail::Later<Outcome>;

  static T taken(Outcome& outcome) {
    if (outcome.thrown) std::rethrow_exception(outcome.thrown);
    if constexpr (!std::is_void_v<T>) return *std::move(outcome.value);
  }

  struct PromiseBase {
    Task get_return_object() { return Task(state); }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void unhandled_exception() { state->set({std::nullopt, std::current_exception()}); }

    std::shared_ptr<State> state = std::make_shared<State>();
  };
  struct ValuePromise : PromiseBase {
    void return_value(Stored value) { this->state->set({std::move(value), nullptr}); }
  };
  struct VoidPromise : PromiseBase {
    void return_void() { this->state->set({Stored(), nullptr}); }
  };

  explicit Task(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<State> state_;
};

/// @cond internal
template <class T>
struct Task<T>::promise_type : std::conditional_t<std::is_void_v<T>, typename Task<T>::VoidPromise,
                                                  typename Task<T>::ValuePromise> {};
/// @endcond
}  // namespace v1
}  // namespace tolk
