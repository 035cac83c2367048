// What a client and a server of the C interface have in common: calls to peers, calls of peers, and
// the end.
//
// Thread: any, but where TOLK_LOOP says otherwise. No host code runs under a lock.
// Owner: the host's handle, the loop thread, every operation under way, every task and every open
// request. Failure: std::bad_alloc, caught by the exported functions.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "capi/call_table.h"
#include "capi/callbacks.h"
#include "capi/context.h"
#include "capi/deadlines.h"
#include "capi/messages.h"
#include "capi/methods.h"
#include "capi/peer.h"
#include "platform/guarded.h"
#include "sessions/session.h"

namespace tolk {

inline StreamRules rules_of(std::size_t most_frame_bytes) {
  StreamRules rules;
  rules.strict = true;
  if (most_frame_bytes != 0) rules.most_frame_bytes = most_frame_bytes;
  return rules;
}

struct CoreSettings {
  std::shared_ptr<MethodTable> methods;  // may be null
  std::int32_t limit_ms = 0;
  unsigned workers = 0;
  tolk_execute execute = nullptr;
  tolk_log log = nullptr;
  Context context;
  std::size_t most_queued_bytes = 0;
  std::size_t most_requests = 0;  // under way for the whole object
  std::size_t most_data_bytes = 0;
};

class Core {
 public:
  Core(Side role, std::string address, CoreSettings settings);
  virtual ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  virtual std::shared_ptr<Core> shared() = 0;
  virtual tolk_client* client_handle() { return nullptr; }
  virtual tolk_server* server_handle() { return nullptr; }
  Side role() const { return role_; }
  const std::string& address() const { return address_; }
  Callbacks& callbacks() { return callbacks_; }
  bool is_open() const { return state_ == State::open; }
  bool is_closed() const { return state_ == State::closed; }
  bool of_this_process() const;

  // In core_calls.cpp: calls to peers.
  tolk_status call(const tolk_call& call, tolk_block** result, tolk_error** error);
  std::uint64_t start_guarded(const tolk_call& given);
  tolk_status wait(std::uint64_t number, std::int32_t limit_ms, tolk_block** result,
                   tolk_error** error);
  bool cancel(std::uint64_t number);
  tolk_status post(std::uint64_t peer, const char* method, const tolk_block* arguments,
                   std::int32_t wait_ms, tolk_error** error);

  // In core_data.cpp: data beside calls and answers.
  std::size_t most_data_bytes() const { return settings_.most_data_bytes; }
  // Ends a call that has no outcome yet. `reason` may be null.
  void fail_call(std::uint64_t number, tolk_status status, const char* reason, int code);
  enum class Move { anyhow, only_later };
  void move_deadline(std::uint64_t number, std::int32_t limit_ms, Move move);
  void post_cancel(Peer& peer, std::uint64_t number);
  void complete_with_reply(Peer& peer, std::uint64_t number, const Message& reply,
                           const SharedBytes& payload);
  Outcome outcome_of_reply(const CallRecord& record, const Message& reply,
                           const SharedBytes& payload) const;
  // Starts a call of the library with a `done`.
  void start_own(const std::shared_ptr<CallRecord>& record, const std::shared_ptr<Peer>& to,
                 const Content& arguments, std::int32_t limit_ms);
  void start_answer(const std::shared_ptr<AnswerOut>& answer, Peer& to);

  // In core_end.cpp: the end, by the host.
  tolk_status close(std::int32_t limit_ms);
  void end();
  tolk_status wait_closed(std::int32_t limit_ms);
  // Something is over that a close may wait for.
  void note_progress();
  // A thread could not be started. The loop thread tries again.
  void start_workers_soon();

  // In core_receive.cpp: calls of peers, and replies.
  void receive(const std::shared_ptr<Peer>& peer, const SharedBytes& payload) TOLK_LOOP;

  // The loop.
  bool on_loop_thread() const;
  // Whether the calling thread would wait for itself.
  bool may_not_wait() const { return on_loop_thread() || Callbacks::inside_log(*this); }
  void post_to_loop(std::unique_ptr<Task> task);
  template <class Function>
  void run_on_loop(Function function) {
    if (on_loop_thread()) return function();
    post_to_loop(make_task(std::move(function)));
  }

  // A line for the host's log, which `make_text` makes.
  template <class MakeText>
  void log(tolk_level level, const MakeText& make_text) {
    if (settings_.log == nullptr) return;
    log_made(
        level, [](const void* to) { return (*static_cast<const MakeText*>(to))(); }, &make_text);
  }

 protected:
  enum class State { open, draining, closed };
  using Peers = std::map<std::uint64_t, std::shared_ptr<Peer>>;

  // Before others know the object.
  void set_address(std::string address) { address_ = std::move(address); }
  void set_session(std::shared_ptr<Session> session) { *session_.lock() = std::move(session); }
  std::shared_ptr<Session> session() const { return *session_.lock(); }
  // No new call is accepted from here on.
  virtual void begin_draining() {}
  // A peer's connection has ended.
  virtual void on_peer_lost(const std::shared_ptr<Peer>& peer, tolk_status status) TOLK_LOOP = 0;

  void add_peer(const std::shared_ptr<Peer>& peer);
  std::shared_ptr<Peer> peer(std::uint64_t id) const;
  Peers peers() const { return *peers_.lock(); }
  // The peer's connection has ended.
  void lose(const std::shared_ptr<Peer>& peer, tolk_status status) TOLK_LOOP;
  // The loop thread carries out the end.
  void on_loop_ending(tolk_status peers_lost) TOLK_LOOP;
  void finish_closing();
  // Without memory, it has its status alone.
  Outcome outcome_of(const CallRecord& record, tolk_status status,
                     const char* reason) const noexcept;

  // True: the object itself has answered.
  virtual bool answers_itself(Peer&, const Message&) TOLK_LOOP { return false; }
  // A reply, before its call is completed.
  virtual void on_reply(Peer&, const Message&) TOLK_LOOP {}
  void reply_failure(Peer& peer, const Message& call, const HandlerFailure& failure,
                     std::string_view unknown = {}) TOLK_LOOP;
  bool open_deadlines(uv_loop_t* loop) TOLK_LOOP { return deadlines_.open(loop) == 0; }
  std::uint64_t start_internal(const std::shared_ptr<CallRecord>& record,
                               const std::shared_ptr<Peer>& peer, const Content* arguments,
                               const CallExtras& extras);
  tolk_status take_outcome(Outcome outcome, tolk_block** result, tolk_error** error);
  std::int32_t usual_limit() const { return settings_.limit_ms; }
  const CoreSettings& settings() const { return settings_; }
  CallTable& calls() { return calls_; }
  std::atomic<State> state_{State::open};

 private:
  // Without a template, since lines are many and rare.
  void log_made(tolk_level level, std::string (*make)(const void*), const void* maker);
  Failure failure_of_call(const CallRecord& record, tolk_status status, const char* reason) const;
  std::shared_ptr<CallRecord> new_record(const tolk_call& call);
  std::uint64_t start_for_all(const tolk_call& call, bool has_data);
  std::uint64_t start_one(const std::shared_ptr<CallRecord>& record, const tolk_call& call,
                          const Content* arguments);
  std::uint64_t refuse(const std::shared_ptr<CallRecord>& record, tolk_status status,
                       const char* reason);
  // False without memory.
  bool watch(std::uint64_t number, std::uint64_t deadline);
  void on_deadline(std::uint64_t number) TOLK_LOOP;
  std::uint64_t start_with_data(const std::shared_ptr<CallRecord>& record, const tolk_call& call,
                                const std::shared_ptr<Peer>& to, const Content* arguments);
  static std::shared_ptr<CallData> take_data_of(const tolk_call& call);
  bool cancel_one(std::uint64_t number);
  void tell_cancelled(std::uint64_t peer_id, std::uint64_t number);
  tolk_status post_one(Peer& peer, const char* method, const Content* arguments,
                       std::uint64_t deadline);
  void tell_now(const tolk_call& call, tolk_status status, const tolk_error* error) const;
  std::uint64_t start(const tolk_call& given);
  std::uint64_t start_in_child(const tolk_call& call);
  tolk_status fail_post(const char* method, tolk_status status, const char* reason,
                        tolk_error** error) const;
  tolk_status fail_no_client(std::uint64_t id, const char* method, tolk_error** error) const;
  void take_reply(Peer& peer, const Message& reply, const SharedBytes& payload) TOLK_LOOP;
  void take_call(const std::shared_ptr<Peer>& peer, const Message& call,
                 const SharedBytes& payload) TOLK_LOOP;
  void take_plain_piece(const std::shared_ptr<Peer>& peer, const Message& call) TOLK_LOOP;
  void take_plain_call(const std::shared_ptr<Peer>& peer, const Message& call, int call_id,
                       const SharedBytes& block) TOLK_LOOP;
  // Null: the call is answered with a failure.
  std::shared_ptr<const Method> method_for(Peer& peer, const Message& call,
                                           std::string_view name) TOLK_LOOP;
  // True: it is about data, and the call goes on.
  bool takes_data_reply(Peer& peer, std::uint64_t number, const Message& reply,
                        const SharedBytes& payload) TOLK_LOOP;
  void take_piece(const std::shared_ptr<Peer>& peer, const SharedBytes& payload) TOLK_LOOP;
  void take_piece_of_call(const std::shared_ptr<Peer>& peer, const Message& call,
                          ReceivedPiece piece) TOLK_LOOP;
  void take_piece_of_answer(const std::shared_ptr<Peer>& peer, const Message& call,
                            ReceivedPiece piece) TOLK_LOOP;
  static bool take_answer_data(const CallRecord& record, const Message& reply,
                               std::optional<SharedBytes>* data);
  void take_cancel(Peer& peer, const Message& call) TOLK_LOOP;
  void describe(Peer& peer, const Message& call) TOLK_LOOP;
  bool is_drained() const;
  bool drain(std::uint64_t deadline);
  void drain_alone(std::uint64_t deadline);
  void begin_end();
  void arm_deadlines();
  std::shared_ptr<Peer> peer_after(const Peer* peer) const;
  tolk_status refuse_wait(const char* method, tolk_error** error) const;

  // No calls' numbers: those are odd.
  static constexpr std::uint64_t kDrainLimit = 2;
  static constexpr std::uint64_t kWorkers = 4;

  const Side role_;
  std::string address_;
  const CoreSettings settings_;
  const std::uint32_t process_;
  Callbacks callbacks_;
  CallTable calls_{callbacks_};
  Deadlines deadlines_;
  Guarded<std::shared_ptr<Session>> session_;
  Guarded<Peers> peers_;
  Guarded<std::map<std::uint64_t, std::weak_ptr<CallGroup>>> groups_;
  std::atomic<bool> drains_alone_{false};
  std::condition_variable progress_;
  Guarded<int> progress_lock_;
};

// A call that nobody starts.
void drop_data(const tolk_call& given);

}  // namespace tolk
