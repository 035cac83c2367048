#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "tests/e2e/support/raw_peer.h"
#include "tests/stress/frame/traffic.h"
#include "tests/stress/race_cycle.h"

namespace tolk::stress {

void CountedHandlers::expect_deleted(Run& run, int expected, const std::string& whose) const {
  eventually([&] { return deleted() >= expected; });
  run.expect(deleted() == expected, deleted(), " handlers of ", whose, " were deleted, not ",
             expected);
}

void Users::end() {
  std::unique_lock<std::mutex> lock(mutex_);
  ended_ = true;
  left_.wait(lock, [&] { return count_ == 0; });
}

bool Users::enter() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!ended_) ++count_;
  return !ended_;
}

void Users::leave() {
  const std::lock_guard<std::mutex> lock(mutex_);
  --count_;
  left_.notify_all();
}

int next_number() {
  static std::atomic<int> last{0};
  return ++last;
}

namespace {

struct HeldHandlers {
  std::mutex mutex;
  std::set<int> numbers;
};

HeldHandlers& held() {
  static auto* const all = new HeldHandlers;
  return *all;
}

}  // namespace

void HeldCalls::note(int number) {
  const std::lock_guard<std::mutex> lock(held().mutex);
  held().numbers.insert(number);
}

bool HeldCalls::has(int number) {
  const std::lock_guard<std::mutex> lock(held().mutex);
  return held().numbers.contains(number);
}

struct RacingServer::Shared {
  IServer* const server = CreateServer();
  Users users;
  std::atomic<bool> closes_in_hook{false};
  std::mutex mutex;
  std::vector<int> clients;

  std::vector<int> known_clients() {
    const std::lock_guard<std::mutex> lock(mutex);
    return clients;
  }
};

RacingServer::RacingServer(Run& run, Random& random, const test::Address& address)
    : run_(run),
      address_(address),
      host_keeps_(random.one_in(4)),
      end_(static_cast<End>(random.between(0, 5))),
      shared_(std::make_shared<Shared>()) {
  register_handlers();
  if (host_keeps_) shared_->server->SetCustomReleaseEvent();
  run_.expect(test::start_server(shared_->server, address_), "a server did not start");
}

void RacingServer::register_handlers() {
  const auto add = [&](const char* name, test::CallFunction function) {
    shared_->server->method(name, handlers_.make(std::move(function)));
  };
  add("echo", [](int, TolkParams* in, TolkParams* out) { answer_question(in, out); });
  add("nap", [](int, TolkParams* in, TolkParams* out) {
    std::this_thread::sleep_for(Milliseconds(number_in(in) % 4));
    answer_question(in, out);
  });
  add("hold", [](int, TolkParams* in, TolkParams* out) {
    HeldCalls::note(number_in(in));
    std::this_thread::sleep_for(Milliseconds(20));
    answer_question(in, out);
  });
  add("nested", [shared = shared_](int id, TolkParams* in, TolkParams* out) {
    shared->users.with([&] {
      Question back(next_number());
      shared->server->SendMsg(id, "back", back.arguments(), next_number(), 50);
    });
    answer_question(in, out);
  });
  add("hello", [shared = shared_](int id, TolkParams*, TolkParams*) {
    const std::lock_guard<std::mutex> lock(shared->mutex);
    shared->clients.push_back(id);
  });
  add("close", [shared = shared_](int, TolkParams*, TolkParams*) {
    shared->users.with([&] { shared->server->close(); });
  });
  add("s_c_connect", [shared = shared_](int, TolkParams*, TolkParams*) {
    if (!shared->closes_in_hook.exchange(false)) return;
    shared->users.with([&] { shared->server->close(); });
  });
}

void RacingServer::call_clients(Random& random) {
  for (const int id : shared_->known_clients()) {
    const int number = next_number();
    Question question(number);
    const char* const name = random.one_in(3) ? "bye" : "back";
    TolkParams* const reply =
        shared_->server->SendMsg(id, name, question.arguments(), number, random.between(1, 60));
    run_.expect(reply == nullptr || question.is_answered_by(reply), "a client's answer is wrong");
    shared_->server->PostMsg(id, "back", question.arguments(), next_number());
  }
}

void RacingServer::end() {
  IServer* const server = shared_->server;
  if (end_ == End::close) server->close();
  if (end_ == End::closeasync) server->closeasync();
  if (end_ == End::close || end_ == End::closeasync || end_ == End::destroy) return;
  shared_->closes_in_hook = end_ == End::by_connect_hook;
  // A client closes the server by connecting, or by its request.
  test::RawClient last(address_, false);
  last.post(end_ == End::by_handler ? "close" : "s_c_close_server");
  run_.expect(eventually([&] { return !server->isok(); }), "a server did not close");
}

void RacingServer::destroy() {
  shared_->users.end();
  DestroyServer(shared_->server);
}

// A pipe server that ends by closeasync or by its destruction leaves its handlers to the host.
void RacingServer::check_handlers() const {
  const bool is_kept =
      host_keeps_ || (address_.is_pipe() && (end_ == End::destroy || end_ == End::closeasync));
  handlers_.expect_deleted(run_, is_kept ? 0 : handlers_.made(), "a server");
}

}  // namespace tolk::stress
