#include <atomic>
#include <thread>

#include "tests/stress/frame/traffic.h"
#include "tests/stress/race_cycle.h"

namespace tolk::stress {

struct RacingClient::Shared {
  IClient* const client = CreateClient();
  Users users;
  std::atomic<bool> stop{false};
  std::atomic<bool> was_connected{false};
  std::atomic<bool> is_being_destroyed{false};
  std::atomic<int> held_number{0};
  std::atomic<bool> held_returned{false};
};

RacingClient::RacingClient(Run& run, Random& random, const test::Address& address)
    : run_(run),
      address_(address),
      host_keeps_(random.one_in(4)),
      end_(static_cast<End>(random.between(0, 4))),
      shared_(std::make_shared<Shared>()) {
  register_handlers(shared_, handlers_, end_, random.between(0, 2));
  if (host_keeps_) shared_->client->SetCustomReleaseEvent();
  shared_->was_connected = test::connect_client(shared_->client, address_);
  if (shared_->was_connected) shared_->client->PostMsgFast("hello", nullptr, next_number());
}

void RacingClient::register_handlers(const std::shared_ptr<Shared>& shared,
                                     CountedHandlers& handlers, End end, int hook) {
  shared->client->method("back", handlers.make([](int, TolkParams* in, TolkParams* out) {
    std::this_thread::sleep_for(Milliseconds(number_in(in) % 3));
    answer_question(in, out);
  }));
  if (end == End::by_handler) {
    shared->client->method("bye", handlers.make([shared](int, TolkParams*, TolkParams*) {
      shared->users.with([&] { shared->client->close(); });
    }));
  }
  shared->client->method("s_c_closed",
                         handlers.make([shared, end, hook](int, TolkParams*, TolkParams*) {
                           if (end == End::destroy_in_hook) {
                             if (!shared->is_being_destroyed.exchange(true))
                               DestroyClient(shared->client);
                             return;
                           }
                           shared->users.with([&] {
                             if (hook == 1) shared->client->close();
                             if (hook == 2)
                               shared->client->SendMsgFast("echo", nullptr, next_number(), 0);
                           });
                         }));
}

// Calls until the client's end; where others destroy it under its calls, one call alone, which has
// begun by then.
void RacingClient::call(Random& random) {
  if (end_ == End::delete_under_calls || end_ == End::destroy_in_hook) {
    hold_one_call();
    return;
  }
  while (!shared_->stop) {
    const int number = next_number();
    Question question(number, random.one_in(10) ? 30000 : 0);
    const char* const name = random.one_in(3) ? "nested" : (random.one_in(2) ? "nap" : "echo");
    const int time_out_ms = random.one_in(3) ? 0 : random.between(1, 300);
    IClient* const client = shared_->client;
    TolkParams* const reply =
        random.one_in(5) ? client->SendMsg(name, question.arguments(), number, time_out_ms)
                         : client->SendMsgFast(name, question.arguments(), number, time_out_ms);
    // A server that closes has no methods any more, a moment before it has no connections.
    run_.expect(reply == nullptr || question.is_answered_by(reply) ||
                    test::string_at(reply, 0) == std::string("no event: ") + name,
                "a server's answer is wrong");
    client->PostMsgFast("nap", question.arguments(), next_number());
    if (!client->isok()) std::this_thread::sleep_for(Milliseconds(1));
  }
}

void RacingClient::hold_one_call() {
  // One caller is enough; the other has nothing to do.
  const int number = next_number();
  int nobody = 0;
  if (!shared_->held_number.compare_exchange_strong(nobody, number)) return;
  Question question(number);
  shared_->client->SendMsgFast("hold", question.arguments(), number, 0);
  shared_->held_returned = true;
}

// Waits until the call has surely begun: the client must not be destroyed before.
void RacingClient::wait_held() const {
  run_.expect(eventually([&] {
                return shared_->held_returned ||
                       (shared_->held_number != 0 && HeldCalls::has(shared_->held_number));
              }),
              "a call neither came to the server nor returned");
}

void RacingClient::end(Random& random) {
  IClient* const client = shared_->client;
  if (end_ == End::close_twice) on_threads(2, [&](int) { client->close(); });
  if (end_ == End::reconnect) reconnect(random);
  if (end_ == End::delete_under_calls) wait_held();
  if (end_ == End::by_handler) eventually([&] { return !client->isok(); }, Milliseconds(50));
}

void RacingClient::reconnect(Random& random) {
  for (int i = 0; i < 3; ++i) {
    if (random.one_in(2)) shared_->client->close();
    eventually([&] { return !shared_->client->isok(); }, Milliseconds(10));
    if (test::connect_client(shared_->client, address_)) shared_->was_connected = true;
  }
}

void RacingClient::stop() { shared_->stop = true; }

void RacingClient::destroy_under_calls() {
  if (end_ != End::delete_under_calls) return;
  shared_->users.end();
  delete shared_->client;
}

void RacingClient::destroy() {
  if (end_ == End::delete_under_calls) return;
  if (end_ == End::destroy_in_hook && shared_->was_connected) {
    // Its server has ended: so the hook comes, and destroys it.
    run_.expect(eventually([&] { return shared_->is_being_destroyed.load(); }),
                "a client did not notice that its server has ended");
    return;
  }
  shared_->users.end();
  DestroyClient(shared_->client);
}

void RacingClient::check_handlers() const {
  if (host_keeps_) {
    handlers_.expect_deleted(run_, 0, "a client");
  } else if (shared_->was_connected) {
    handlers_.expect_deleted(run_, handlers_.made(), "a client");
  }
}

}  // namespace tolk::stress
