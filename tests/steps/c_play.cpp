// One round of one cell of the C interface.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <utility>

#include "tests/steps/c_cells.h"
#include "tests/steps/hold.h"

namespace tolk::test {
namespace {

constexpr int kShortLimitMs = 50;
constexpr int kCloseLimitMs = 200;
// An event that does not wait for the held thread is through by then.
constexpr int kMostCSettleMs = 10;
constexpr Milliseconds kCHang{20'000};
constexpr Milliseconds kReach{10'000};
constexpr Milliseconds kShortReach{1000};

class CHostThread {
 public:
  explicit CHostThread(std::function<void()> work)
      : end_(std::async(std::launch::async, std::move(work))) {}
  bool ends_within(Milliseconds limit) const {
    return end_.wait_for(limit) == std::future_status::ready;
  }

 private:
  std::future<void> end_;
};

class CRound {
 public:
  CRound(const CCell& cell, std::mt19937& random, CPair& bystander)
      : cell_(cell), random_(random), bystander_(bystander), pair_(cell.transport, cell.runs_on) {}

  Report play() {
    set_up();
    Hold hold(cell_.point);
    CHostThread activity(activity_of(cell_.activity));
    // On a busy machine the limit may pass before.
    const bool is_limit = cell_.event == CEvent::limit;
    if (!hold.reached(is_limit ? kShortReach : kReach) && !is_limit)
      give_up("no thread gets to the step");
    CHostThread event(event_of(cell_.event));
    const int settle_ms = is_limit ? 2 * kShortLimitMs
                                   : std::uniform_int_distribution<int>(1, kMostCSettleMs)(random_);
    event_is_over_ = event.ends_within(Milliseconds(settle_ms));
    if (event_is_over_ && cancels_nothing_) note("nothing is cancelled");
    hold.release();
    if (!event.ends_within(kCHang)) give_up("the event hangs");
    if (!activity.ends_within(kCHang)) give_up("the activity hangs");
    note(bystander_.trouble());
    note(pair_.leave());
    return report_;
  }

 private:
  // The process is of no use any more: the parent reports the cell.
  [[noreturn]] void give_up(const char* what) const {
    std::fprintf(stderr, "%s: %s\n", name_of(cell_).c_str(), what);
    std::abort();
  }

  void note(const std::string& trouble) {
    const std::lock_guard lock(mutex_);
    if (report_.trouble.empty()) report_.trouble = trouble;
  }

  // A call without a limit is being served, and a request of the client's.
  void set_up() {
    if (!pair_.come_up()) give_up("the client does not connect");
    if (cell_.activity == CActivity::connect) return;
    start("keep", TOLK_FOREVER);
    if (!eventually([this] { return pair_.owed->kept() == 1; })) give_up("a call does not arrive");
  }

  int limit() const { return cell_.event == CEvent::limit ? kShortLimitMs : TOLK_FOREVER; }

  tolk_call new_call(const char* method, int limit_ms) const {
    tolk_call call{};
    call.size = sizeof call;
    call.method = method;
    call.limit_ms = limit_ms;
    call.done = COwed::done;
    call.context = pair_.owed->new_call();
    return call;
  }

  void start(const char* method, int limit_ms) { start(new_call(method, limit_ms)); }
  void start(const tolk_call& call) { number_ = tolk_client_start(pair_.client, &call); }

  std::function<void()> activity_of(CActivity activity) {
    tolk_client* const client = pair_.client;
    tolk_server* const server = pair_.server;
    switch (activity) {
      case CActivity::call:
        return [=, this] {
          tolk_block* result = nullptr;
          const tolk_status status =
              tolk_client_call(client, "echo", ping_.get(), limit(), &result, nullptr);
          judge(status, result);
        };
      case CActivity::server_call:
        return [=, this] {
          tolk_block* result = nullptr;
          const tolk_status status = tolk_server_call(server, pair_.owed->client_id, "echo",
                                                      ping_.get(), limit(), &result, nullptr);
          judge(status, result);
        };
      case CActivity::post:
        return [=, this] { tolk_client_post(client, "drop", ping_.get(), 0, nullptr); };
      case CActivity::outcome:
        return [this, call = absent_call()] { start(call); };
      case CActivity::answer_later:
        return [this] { answer_later(); };
      case CActivity::time_out:
        return [this] { start("keep", kShortLimitMs); };
      case CActivity::send_data:
        return [this] {
          tolk_call call = new_call("store", limit());
          call.piece_limit_ms = limit();
          call.source = pair_.new_source();
          start(call);
        };
      case CActivity::get_data:
        return [this] {
          tolk_call call = new_call("give", limit());
          call.piece_limit_ms = limit();
          call.sink = pair_.new_sink();
          start(call);
        };
      case CActivity::connect:
        return [this] { tolk_client_free(pair_.connect_another()); };
      case CActivity::client_close:
        return [=] { tolk_client_close(client, kCloseLimitMs); };
      case CActivity::client_free:
        return [this] { pair_.free_client(); };
      case CActivity::server_close:
        return [=] { tolk_server_close(server, kCloseLimitMs); };
      case CActivity::server_free:
        return [this] { pair_.free_server(); };
      case CActivity::lost:
        break;
    }
    return cutting();
  }

  std::function<void()> event_of(CEvent event) {
    tolk_client* const client = pair_.client;
    tolk_server* const server = pair_.server;
    switch (event) {
      case CEvent::peer_dies:
        return cutting();
      case CEvent::disconnect:
        return [=, this] { tolk_server_disconnect(server, pair_.owed->client_id); };
      case CEvent::client_close:
        return [=] { tolk_client_close(client, kCloseLimitMs); };
      case CEvent::client_free:
        return [this] { pair_.free_client(); };
      case CEvent::server_close:
        return [=] { tolk_server_close(server, kCloseLimitMs); };
      case CEvent::server_free:
        return [this] { pair_.free_server(); };
      case CEvent::limit:
        return [] {};  // the round waits for it
      case CEvent::cancel:
        break;
    }
    return [=, this] {
      tolk_client_cancel(client, number_);
      // Of the next call, which the host does not know yet.
      const bool is_registered = std::string(cell_.point) != "call.before_register";
      if (!is_registered) cancels_nothing_ = tolk_client_cancel(client, number_ + 2);
    };
  }

  std::function<void()> cutting() {
    const bool resets = std::uniform_int_distribution<int>(0, 1)(random_) == 0;
    return [=, this] { pair_.relay.cut(resets ? Relay::Ending::reset : Relay::Ending::closed); };
  }

  tolk_call absent_call() {
    tolk_call call = new_call("absent", limit());
    const bool is_inline = cell_.runs_on == CPair::RunsOn::workers &&
                           std::uniform_int_distribution<int>(0, 1)(random_) == 0;
    call.flags = is_inline ? unsigned{TOLK_INLINE} : 0;
    return call;
  }

  void answer_later() {
    start("keep", limit());
    if (!eventually([this] { return pair_.owed->kept() == 2; })) give_up("a call does not arrive");
    tolk_request_answer(pair_.owed->take_kept(), c_ping());
  }

  void judge(tolk_status status, tolk_block* result) {
    const bool is_right = status == TOLK_OK ? is_c_ping(result) : result == nullptr;
    tolk_block_free(result);
    if (!is_right) note("a wrong result");
    if (!may_be(status)) note(std::string("a call ends with ") + tolk_status_name(status));
  }

  // This end is closed when the call is registered.
  bool comes_after_the_end() const {
    const bool by_client = cell_.activity == CActivity::call;
    const auto close = by_client ? CEvent::client_close : CEvent::server_close;
    const auto free = by_client ? CEvent::client_free : CEvent::server_free;
    return event_is_over_ && std::string(cell_.point) == "call.before_register" &&
           (cell_.event == close || cell_.event == free);
  }

  // A dropped handler leaves its request unanswered.
  bool may_be(tolk_status status) const {
    if (comes_after_the_end()) return status == TOLK_CLOSED;
    switch (status) {
      case TOLK_OK:
        return true;
      case TOLK_TIMED_OUT:
        return cell_.event == CEvent::limit;
      case TOLK_GONE:
      case TOLK_CLOSED:
      case TOLK_UNANSWERED:
      case TOLK_NOT_CONNECTED:
        return cell_.event != CEvent::limit;
      default:
        return false;
    }
  }

  struct FreePing {
    void operator()(tolk_block* block) const { tolk_block_free(block); }
  };

  const CCell cell_;
  std::mt19937& random_;
  CPair& bystander_;
  CPair pair_;
  const std::unique_ptr<tolk_block, FreePing> ping_{c_ping()};
  std::atomic<std::uint64_t> number_{0};
  std::atomic<bool> event_is_over_{false};
  std::atomic<bool> cancels_nothing_{false};
  std::mutex mutex_;
  Report report_;
};

}  // namespace

Report play(const CCell& cell, std::mt19937& random, CPair& bystander) {
  return CRound(cell, random, bystander).play();
}

}  // namespace tolk::test
