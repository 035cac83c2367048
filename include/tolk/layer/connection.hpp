/// @file
/// One connection of a client: an IClient, from its connect to its end.
#pragma once

#include <tolk/IClient.h>
#include <tolk/tolk.h>

#include <atomic>
#include <tolk/layer/address.hpp>
#include <tolk/layer/call_ids.hpp>
#include <tolk/layer/side.hpp>

namespace tolk {
inline namespace v1 {

/// The settings of a client or a server.
struct Options {
  /// The timeout of calls that have no timeout argument.
  std::chrono::milliseconds limit{5000};
  /// How long a connect keeps trying while nobody listens. 0 means one attempt.
  std::chrono::milliseconds patience{0};
  /// The largest number of threads for Client::async. Further calls wait in a queue.
  unsigned async_threads = 8;
  /// Suppresses the library's lines about connections on standard output. A few lines remain, such
  /// as those of a TCP client's loop. It also calls std::ios_base::sync_with_stdio(false), so set
  /// it before other threads print.
  bool quiet = false;
};

/// @cond internal
namespace detail {

inline Error client_closed(const std::string& method, const std::string& address) {
  return {Errc::not_connected, method, address, "not connected: the client was closed",
          "make a new client: a closed one stays closed"};
}

template <class Native>
void silence(Native& native) {
  char text[] = "tolk";
  native.log(text, 0);
}

// Thread: any. Owner: the IClient, and the handlers of one that never ran.
// Failure: errors that name the method and the address. The destructor takes 300 ms.
class Connection final : public Peer, public std::enable_shared_from_this<Connection> {
 public:
  // `lost` runs on the loop thread when the connection is lost.
  static std::shared_ptr<Connection> make(const std::shared_ptr<Side>& side, Address where,
                                          const Options& options, Hook::Happened lost) {
    auto connection = std::make_shared<Connection>(std::move(where), options);
    connection->register_handlers(side, std::move(lost));
    return connection;
  }

  Connection(Address where, const Options& options)
      : where_(std::move(where)), limit_(options.limit), native_(CreateClient()) {
    if (native_ == nullptr) throw std::bad_alloc();
    if (options.quiet) silence(*native_);
  }
  ~Connection() override {
    DestroyClient(native_);
    if (!ran_) ownership_->free_if_not_taken();
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Whether the connect failed before there was a connection. The same object can then try again.
  bool may_try_again() const { return !ownership_->is_taken() && !outcome_->lost; }

  std::optional<Error> connect() {
    const auto begun = Clock::now();
    ran_ = connect_natively();
    if (ran_) return std::nullopt;
    if (outcome_->lost)
      return failure(Errc::gone, "", "the server went away during the version check", kMaybeNone);
    if (may_try_again())
      return failure(Errc::not_connected, "", "not connected: nobody listens there");
    if (Clock::now() - begun >= kVersionLimit) {
      return failure(Errc::timed_out, "", "the server did not answer the version check in 10 s",
                     kMaybeNone);
    }
    return failure(Errc::refused_version, "", "refused: the server is of another version");
  }

  bool is_connected() const { return !closed_ && !outcome_->lost && native_->isok(); }

  // Refuses further calls. If calls are waiting, the connection ends at once, which wakes them.
  // Otherwise it ends after a pause, during which posted calls are still sent.
  void let_go() {
    closed_ = true;
    if (ids_.under_way() != 0) native_->close();
  }

  void register_late(const std::shared_ptr<Side>& side, const Method& method) {
    native_->method(method.info.name.c_str(),
                    ownership_->keep(MethodHandler::of_method(side, method)));
  }

  std::optional<Error> exchange(int, const std::string& method, TolkParams* arguments, Limit limit,
                                Read read) override {
    if (auto large = too_large(arguments, method, address())) return large;
    const auto begun = Clock::now();
    // Counted before the test: either a close sees this call, or this call sees the close.
    Lease lease(ids_, [this] { native_->ClearRetvalMem(); });
    if (!is_connected()) {
      lease.note_unused();
      return not_connected(method);
    }
    TolkParams* const answer = native_->SendMsgFast(method.c_str(), arguments, lease.id(),
                                                    static_cast<int>(limit.client_ms()));
    if (answer == nullptr) return why_unanswered(method, limit, begun);
    lease.note_answered(answer);
    read(*answer);
    return std::nullopt;
  }

  std::optional<Error> post(int, const std::string& method, TolkParams* arguments) override {
    if (!is_connected()) return not_connected(method);
    if (auto large = too_large(arguments, method, address())) return large;
    native_->PostMsgFast(method.c_str(), arguments, kPostId);
    return std::nullopt;
  }

  std::chrono::milliseconds usual_limit() const override { return limit_; }
  std::string address() const override { return where_.text(); }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kVersionLimit{10};
  static constexpr const char* kMaybeNone =
      "look what listens there, it may be no server of this library; if it is, connect again";
  // The library stores the answers of posted calls too. They share this slot, which nobody reads.
  static constexpr int kPostId = 0x40000001;

  // Shared with the library's threads, which may set it after the end of the connection.
  struct Outcome {
    std::atomic<bool> lost{false};
  };

  // A client's catch-all is never called, so it is never busy when the library deletes it. Its
  // destructor shows that the library deletes all handlers.
  class Sentinel final : public IMethodAll {
   public:
    explicit Sentinel(std::shared_ptr<Ownership> ownership) : ownership_(std::move(ownership)) {}
    ~Sentinel() override { ownership_->taken(); }
    void callback(const char*, int, TolkParams*, TolkParams*) override {}

   private:
    const std::shared_ptr<Ownership> ownership_;
  };

  void register_handlers(const std::shared_ptr<Side>& side, Hook::Happened lost) {
    register_all(*native_, *ownership_, side);
    const auto note_loss = [outcome = outcome_, lost = std::move(lost)](int id, bool open) {
      outcome->lost = true;
      lost(id, open);
    };
    native_->method("s_c_closed", ownership_->keep(std::make_unique<Hook>(side, note_loss)));
    native_->methodall(ownership_->keep(std::make_unique<Sentinel>(ownership_)));
  }

  bool connect_natively() {
    const std::string number = std::to_string(where_.number());
    switch (where_.transport()) {
      case Transport::pipe:
        return native_->InitTolkClient(number.c_str(), false);
      case Transport::tcp4:
        return native_->InitTolkClientTcp4(where_.host().c_str(), number.c_str(), false);
      case Transport::tcp6:
        break;
    }
    return native_->InitTolkClientTcp6(where_.host().c_str(), number.c_str(), false);
  }

  Error failure(Errc code, const std::string& method, std::string_view detail,
                const char* hint = nullptr) const {
    return {code, method, address(), detail, hint};
  }

  Error not_connected(const std::string& method) const {
    if (closed_) return client_closed(method, address());
    return failure(Errc::gone, method, "the server is gone");
  }

  // The end of one client wakes the waiting calls of the whole process.
  Error why_unanswered(const std::string& method, Limit limit, Clock::time_point begun) const {
    if (!is_connected()) return not_connected(method);
    if (!limit.endless() && Clock::now() - begun >= limit.asked) {
      return failure(Errc::timed_out, method,
                     "timed out after " + std::to_string(limit.asked.count()) + " ms");
    }
    return failure(Errc::interrupted, method,
                   "interrupted: another client of this process ended; the method may have run");
  }

  const Address where_;
  const std::chrono::milliseconds limit_;
  const std::shared_ptr<Ownership> ownership_ = std::make_shared<Ownership>();
  const std::shared_ptr<Outcome> outcome_ = std::make_shared<Outcome>();
  CallIds ids_;
  std::atomic<bool> closed_{false};
  bool ran_ = false;  // then the library deletes the handlers, possibly after this object's end
  IClient* const native_;
};

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
