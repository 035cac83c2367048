// Ends of clients and servers of the C interface race with calls, cancels and late answers: each
// outcome comes once, each context is freed once, and a free returns.
#include <array>
#include <memory>
#include <thread>
#include <vector>

#include "tests/stress/c_ends.h"
#include "tests/stress/frame/rows.h"

namespace tolk::stress {
namespace {

constexpr int kCallersOfAClient = 3;

enum class ClientEnd { free_alone, free_under_a_call, free_in_done, close_first };

void nap(Random& random) {
  std::this_thread::sleep_for(std::chrono::microseconds(random.between(0, 8000)));
}

struct FreeInDone {
  explicit FreeInDone(tolk_client* client_to_free) : client(client_to_free) {}

  tolk_client* const client;
  std::atomic<bool> is_freed{false};
};

// `answerer`: the server's.
class CRacingClient {
 public:
  CRacingClient(int index, const std::string& address, tolk_methods* methods, Counts& counts,
                Answerer& answerer, Random random)
      : index_(index),
        counts_(counts),
        answerer_(answerer),
        random_(random),
        end_(static_cast<ClientEnd>(random_.between(0, 3))),
        client_(stressed_client(address, methods, counts)) {}

  bool is_connected() const { return client_ != nullptr; }

  void run(bool server_stays) {
    std::vector<std::thread> callers;
    std::atomic<bool> stop{false};
    for (int i = 0; i < kCallersOfAClient; ++i) {
      callers.emplace_back([&, random = Random(random_.engine()(), 0)]() mutable {
        while (!stop) one_operation(client_, counts_, random);
      });
    }
    nap(random_);
    if (end_ == ClientEnd::close_first) tolk_client_close(client_, random_.between(0, 20));
    stop = true;
    for (std::thread& caller : callers) caller.join();
    for (int i = 0; i < 20; ++i) start_counted(client_, "later", 0, TOLK_FOREVER, counts_);
    if (end_ == ClientEnd::free_in_done && server_stays) return free_in_done();
    if (end_ == ClientEnd::free_under_a_call && server_stays) return free_under_a_call();
    tolk_client_free(client_);
  }

 private:
  // The request has come, so the call is under way.
  void free_under_a_call() {
    const std::atomic<int>& kept = answerer_.kept.at(static_cast<std::size_t>(index_));
    std::thread calls([&] {
      tolk_block* const caller = number_block(index_);
      const tolk_status status =
          tolk_client_call(client_, "keep", caller, TOLK_FOREVER, nullptr, nullptr);
      if (status != TOLK_OK && status != TOLK_CLOSED && status != TOLK_UNANSWERED) {
        counts_.note_wrong(tolk_status_name(status));
      }
      tolk_block_free(caller);
    });
    if (!eventually([&] { return kept > 0; })) counts_.note_wrong("a call has not come");
    tolk_client_free(client_);
    calls.join();
  }

  void free_in_done() {
    auto* const freeing = kept(std::make_unique<FreeInDone>(client_));
    tolk_call call{};
    call.size = sizeof call;
    call.method = "echo";
    call.limit_ms = TOLK_FOREVER;
    call.flags = random_.one_in(2) ? TOLK_INLINE : 0;
    call.context = freeing;
    call.done = [](void* context, const tolk_outcome*) {
      auto& self = *static_cast<FreeInDone*>(context);
      tolk_client_free(self.client);
      self.is_freed = true;
    };
    tolk_client_start(client_, &call);
    if (!eventually([&] { return freeing->is_freed.load(); })) {
      counts_.note_wrong("an outcome has not come");
    }
  }

  const int index_;  // 0 or 1
  Counts& counts_;
  Answerer& answerer_;
  Random random_;
  const ClientEnd end_;
  tolk_client* const client_;
};

void race_once(Run& run, Random& random) {
  Counts counts;
  Counts hooks;
  {
    const auto answerer = std::make_unique<Answerer>(Random(random.engine()(), 0));
    tolk_methods* const methods = stressed_methods(counts, *answerer);
    const std::string address =
        c_address_of(test::fresh_address(static_cast<test::Transport>(random.between(0, 2))));
    tolk_server* const server = stressed_server(address, methods, hooks);
    if (!run.expect(server != nullptr, "a server cannot listen")) return;
    const bool server_stays = random.one_in(2);
    std::vector<std::unique_ptr<CRacingClient>> clients;
    for (int i = 0; i < 2; ++i) {
      clients.push_back(std::make_unique<CRacingClient>(i, address, methods, counts, *answerer,
                                                        Random(random.engine()(), 0)));
      if (!run.expect(clients.back()->is_connected(), "a client cannot connect")) return;
    }
    std::vector<std::thread> threads;
    for (const auto& client : clients) {
      threads.emplace_back([&client, server_stays] { client->run(server_stays); });
    }
    if (!server_stays) {
      nap(random);
      if (random.one_in(2)) tolk_server_close(server, random.between(0, 20));
      tolk_server_free(server);
    }
    for (std::thread& thread : threads) thread.join();
    if (server_stays) tolk_server_free(server);
    tolk_methods_free(methods);
    run.expect(hooks.connected == 2, "two clients have connected, told of ", hooks.connected);
    run.expect(hooks.gone == hooks.connected, hooks.gone, " clients gone of ", hooks.connected);
  }
  const auto is_over = [&] {
    return counts.done == counts.started && counts.contexts_freed == counts.contexts &&
           hooks.contexts_freed == hooks.contexts;
  };
  run.expect(eventually(is_over), counts.done, " outcomes of ", counts.started, ", ",
             counts.contexts_freed + hooks.contexts_freed, " contexts freed of ",
             counts.contexts + hooks.contexts);
  run.expect(counts.done_twice == 0, counts.done_twice, " outcomes came twice");
  run.expect(counts.wrong == 0, counts.wrong,
             " results or statuses were wrong: ", counts.first_wrong.load());
}

}  // namespace

void race_c_ends(Run& run) {
  Random random = run.random(0);
  const int rounds = run.rounds(60, 3000);
  for (int round = 0; round < rounds && run.passed(); ++round) {
    run.at("round ", round, ", seed ", run.seed());
    race_once(run, random);
  }
  run.figure("rounds", rounds, "");
}

}  // namespace tolk::stress
