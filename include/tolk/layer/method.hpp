/// @file
/// A method: an adapter for a callable with typed parameters.
///
/// Thread: several workers call a method at the same time, unless it is ordered.
/// Failure: wrong arguments and exceptions become the answer.
#pragma once

#include <tolk/layer/request.hpp>

namespace tolk {
inline namespace v1 {

/// How the calls of a method run: `server.on("moved", tolk::ordered, handler)`.
enum class How : unsigned {
  concurrent = 0,                ///< on workers or the executor, several at the same time
  inline_handler = TOLK_INLINE,  ///< on the loop thread: quickest, for handlers that never wait
  ordered = TOLK_ORDERED,        ///< those of one caller one at a time, in the order of its calls
};
/// See How. Both: `tolk::ordered | tolk::inline_handler`.
inline constexpr How ordered = How::ordered;
/// See How.
inline constexpr How inline_handler = How::inline_handler;
/// Joins two of them.
constexpr How operator|(How a, How b) noexcept {
  return static_cast<How>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}

/// Data that a peer is about to send, for what decides where they go: Endpoint::on_data.
struct Incoming {
  std::uint64_t total = 0;  ///< bytes
};

/// @cond internal
namespace detail {
struct BadArguments : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One call of a handler, or of what decides where its data go.
struct Invocation {
  const std::shared_ptr<Core>& core;
  const std::shared_ptr<Request>& request;
  const tolk_block* in;
  const tolk_block* data = nullptr;  // the first value, if a hook has seen it come
  std::uint64_t total = 0;

  std::size_t count() const { return tolk_block_count(in) + (data == nullptr ? 0 : 1); }
  From at(std::size_t position) const {
    if (data != nullptr && position-- == 0) return {data, 0};
    return From::position(in, position);
  }
};

template <template <class, class, class...> class To, class F, class R, class... A>
std::type_identity<To<F, R, A...>> apply_to(R (*)(A...));
template <template <class, class, class...> class To, class F, class C, class R, class... A>
std::type_identity<To<F, R, A...>> apply_to(R (C::*)(A...));
template <template <class, class, class...> class To, class F, class C, class R, class... A>
std::type_identity<To<F, R, A...>> apply_to(R (C::*)(A...) const);

template <class F>
concept Callable = std::is_pointer_v<F> || requires {
  &F::operator();
};

template <class F, template <class, class, class...> class To>
constexpr auto applied() {
  static_assert(Callable<F>,
                "tolk: a handler is a function, or a lambda whose parameters have types (no auto)");
  if constexpr (std::is_pointer_v<F>) {
    return decltype(apply_to<To, F>(F()))();
  } else if constexpr (Callable<F>) {
    return decltype(apply_to<To, F>(&F::operator()))();
  }
}
template <class F, template <class, class, class...> class To>
using Applied = typename decltype(applied<F, To>())::type;

// One parameter of a handler: whether it is positional, how it is filled, and its name.
template <class T>
struct Parameter {
  static constexpr bool kPositional = true;
  static constexpr bool kTakesAll = false;
  static constexpr bool kNeeded = !kIs<T, std::optional>;

  static std::string name() { return Codec<T>::name(); }
  static void fill(const Invocation& call, std::size_t position, T& to) {
    std::string why;
    From from = call.at(position);
    from.why = &why;
    if (get_placed<T>(from, to)) return;
    throw BadArguments("argument " + std::to_string(position + 1) + why);
  }
};

struct NotPositional {
  static std::string name() { return {}; }
  static constexpr bool kPositional = false;
  static constexpr bool kTakesAll = false;
  static constexpr bool kNeeded = false;
};

template <>
struct Parameter<Caller> : NotPositional {
  static void fill(const Invocation& call, std::size_t, Caller& to) {
    to = Caller(call.core, call.request);
  }
};

template <>
struct Parameter<Values> : NotPositional {
  static constexpr bool kTakesAll = true;
  static std::string name() { return "..."; }
  static void fill(const Invocation& call, std::size_t, Values& to) {
    to = Values::of(call.in, call.data);
  }
};

template <>
struct Parameter<Incoming> : NotPositional {
  static void fill(const Invocation& call, std::size_t, Incoming& to) { to.total = call.total; }
};

template <KeyText Name, class T>
struct Parameter<named<Name, T>> : NotPositional {
  static_assert(does_travel<T>());

  static std::string name() { return std::string(Name.characters) + ": " + Codec<T>::name(); }
  static void fill(const Invocation& call, std::size_t, named<Name, T>& to) {
    std::string why;
    const From from{call.in, tolk_block_find(call.in, Name.characters), &why};
    if (Codec<T>::get(from, to.value)) return;
    throw BadArguments("argument \"" + std::string(Name.characters) + "\"" + why);
  }
};

template <class T>
constexpr bool check_parameter() {
  using Plain = std::remove_cvref_t<T>;
  static_assert(
      !std::is_lvalue_reference_v<T> || std::is_const_v<std::remove_reference_t<T>>,
      "tolk: a handler can't change its caller's arguments: take them by value or const&");
  static_assert(!std::is_same_v<Plain, const char*>,
                "tolk: a handler takes a text as std::string or std::string_view, not const char*");
  if constexpr (Parameter<Plain>::kPositional) static_assert(does_arrive<Plain>());
  return true;
}

// The parameters of a callable, and how it is called with them.
template <class... A>
struct Parameters {
  template <class T>
  using Of = Parameter<std::remove_cvref_t<T>>;
  using Arguments = std::tuple<std::remove_cvref_t<A>...>;

  static constexpr std::size_t kPositions = (std::size_t{0} + ... + (Of<A>::kPositional));
  static constexpr std::size_t kNeeded = (std::size_t{0} + ... + (Of<A>::kNeeded));
  static constexpr bool kTakesAll = (false || ... || Of<A>::kTakesAll);
  static_assert((true && ... && check_parameter<A>()));
  static_assert(!kTakesAll || kPositions == 0,
                "tolk: a handler that takes tolk::Values takes no other positional parameter");

  static std::string names() {
    std::string text;
    [[maybe_unused]] const auto add = [&text](const std::string& name) {
      if (!name.empty()) text += (text.empty() ? "" : ", ") + name;
    };
    (add(Of<A>::name()), ...);
    return text;
  }

  static void check_count(const Invocation& call) {
    const std::size_t got = call.count();
    const bool few = got < kNeeded && tolk_block_total(call.in) == tolk_block_count(call.in);
    if (kTakesAll || (!few && got <= kPositions)) return;
    const std::string bound = kNeeded == kPositions ? "" : few ? "at least " : "at most ";
    const std::size_t takes = few ? kNeeded : kPositions;
    throw BadArguments("takes " + bound + std::to_string(takes) +
                       (takes == 1 ? " argument, got " : " arguments, got ") + std::to_string(got));
  }
  static void fill([[maybe_unused]] const Invocation& call, [[maybe_unused]] Arguments& to) {
    each([&]<std::size_t... I>(std::index_sequence<I...>) {
      (Of<A>::fill(call, position_of(I), std::get<I>(to)), ...);
    });
  }
  template <class F>
  static decltype(auto) invoke(F& callable, [[maybe_unused]] Arguments& arguments) {
    return each([&]<std::size_t... I>(std::index_sequence<I...>)->decltype(auto) {
      return callable(static_cast<A&&>(std::get<I>(arguments))...);
    });
  }

 private:
  template <class Do>
  static decltype(auto) each(const Do& act) {
    return act(std::index_sequence_for<A...>());
  }
  // The position of the parameter with this index: the number of positional parameters before it.
  static constexpr std::size_t position_of(std::size_t index) {
    constexpr bool kAre[] = {Of<A>::kPositional..., false};
    std::size_t position = 0;
    for (std::size_t i = 0; i < index; ++i) position += kAre[i] ? 1 : 0;
    return position;
  }
};

// A result, and data behind it.
template <class T>
concept HasData = kIs<T, std::pair> && std::same_as<typename T::second_type, Source>;

// The name of what a handler returns; empty without.
template <class T>
std::string returned_name() {
  if constexpr (kIs<T, Result> || kIs<T, Deferred> || kIs<T, Task>) {
    return returned_name<typename T::value_type>();
  } else if constexpr (std::same_as<T, Source>) {
    return "bytes";
  } else if constexpr (HasData<T>) {
    return "bytes, " + returned_name<typename T::first_type>();
  } else if constexpr (std::is_void_v<T>) {
    return {};
  } else if constexpr (std::same_as<T, Values>) {
    return "...";
  } else {
    static_assert(does_travel<T>());
    return Codec<T>::name();
  }
}

// Runs what answers a request. What it throws is the answer.
template <class Run>
void answer_with(Request& request, const Run& run) {
  try {
    run();
  } catch (const BadArguments& wrong) {
    request.fail(TOLK_WRONG_ARGUMENTS, wrong.what());
  } catch (const Error& error) {
    request.fail(error);
  } catch (const std::exception& error) {
    request.fail(TOLK_FAILED, error.what());
  } catch (...) {
    request.fail(TOLK_FAILED, "an exception that is no std::exception");
  }
}

// Answers with what `get` returns, a T. A coroutine keeps `kept` until its end.
template <class T, class Get>
void answer(const std::shared_ptr<Request>& request, const Get& get,
            const std::shared_ptr<void>& kept = nullptr) {
  if constexpr (std::is_void_v<T>) {
    get();
    request->answer({});
  } else if constexpr (kIs<T, Deferred>) {
    get().bind(request);
  } else if constexpr (kIs<T, Task>) {
    get().then([request, kept](T task) {
      answer_with(*request,
                  [&] { answer<typename T::value_type>(request, [&] { return task.get(); }); });
    });
  } else if constexpr (kIs<T, Result>) {
    T result = get();
    if (!result) return request->fail(result.error());
    answer<typename T::value_type>(request, [&] { return std::move(result).value(); });
  } else if constexpr (std::same_as<T, Source>) {
    request->answer({}, get());
  } else {
    Block block = new_block();
    if constexpr (HasData<T>) {
      T result = get();
      put_result<typename T::first_type>(block.get(), result.first);
      request->answer(std::move(block), std::move(result.second));
    } else {
      put_result<T>(block.get(), get());
      request->answer(std::move(block));
    }
  }
}

template <class F, class R, class... A>
struct Acceptor {
  static_assert(std::is_same_v<R, Sink>, "tolk: where data go is a tolk::Sink: tolk::to_file …");
  F callable;

  Sink operator()(const Invocation& coming) {
    typename Parameters<A...>::Arguments arguments;
    Parameters<A...>::fill(coming, arguments);
    return Parameters<A...>::invoke(callable, arguments);
  }
};

template <class F, class R, class... A>
class Runner {
 public:
  explicit Runner(F handler) : handler_(std::make_shared<F>(std::move(handler))) {}

  static std::string signature() {
    const std::string result = returned_name<std::remove_cvref_t<R>>();
    return "(" + Taken::names() + ")" + (result.empty() ? "" : " -> " + result);
  }
  void operator()(const Invocation& call) const {
    Taken::check_count(call);
    if constexpr (kIs<R, Task>) {
      const auto kept = std::make_shared<Kept>(Kept{handler_, {}});
      run(call, kept->arguments, kept);
    } else {
      typename Taken::Arguments arguments;
      run(call, arguments, nullptr);
    }
  }

 private:
  using Taken = Parameters<A...>;
  struct Kept {
    std::shared_ptr<F> handler;
    typename Taken::Arguments arguments;
  };

  void run(const Invocation& call, typename Taken::Arguments& arguments,
           const std::shared_ptr<void>& kept) const {
    Taken::fill(call, arguments);
    const auto get = [&]() -> decltype(auto) { return Taken::invoke(*handler_, arguments); };
    answer<std::remove_cvref_t<R>>(call.request, get, kept);
  }

  const std::shared_ptr<F> handler_;
};

// A method for the C interface, which owns it.
class Method {
 public:
  using Accept = Function<Sink(const Invocation&)>;

  Method(const std::shared_ptr<Core>& core, Function<void(const Invocation&)> run, Accept accept,
         bool is_inline)
      : core_(core), run_(std::move(run)), accept_(std::move(accept)), is_inline_(is_inline) {}

  static void handle(void* context, tolk_request* raw) {
    const auto& method = *static_cast<const Method*>(context);
    const auto core = method.core_.lock();
    if (!core) return tolk_request_free(raw);
    const Scope scope(core.get(), method.is_inline_);
    core->note_client(tolk_request_client(raw));
    const Block data = received(core->received.take(raw));
    const auto request = std::make_shared<Request>(core, raw, raw);
    answer_with(*request, [&] {
      method.run_({core, request, tolk_request_arguments(raw), data.get(), 0});
    });
  }
  static tolk_status accept(void* context, const tolk_request* raw, std::uint64_t total,
                            tolk_sink** sink) {
    const auto& method = *static_cast<const Method*>(context);
    const auto core = method.core_.lock();
    if (!core || (!method.accept_ && !core->receiving)) return TOLK_OK;
    const Scope scope(core.get());
    core->note_client(tolk_request_client(raw));
    try {
      const auto request = std::make_shared<Request>(core, raw, nullptr);
      if (!method.accept_) return watch(core, request, total, sink);
      const Invocation coming{core, request, tolk_request_arguments(raw), nullptr, total};
      *sink = method.accept_(coming).release();
      return TOLK_OK;
    } catch (const BadArguments&) {
      return TOLK_WRONG_ARGUMENTS;
    } catch (const std::exception& error) {
      core->log_line("handler error: " + std::string(tolk_request_method(raw)) + ": " +
                     error.what());
      return TOLK_FAILED;
    }
  }
  static void release(void* context) { delete static_cast<Method*>(context); }

 private:
  // None, or a block with the data as its value.
  static Block received(const std::shared_ptr<ReceivedData::Data>& data) {
    using Owner = std::shared_ptr<ReceivedData::Data>;
    if (!data) return {};
    Block block = new_block();
    tolk_block_add_bytes_held(block.get(), data->all.data(), data->all.size(), new Owner(data),
                              delete_context<Owner>);
    return block;
  }
  // Into memory, as without a sink, but a hook sees them come.
  static tolk_status watch(const std::shared_ptr<Core>& core,
                           const std::shared_ptr<Request>& request, std::uint64_t total,
                           tolk_sink** sink) {
    const auto data = core->received.add(request->get(), total);
    if (!data) return total > ReceivedData::kMost ? TOLK_TOO_LARGE : TOLK_BUSY;
    const std::shared_ptr<Watch> watch(new Watch{core, data, Caller(core, request)});
    *sink =
        to_function([watch](std::span<const std::byte> piece) { watch->take(piece); }).release();
    return TOLK_OK;
  }
  struct Watch {
    std::shared_ptr<Core> core;
    std::shared_ptr<ReceivedData::Data> data;
    Caller caller;

    ~Watch() {
      if (data->all.size() < data->total) core->received.take(data->request, data.get());
    }
    void take(std::span<const std::byte> piece) const {
      data->all.insert(data->all.end(), piece.data(), piece.data() + piece.size());
      bool cancelled = false;
      core->receiving(caller, Progress(data->all.size(), data->total, cancelled));
      if (cancelled) throw std::runtime_error("the receiver has cancelled the transfer");
    }
  };

  const std::weak_ptr<Core> core_;
  const Function<void(const Invocation&)> run_;
  const Accept accept_;
  const bool is_inline_;
};
}  // namespace detail
/// @endcond

/// What a Client and a Server have in common: above all the methods that peers call.
///
/// Thread: every operation is safe on any thread; set hooks, `on_any` and `log` before the connect
/// or the listen. Handlers run concurrently on the object's workers, or on Options::executor.
/// Owner: it owns its handlers. `close` and the destructor wait for running handlers and hooks,
/// except when one of them is the caller. None runs after the destructor. Failure: `on` throws
/// tolk::Error.
template <class Self, class Core>
class Endpoint {
 public:
  /// Registers a method. Its parameter and result types are deduced from the handler. codec.hpp
  /// lists the types; a handler may also take Caller, tolk::named and tolk::Values. It returns a
  /// value, a Result, a Deferred or a Task. The caller gets the value, or an error with the text of
  /// the exception. `about` is a description for Calls::describe. Throws Errc::misuse for a second
  /// handler of a name.
  template <class Handler>
  Self& on(std::string_view method, Handler handler, std::string about = {}) {
    return add(method, How::concurrent, std::move(handler), std::move(about));
  }
  /// The same with tolk::ordered or tolk::inline_handler.
  template <class Handler>
  Self& on(std::string_view method, How how, Handler handler, std::string about = {}) {
    return add(method, how, std::move(handler), std::move(about));
  }
  /// Registers a method that gets large data in a tolk::Sink, such as a file. `accept` decides
  /// where they go before the first byte; it has the parameters of a handler, and tolk::Incoming.
  /// The handler runs when all of them are there, and does not get them.
  template <class Accept, class Handler>
  Self& on_data(std::string_view method, Accept accept, Handler handler, std::string about = {}) {
    using Made = detail::Applied<Accept, detail::Acceptor>;
    return add(method, How::concurrent, std::move(handler), std::move(about),
               Made{std::move(accept)});
  }
  /// Removes a method. Handlers that run go on. Returns whether there was one.
  bool remove(std::string_view method) { return core_->remove(std::string(method)); }

  /// Sets the handler for all names without a handler. It gets the caller, whose `method()` is the
  /// name, and the arguments: `[](const tolk::Caller&, const tolk::Values&) { return … }`.
  template <class Handler>
  Self& on_any(Handler handler) {
    return add({}, How::concurrent, std::move(handler), {});
  }
  /// Sets the hook for pieces of large data that go into memory, 2 GiB at most for one caller at a
  /// time. It may cancel or throw: the sender gets Errc::handler_failed.
  Self& on_receiving(const Function<void(const Caller&, Progress)>& hook) {
    core_->receiving = hook;
    return self();
  }
  /// Sets the log sink. It gets lines with their line ends: connects, disconnects, failed handlers.
  /// Without a sink these lines are dropped. The sink runs on the thread that logs, several at a
  /// time. It must be short and must not use the object.
  Self& log(const Function<void(std::string_view line)>& sink) {
    core_->log = sink;
    return self();
  }

  /// Returns the methods of this object.
  std::vector<MethodInfo> methods() const { return core_->infos(); }

  /// Refuses new calls, and waits for running handlers, their answers and posted calls, at most
  /// Options::close_limit. Then ends all connections: calls that are under way fail. In a handler
  /// or hook of the object it does not wait: that happens when the handler has returned. What is
  /// closed stays so.
  void close() { core_->close(false); }
  /// Returns the server's address, with its real port; empty before the connect or the listen.
  std::string address() const { return core_->address(); }

 protected:
  /// @cond internal
  explicit Endpoint(const Options& options) : core_(std::make_shared<Core>(options)) {}
  Endpoint(Endpoint&&) noexcept = default;
  Endpoint& operator=(Endpoint&& other) noexcept {
    std::swap(core_, other.core_);
    return *this;
  }
  ~Endpoint() {
    if (core_) core_->close(true);
  }

  std::shared_ptr<Core> core_;  // none in a moved-from object
                                /// @endcond

 private:
  Self& self() { return static_cast<Self&>(*this); }

  // Without data it is the catch-all.
  template <class Handler>
  Self& add(std::string_view name, How how, Handler handler, std::string about,
            detail::Method::Accept accept = nullptr) {
    using Made = detail::Applied<Handler, detail::Runner>;
    const bool is_inline = (static_cast<unsigned>(how) & TOLK_INLINE) != 0;
    const MethodInfo info{std::string(name), Made::signature(), std::move(about)};
    auto* const made =
        new detail::Method(core_, Made(std::move(handler)), std::move(accept), is_inline);
    tolk_method_options options{};
    options.flags = static_cast<unsigned>(how);
    options.accept = detail::Method::accept;
    options.free_context = detail::Method::release;
    core_->add(name.data() == nullptr ? nullptr : &info, detail::Method::handle, made, options);
    return self();
  }
};

}  // namespace v1
}  // namespace tolk
