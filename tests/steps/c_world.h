// A client and a server of the C interface for one round of the matrix, and a record of what the
// library owes their host: each outcome once, each context released once, an on_gone for each
// on_connect.
//
// Thread: made and ended by one thread; its handlers and callbacks run on any.
// Owner: the record lives on while the library owes something.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/e2e/support/transports.h"
#include "tests/host_executor.h"
#include "tests/steps/relay.h"

namespace tolk::test {

class COwed {
 public:
  struct Context {
    COwed* owed = nullptr;
    HostExecutor* executor = nullptr;
    std::atomic<bool> is_freed{false};  // the object that has it
    std::atomic<int> releases{0};
    std::atomic<std::size_t> bytes{0};  // of a source or a sink
  };
  struct Call {
    COwed* owed = nullptr;
    std::atomic<int> outcomes{0};
    std::atomic<tolk_status> status{TOLK_OK};
  };

  Context* new_context();
  static void release(void* context);
  Call* new_call();
  static void done(void* call, const tolk_outcome* outcome);
  void keep(tolk_request* request);
  // Of the requests that were kept, the latest; null without one.
  tolk_request* take_kept();
  std::size_t kept() const;

  // Empty when all calls have had their outcome.
  std::string open_calls() const;
  // Empty when nothing is owed any more.
  std::string open_contexts() const;

  std::atomic<int> connects{0};
  std::atomic<int> gones{0};
  std::atomic<std::uint64_t> client_id{0};
  std::atomic<bool> has_wrong_result{false};
  std::atomic<bool> has_late_task{false};

 private:
  mutable std::mutex mutex_;
  std::deque<Context> contexts_;
  std::deque<Call> calls_;
  std::vector<tolk_request*> kept_;
};

class CPair {
 public:
  // What runs callbacks that are not inline.
  enum class RunsOn { workers, executor };

  explicit CPair(Transport transport, RunsOn runs_on = RunsOn::workers);
  ~CPair();
  CPair(const CPair&) = delete;
  CPair& operator=(const CPair&) = delete;

  // Listens and connects, through the relay.
  bool come_up();
  // Directly.
  tolk_client* connect_another();
  // Empty when calls in both directions are answered, else what is not.
  std::string trouble();
  // Ends what is left, and says what was not as it should be then.
  std::string leave();

  tolk_source* new_source();
  tolk_sink* new_sink();
  // From now on nobody may call the executor for it.
  void free_client();
  void free_server();

  std::shared_ptr<COwed> owed = std::make_shared<COwed>();
  std::atomic<tolk_client*> client{nullptr};
  std::atomic<tolk_server*> server{nullptr};

 private:
  struct Handlers;

  void add(const char* name, tolk_handler handler, tolk_accept accept = nullptr);
  tolk_client* connect(const Address& to, COwed::Context* context);
  template <class Options>
  Options options_of_both(COwed::Context* context);

  const std::unique_ptr<HostExecutor> executor_;
  const Address front_;
  const Address back_;
  tolk_methods* methods_ = tolk_methods_new();
  COwed::Context* client_context_ = nullptr;
  COwed::Context* server_context_ = nullptr;

 public:
  Relay relay;
};

// An echo of both answers.
tolk_block* c_ping();
bool is_c_ping(const tolk_block* block);

}  // namespace tolk::test
