// Large data: SendMsgEx, and the receiver of its result's pieces.
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "client/client_side.h"
#include "params/content.h"
#include "params/encoder.h"
#include "platform/never_destroyed.h"
#include "platform/standard_output.h"
#include "platform/static_mutex.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "sessions/outgoing_call.h"
#include "transport/pause_point.h"
#include "transport/piece_assembler.h"
#include "transport/piece_sender.h"
#include "transport/process_exit.h"
#include "transport/reserved_names.h"

namespace tolk {
namespace {

constexpr std::uint32_t kPieceLimitMs = 500;

// On purpose held by SendMsgEx for its whole run: one large call at a time in the process.
constinit platform::StaticMutex large_call_lock;

// A hook does not wait for its turn: the thread that has it may wait for the very loop that the
// hook holds up. Nor does a forked child, where nobody would hand the turn on.
std::unique_lock<platform::StaticMutex> take_large_turn(bool of_this_process) {
  std::unique_lock<platform::StaticMutex> turn(large_call_lock, std::defer_lock);
  if (!of_this_process) return turn;
  if (Session::on_a_loop_thread()) {
    turn.try_lock();
  } else {
    turn.lock();
  }
  return turn;
}

void append_header(std::string& block, const char* name, int call_id) {
  Encoder<std::string> encoder(block, 0);
  encoder.add_key(kKeyName);
  encoder.add_string(text_of(name));
  encoder.add_key(kKeyCallId);
  encoder.add_int(call_id);
}

// Joins the pieces of a large result and wakes the call that waits for it.
class RecvLargeDataClient final : public IServerMethod {
 public:
  explicit RecvLargeDataClient(ClientSide& owner) : owner_(owner) {}

  void callback(int, TolkParams* in, TolkParams*) override {
    auto joined = pieces_.add(*in);
    if (!joined) return;
    const int call_id = joined->call_id;
    owner_.large_results.store(call_id, std::exchange(joined->bytes, {}));
    large_wait().post(call_id);
  }

 private:
  ClientSide& owner_;  // owns this handler
  PieceAssembler pieces_;
};

// The local hook of a lost server. It has nothing to do.
class ServerClosed final : public IServerMethod {
 public:
  void callback(int, TolkParams*, TolkParams*) override {}
};

// The wait of one large call. It leaves the process's list before it is destroyed.
class LargeAnswer {
 public:
  LargeAnswer() { uv_sem_init(&semaphore_, 0); }
  ~LargeAnswer() {
    large_wait().forget();
    uv_sem_destroy(&semaphore_);
  }
  LargeAnswer(const LargeAnswer&) = delete;
  LargeAnswer& operator=(const LargeAnswer&) = delete;

  template <class Connected>
  bool await_if(Connected connected, int call_id) {
    return large_wait().add_if(connected, call_id, &semaphore_);
  }
  void wait() { uv_sem_wait(&semaphore_); }

 private:
  uv_sem_t semaphore_{};
};

// Empties the block. Its bytes move: a large block is not held twice.
std::string take_bytes(TolkParams* block) {
  if (block == nullptr) return {};
  std::string bytes = std::move(*block->GetParamas());
  block->Clear();
  return bytes;
}

const AtProcessExit wake_handler_at_exit([] { large_wait().wake_handler(); });

}  // namespace

LargeWait& large_wait() {
  static NeverDestroyed<LargeWait> wait;
  return *wait;
}

void ClientSide::register_builtins() {
  methods.add_builtin(kMethodPieceBody, std::make_unique<RecvLargeDataClient>(*this));
  methods.add_builtin(kHookBuiltinClosed, std::make_unique<ServerClosed>());
}

TolkParams* ClientSide::SendMsgEx(const char* name, TolkParams* params, int threadid) {
  const auto turn = take_large_turn(of_this_process());
  if (!turn) {
    platform::print_line("sendmsgex: disconnect... .. .");
    return nullptr;
  }
  const TolkValue* const own = params != nullptr ? params->GetMap(kKeyCallId) : nullptr;
  int call_id = own != nullptr ? read::number(own) : platform::os_thread_id();
  if (threadid != 0) call_id = threadid;
  {
    LargeAnswer answer;
    TOLK_PAUSE_POINT("large_call.before_register");
    if (!answer.await_if([this] { return connected_session() != nullptr; }, call_id)) {
      platform::print_line("sendmsgex: disconnect... .. .");
      return nullptr;
    }
    TOLK_PAUSE_POINT("large_call.registered");
    // The arguments may be the very block that the result is about to refresh: they are moved out
    // before its present content is released.
    std::string block = take_bytes(params);
    const ResultTable::Expectation releases_content(large_results, call_id);
    append_header(block, name, call_id);
    if (!fits_pieces(block)) {
      logger.plain("sendmsgex: too large: %zu bytes\n", block.size());
      return nullptr;
    }
    send_large(block, call_id, call_id, kPieceLimitMs, [&block] { std::string().swap(block); });
    // On purpose without a limit, and not woken by the client's own close: only the result or the
    // loss of a server ends it. A hook cannot wait for what its own loop thread would do.
    if (!session()->on_own_thread()) answer.wait();
  }
  return destroyed_ ? nullptr : large_results.find(call_id);
}

bool ClientSide::SendMsgLargeData(const char* name, TolkParams* params, int threadid,
                                  std::uint32_t timeout_ms) {
  int call_id = threadid;
  const TolkValue* const own = params ? params->GetMap(kKeyCallId) : nullptr;
  if (call_id == 0) call_id = own != nullptr ? read::number(own) : platform::own_call_id();
  TolkParams empty;
  TolkParams& block = params == nullptr ? empty : *params;
  block.AddKeyValueString(kKeyName, name);
  block.AddKeyValueInt(kKeyCallId, threadid);
  // The block may be the result that the first piece's call is going to drop.
  const auto held = TolkParamsAccess::hold(block);
  return send_large(held.get()->buffer, threadid, call_id, timeout_ms, [] {});
}

bool ClientSide::send_large(std::string_view block, int header_id, int call_id,
                            std::uint32_t timeout_ms, const std::function<void()>& all_read) {
  const auto send = [&](TolkParams& piece) {
    return SendMsg(kMethodPieceBody, &piece, call_id, timeout_ms) != nullptr;
  };
  return send_in_pieces(block, header_id, send, all_read);
}

}  // namespace tolk
