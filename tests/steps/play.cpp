// One round of one cell.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <optional>
#include <utility>

#include "tests/steps/cells.h"
#include "tests/steps/hold.h"

namespace tolk::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCallId = 5;
constexpr int kTimeoutMs = 200;
constexpr Milliseconds kTwoSweeps{200};
// An event that does not wait for the held thread is through by then.
constexpr int kMostSettleMs = 30;
constexpr std::size_t kLargeBytes = 80'000;  // three pieces
constexpr Milliseconds kHang{20'000};
constexpr Milliseconds kLargeCallMayWait{100};

// A host thread, and when it came back.
class HostThread {
 public:
  explicit HostThread(std::function<void()> work)
      : end_(std::async(std::launch::async, [work = std::move(work)] {
          work();
          return Clock::now();
        })) {}
  bool ends_within(Milliseconds limit) const {
    return end_.wait_for(limit) == std::future_status::ready;
  }
  Clock::time_point end() { return end_.get(); }

 private:
  std::future<Clock::time_point> end_;
};

class Round {
 public:
  Round(const Cell& cell, std::mt19937& random, Bystander& bystander)
      : cell_(cell), random_(random), bystander_(bystander), world_(cell.transport) {}

  Report play() {
    set_up();
    Hold hold(cell_.step.point);
    HostThread activity(activity_of(cell_.step.activity));
    if (!hold.reached()) give_up("no thread gets to the step");
    HostThread event(event_of(cell_.event));
    static_cast<void>(event.ends_within(Milliseconds(number(1, kMostSettleMs))));
    hold.release();
    const auto released = Clock::now();
    const auto begin = std::max(released, end_of(event, "the event"));
    wait_for_activity(activity, begin);
    if (staying_call_) note_end(end_of(*staying_call_, "the call without a limit"), begin);
    note(bystander_.trouble());
    note(world_.leave());
    return report_;
  }

 private:
  int number(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

  // The process is of no use any more: the parent reports the cell.
  [[noreturn]] void give_up(const char* what) const {
    std::fprintf(stderr, "%s: %s\n", name_of(cell_).c_str(), what);
    std::abort();
  }

  void note(const std::string& trouble) {
    if (report_.trouble.empty()) report_.trouble = trouble;
  }

  // A server, a connected client, and a call without a limit that is being served.
  void set_up() {
    if (cell_.step.activity == Activity::start) return;
    if (!world_.start(world_.server)) give_up("the server does not start");
    if (cell_.step.activity == Activity::connect) return;
    if (!world_.connect(world_.client) || !world_.greeted()) give_up("the client can't connect");
    staying_call_.emplace([client = world_.client] { client->SendMsgFast("stay", nullptr, 1, 0); });
    if (!world_.gate.wait_entered()) give_up("the call without a limit is not served");
    // The client's loop is past that call when it has done another one: its steps are not held.
    if (world_.client->SendMsgFast("echo", nullptr, kCallId, kHang.count()) == nullptr) {
      give_up("a call is not answered");
    }
  }

  std::function<void()> activity_of(Activity activity) {
    IClient* const client = world_.client;
    IServer* const server = world_.server;
    const int id = world_.client_id();
    const int limit_ms = number(0, 1) * kTimeoutMs;  // none, or one
    switch (activity) {
      case Activity::call:
        return calling(
            [=](auto* in) { return client->SendMsgFast("echo", in, kCallId, limit_ms); });
      case Activity::turn_call:
        return calling([=](auto* in) { return client->SendMsg("echo", in, kCallId, limit_ms); });
      case Activity::server_call:
        return calling(
            [=](auto* in) { return server->SendMsg(id, "echo", in, kCallId, kTimeoutMs); });
      case Activity::post:
        return [=] { client->PostMsg("echo", nullptr, kCallId); };
      case Activity::server_post:
        return [=] { server->PostMsg(id, "echo", nullptr, kCallId); };
      case Activity::large_call:
        return [=] { call_large(client); };
      case Activity::connect:
        return [=, this] { world_.connect(client); };
      case Activity::close:
        return [=] { client->close(); };
      case Activity::destroy:
        return [mine = world_.take_client()] { DestroyClient(mine); };
      case Activity::server_close:
        return [=] { server->close(); };
      case Activity::server_close_async:
        return [=] { server->closeasync(); };
      case Activity::start:
        return [=, this] { world_.start(server); };
      case Activity::lost:
        break;
    }
    return cutting();
  }

  std::function<void()> event_of(Event event) {
    IServer* const server = world_.server;
    switch (event) {
      case Event::peer_dies:
        return cutting();
      case Event::close:
        return [client = world_.client] { client->close(); };
      case Event::destroy:
        return [mine = world_.take_client()] { DestroyClient(mine); };
      case Event::server_close:
        return [=] { server->close(); };
      case Event::server_destroy:
        break;
    }
    return [mine = world_.take_server()] { DestroyServer(mine); };
  }

  std::function<void()> cutting() {
    const auto ending = number(0, 1) == 0 ? Relay::Ending::closed : Relay::Ending::reset;
    return [=, this] { world_.relay.cut(ending); };
  }

  // An answer is missing or right. The result of an object that another thread
  // destroys may not be looked at.
  template <class Send>
  std::function<void()> calling(const Send& send) {
    const bool stays = cell_.event == Event::peer_dies || cell_.event == Event::close;
    return [=, this] {
      TolkParams in;
      in.AddString("ping");
      TolkParams* const out = send(&in);
      if (stays && out != nullptr && string_at(out, 0) != "ping") wrong_answer_ = true;
    };
  }

  static void call_large(IClient* client) {
    TolkParams in;
    in.AddString(std::string(kLargeBytes, 'x').c_str());
    client->SendMsgEx("echo", &in, kCallId, 0);
  }

  // On purpose the close of its own client does not end a large call: the loss of another one's
  // server does.
  void wait_for_activity(HostThread& activity, Clock::time_point begin) {
    const bool may_stay = cell_.step.activity == Activity::large_call &&
                          (cell_.event == Event::close || cell_.event == Event::destroy);
    if (may_stay && !activity.ends_within(kLargeCallMayWait)) {
      Bystander::wake_large_calls();
      begin = Clock::now();
    }
    const auto end = end_of(activity, "the activity");
    begin = std::max(begin + Milliseconds(kTimeoutMs), bystander_.sweeps_from());
    note_end(end, begin + kTwoSweeps);
    if (wrong_answer_) note("a wrong answer");
  }

  Clock::time_point end_of(HostThread& thread, const char* who) {
    if (!thread.ends_within(kHang)) give_up((std::string(who) + " hangs").c_str());
    return thread.end();
  }

  void note_end(Clock::time_point end, Clock::time_point due) {
    const auto late = std::chrono::duration_cast<Milliseconds>(end - due);
    report_.latest = std::max(report_.latest, late);
  }

  const Cell cell_;
  std::mt19937& random_;
  Bystander& bystander_;
  World world_;
  std::optional<HostThread> staying_call_;
  std::atomic<bool> wrong_answer_{false};
  Report report_;
};

}  // namespace

Report play(const Cell& cell, std::mt19937& random, Bystander& bystander) {
  return Round(cell, random, bystander).play();
}

}  // namespace tolk::test
