// What a host of the C interface has during one scenario: a server, two clients, its handlers and
// callbacks, and a record of what the library owes it.
//
// The host's code allocates nothing, so that each allocation that fails is one of the library.
// It reads values without failures.
//
// Thread: made, played and judged by one thread.
// Failure: the first trouble, in words; "" when every promise was kept.
#pragma once

#include <tolk/c.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <semaphore>
#include <span>
#include <string>
#include <thread>

namespace tolk::test {

class CWorld {
 public:
  enum class Executor { workers, host };
  // A context, which the library releases once; what has passed through it if it is one of data.
  struct Token {
    CWorld* world = nullptr;
    std::atomic<int> releases{0};
    std::atomic<std::size_t> bytes{0};
    std::atomic<bool> is_right{true};
  };

  CWorld(const char* address, Executor executor);
  ~CWorld();
  CWorld(const CWorld&) = delete;
  CWorld& operator=(const CWorld&) = delete;

  void make_methods();
  bool remove_method(const char* name);
  void listen();
  // To the world's server, or another one.
  tolk_client* connect(const char* address = nullptr);
  // Frees what there is.
  void end();
  // After the end, without failures.
  std::string judge();

  // After a failure, some other statuses are as good as the right one.
  void expect(const char* what, tolk_status status, tolk_status right = TOLK_OK,
              tolk_error* error = nullptr);
  void expect_that(bool right, const char* what);

  // A call with `done`, whose outcomes the world counts.
  tolk_call new_call(const char* method, const tolk_block* arguments, unsigned flags = 0);
  void wait(const tolk_call& call, tolk_status right = TOLK_OK);
  // Whether all outcomes come now. If not, they come with the end, or that is a trouble.
  bool comes(const tolk_call& call);
  // Another status than `right` that is as good.
  void wait_either(const tolk_call& call, tolk_status right, tolk_status also);
  // The last outcome.
  static tolk_status status_of(const tolk_call& call);
  static bool is_over(const tolk_call& call);
  // Its `done` frees the client; the end does if that does not come.
  void free_in(const tolk_call& call);
  // It is not started.
  void skip(const tolk_call& call);
  // Of the handler of "keep"; null when the call has ended before.
  tolk_request* kept_request(const tolk_call& call);
  // A post has arrived, or is lost.
  void wait_for_post();
  void wait_for_clients(int count);
  void wait_until_stopped();

  static int limit_ms();
  static tolk_block* ping();
  static bool is_ping(const tolk_block* block);
  static std::span<const char> data();
  tolk_source* source();
  Token* new_context();
  // The world of a handler or a callback.
  static CWorld& of(void* token);
  static void release(void* token);
  void add(const char* name, tolk_handler handler, tolk_method_options options = {});

  tolk_server* server = nullptr;
  tolk_client* client = nullptr;
  tolk_client* other = nullptr;
  std::atomic<std::uint64_t> newest_client{0};
  std::atomic<int> servers_stopped{0};

 private:
  struct Owed {
    CWorld* world = nullptr;
    const char* method = "";
    std::array<char, 80> reason{};
    std::atomic<tolk_client*> frees{nullptr};
    std::atomic<int> outcomes{0};
    std::atomic<int> last_ones{0};
    std::atomic<tolk_status> status{TOLK_OK};
    std::counting_semaphore<64> over{0};
  };
  struct Host;

  void note(const char* what, const char* detail = "");
  tolk_request* take_kept();
  void run_tasks();
  std::string owed_trouble() const;

  const char* const address_;
  const tolk_execute execute_;
  tolk_methods* methods_ = nullptr;
  std::array<Token, 64> tokens_;
  std::atomic<std::size_t> next_token_{0};
  std::array<Owed, 16> owed_;
  std::size_t next_owed_ = 0;
  std::array<std::atomic<tolk_request*>, 16> kept_{};
  std::atomic<std::size_t> next_kept_{0};
  std::counting_semaphore<64> arrived_{0};
  std::atomic<int> connects_{0};
  std::atomic<int> gones_{0};
  std::atomic<bool> has_trouble_{false};
  std::string trouble_;
  // The host's executor.
  std::array<std::atomic<tolk_task*>, 256> tasks_{};
  std::atomic<std::size_t> next_task_{0};
  std::counting_semaphore<512> has_task_{0};
  std::atomic<bool> ends_{false};
  std::thread executor_;
};

}  // namespace tolk::test
