/// @file
/// Dispatch of incoming calls: the methods of one client or server, and the handlers that represent
/// them in the library.
///
/// Thread: any. Handlers run concurrently on the library's workers. No user code runs after `end`
/// has returned. Owner: the library deletes a handler (MethodHandler) when its client or server
/// ends, or when a busy handler returns, but only if the client or server ever ran. Otherwise
/// Ownership frees the handlers. Failure: an exception of a handler becomes an error in the answer.
#pragma once

#include <tolk/IMethodAll.h>
#include <tolk/IServerMethod.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <tolk/layer/method.hpp>
#include <tolk/layer/transfers.hpp>

namespace tolk {
inline namespace v1 {

/// @cond internal
namespace detail {

inline constexpr char kMethodDescribe[] = "tolk.describe";
inline constexpr char kMethodPiece[] = "tolk.piece";
inline constexpr char kNoStdException[] = "an exception that is no std::exception";

// Counts the threads that run user code, and refuses new ones after `close`.
//
// It uses a condition variable and not std::atomic::wait, which can miss a notification in GCC 12's
// library for Windows and then waits forever.
class Gate {
 public:
  // Counts its thread during its lifetime. False after `close`.
  class Pass {
   public:
    explicit Pass(Gate& gate) : gate_(gate), outer_(innermost()), let_in_(gate.enter()) {
      innermost() = this;
    }
    ~Pass() {
      innermost() = outer_;
      gate_.leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return let_in_; }

   private:
    friend class Gate;
    static Pass*& innermost() {
      thread_local Pass* pass = nullptr;
      return pass;
    }

    Gate& gate_;
    Pass* const outer_;
    const bool let_in_;
  };

  // Refuses threads from now on.
  void close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  // Waits until no thread is counted. Returns at once on a counted thread, which would wait for
  // itself.
  void wait_until_empty() {
    if (has_this_thread()) return;
    std::unique_lock<std::mutex> lock(mutex_);
    emptied_.wait(lock, [&] { return inside_ == 0; });
  }
  // Whether `wait_until_empty` would return at once.
  bool is_empty() const {
    if (has_this_thread()) return true;
    const std::lock_guard<std::mutex> lock(mutex_);
    return inside_ == 0;
  }
  bool has_this_thread() const {
    for (const Pass* pass = Pass::innermost(); pass != nullptr; pass = pass->outer_) {
      if (&pass->gate_ == this) return true;
    }
    return false;
  }

 private:
  bool enter() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++inside_;
    return !closed_;
  }
  void leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (--inside_ == 0) emptied_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable emptied_;
  int inside_ = 0;       // under `mutex_`
  bool closed_ = false;  // under `mutex_`
};

// The ownership of the handlers of one IClient or IServer. An object that never ran does not delete
// them.
class Ownership {
 public:
  // The library is about to delete the handlers. The destructor of a handler that is not busy
  // during a failing start calls this. After a start, other members know that the object ran.
  void taken() {
    const std::lock_guard<std::mutex> lock(mutex_);
    taken_ = true;
  }
  bool is_taken() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return taken_;
  }
  template <class Handler>
  Handler* keep(std::unique_ptr<Handler> handler) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Handler* const raw = handler.get();
    handlers_.push_back([raw] { delete raw; });
    handler.release();
    return raw;
  }
  // Called when the object is destroyed.
  void free_if_not_taken() {
    std::vector<std::function<void()>> handlers;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!taken_) handlers.swap(handlers_);
    }
    for (const auto& free_handler : handlers) free_handler();
  }

 private:
  mutable std::mutex mutex_;
  bool taken_ = false;
  std::vector<std::function<void()>> handlers_;
};

using LineSink = std::function<void(std::string_view)>;

class Side : public std::enable_shared_from_this<Side> {
 public:
  using CatchAll = std::function<void(const Invocation&)>;

  // Throws Errc::misuse for a taken or reserved name.
  const Method& add(Method method) {
    const std::string name = method.info.name;
    if (name.empty() || name == "retval" || is_reserved(name)) {
      throw Error(
          Errc::misuse, name, "",
          "a method's name is not empty, not retval, and does not begin with s_c_ or tolk.");
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto [at, added] = methods_.emplace(name, std::move(method));
    if (!added) throw Error(Errc::misuse, name, "", "there is a method of this name already");
    return at->second;
  }

  std::vector<MethodInfo> infos() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<MethodInfo> all;
    for (const auto& [name, method] : methods_) all.push_back(method.info);
    return all;
  }
  // The pointer is valid as long as the side.
  const Method* find(const std::string& name) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto at = methods_.find(name);
    return at == methods_.end() ? nullptr : &at->second;
  }
  template <class Each>
  void for_each(const Each& each) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [name, method] : methods_) each(method);
  }

  // Runs one call of a method, on a worker.
  void serve(const Method& method, int caller_id, TolkParams& in, TolkParams& out) {
    run(method.info.name, method.run, Invocation{caller_id, method.info.name, back, in, out});
  }
  void serve_unknown(const char* name, int caller_id, TolkParams& in, TolkParams& out) {
    run(name, catch_all, Invocation{caller_id, name, back, in, out});
    out.AddKeyValueInt(kKeyMeant, 1);  // the library adds "no event" after the result
  }
  void serve_piece(int caller_id, TolkParams& in, TolkParams& out);
  void serve_describe(TolkParams& out) const;

  // Refuses new user code and waits for running user code, except on a thread that runs it.
  void end() {
    gate.close();
    gate.wait_until_empty();
  }

  // A sink is user code, so none runs after `end` has returned.
  void log_line(std::string_view line) {
    const Gate::Pass pass(gate);
    if (pass && log) log(line);
  }

  // Set once, before the first call can arrive.
  std::weak_ptr<Peer> back;
  CatchAll catch_all;
  LineSink log;
  std::function<void(const Caller&, Progress)> receiving;

  Gate gate;
  Transfers transfers;

 private:
  template <class Run>
  void run(std::string_view name, const Run& what, const Invocation& call) {
    const Gate::Pass pass(gate);
    if (!pass) return fail(call.out, name, "", "this end is closing");
    try {
      what(call);
      note_lookalike(call.out);
    } catch (const BadArguments& wrong) {
      fail(call.out, name, kKindArguments, wrong.what());
    } catch (const std::exception& failure) {
      fail(call.out, name, "", failure.what());
    } catch (...) {
      fail(call.out, name, "", kNoStdException);
    }
  }

  // Marks a first value that begins like the library's answer for an unknown method. An encoded
  // string is a tag, four bytes of length, and the text.
  static void note_lookalike(TolkParams& out) {
    constexpr long kHead = 5;
    constexpr char kStringTag = 3;
    const char* const bytes = out.GetParamasPtr();
    const auto needed = kHead + static_cast<long>(kNoMethod.size());
    if (out.GetParamasSize() < needed || bytes[0] != kStringTag) return;
    if (std::memcmp(bytes + kHead, kNoMethod.data(), kNoMethod.size()) != 0) return;
    out.AddKeyValueBool(kKeyMeant, true);
  }

  void fail(TolkParams& out, std::string_view name, const char* kind, const char* text) {
    out.Clear();
    out.AddKeyValueString(kKeyError, text);
    if (*kind != 0) out.AddKeyValueString(kKeyKind, kind);
    log_line("handler error: " + std::string(name) + ": " + text + "\n");
  }

  void join_piece(const Transfers::Piece& piece, int caller_id, TolkParams& in, TolkParams& out);

  mutable std::mutex mutex_;
  std::map<std::string, Method> methods_;
};

// Three lists: the names, the signatures and the descriptions.
inline void Side::serve_describe(TolkParams& out) const {
  const auto column = [all = infos(), &out](std::string MethodInfo::*member) {
    put_list(out, [&](const Element& element) {
      for (const MethodInfo& info : all) Codec<std::string>::put(element, info.*member);
    });
  };
  column(&MethodInfo::name);
  column(&MethodInfo::signature);
  column(&MethodInfo::about);
}

// Handles a piece of a large first argument. An exception must not leave an empty answer, which the
// sender would read as a success.
inline void Side::serve_piece(int caller_id, TolkParams& in, TolkParams& out) {
  const auto piece = Transfers::Piece::read(in);
  if (!piece) return fail(out, kMethodPiece, kKindArguments, "the piece is malformed");
  if (piece->cancelled) return transfers.forget(caller_id, piece->transfer);
  try {
    join_piece(*piece, caller_id, in, out);
  } catch (const std::exception& failure) {
    transfers.forget(caller_id, piece->transfer);
    fail(out, piece->method, "", failure.what());
  } catch (...) {
    transfers.forget(caller_id, piece->transfer);
    fail(out, piece->method, "", kNoStdException);
  }
}

// The answer to the last piece is the method's answer.
inline void Side::join_piece(const Transfers::Piece& piece, int caller_id, TolkParams& in,
                             TolkParams& out) {
  const Method* const method = find(piece.method);
  if (method == nullptr) {
    if (catch_all) return;  // an answer without a key: the sender then sends everything in one call
    out.AddKeyValueString(kKeyError, "there is no such method");
    out.AddKeyValueString(kKeyKind, kKindMethod);
    return;
  }
  const Gate::Pass pass(gate);
  if (!pass) return fail(out, piece.method, "", "this end is closing");
  auto taken = transfers.add(caller_id, piece);
  if (!taken.in_order) return fail(out, piece.method, "", "a piece is missing");
  if (receiving && piece.size() > 0) {
    bool cancelled = false;
    receiving(Caller(caller_id, piece.method, back), Progress(taken.done, piece.total, cancelled));
    if (cancelled) {
      transfers.forget(caller_id, piece.transfer);
      return fail(out, piece.method, "", "the receiver cancelled the transfer");
    }
  }
  if (!taken.whole) return out.AddKeyValueDouble(kKeyDone, static_cast<double>(taken.done));
  const TolkValue whole(taken.whole->data(), static_cast<long>(taken.whole->size()),
                        TolkValue::Stream);
  taken.whole.reset();
  run(piece.method, method->run, Invocation{caller_id, method->info.name, back, in, out, &whole});
}

// The handler that the library calls for one method of the layer.
class MethodHandler final : public IServerMethod {
 public:
  using Serve = std::function<void(Side&, int, TolkParams&, TolkParams&)>;

  MethodHandler(std::shared_ptr<Side> side, Serve serve)
      : side_(std::move(side)), serve_(std::move(serve)) {}

  static std::unique_ptr<MethodHandler> of_method(const std::shared_ptr<Side>& side,
                                                  const Method& method) {
    return std::make_unique<MethodHandler>(
        side, [&method](Side& to, int id, TolkParams& in, TolkParams& out) {
          to.serve(method, id, in, out);
        });
  }
  static std::unique_ptr<MethodHandler> of_describe(const std::shared_ptr<Side>& side) {
    return std::make_unique<MethodHandler>(
        side, [](Side& to, int, TolkParams&, TolkParams& out) { to.serve_describe(out); });
  }
  static std::unique_ptr<MethodHandler> of_pieces(const std::shared_ptr<Side>& side) {
    return std::make_unique<MethodHandler>(
        side,
        [](Side& to, int id, TolkParams& in, TolkParams& out) { to.serve_piece(id, in, out); });
  }

  void callback(int id, TolkParams* in, TolkParams* out) override {
    if (in != nullptr && out != nullptr) serve_(*side_, id, *in, *out);
  }

 private:
  const std::shared_ptr<Side> side_;
  const Serve serve_;
};

// A hook of the library, on the loop thread. A peer that calls its name as a method gets an empty
// answer.
class Hook final : public IServerMethod {
 public:
  // `open`: user code may run.
  using Happened = std::function<void(int id, bool open)>;

  Hook(std::shared_ptr<Side> side, Happened happened)
      : side_(std::move(side)), happened_(std::move(happened)) {}
  void callback(int id, TolkParams*, TolkParams* out) override {
    if (out != nullptr) return;
    const Gate::Pass pass(side_->gate);
    happened_(id, static_cast<bool>(pass));
  }

 private:
  const std::shared_ptr<Side> side_;
  const Happened happened_;
};

// Registers every method of a side with an IClient or IServer.
template <class Native>
void register_all(Native& native, Ownership& ownership, const std::shared_ptr<Side>& side) {
  side->for_each([&](const Method& method) {
    native.method(method.info.name.c_str(), ownership.keep(MethodHandler::of_method(side, method)));
  });
  native.method(kMethodDescribe, ownership.keep(MethodHandler::of_describe(side)));
  native.method(kMethodPiece, ownership.keep(MethodHandler::of_pieces(side)));
}

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
