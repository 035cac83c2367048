// Large data: SendMsgEx, and the receiver of its result's pieces.
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "client/core.h"
#include "params/content.h"
#include "params/encoder.h"
#include "platform/process.h"
#include "platform/standard_output.h"
#include "platform/static_mutex.h"
#include "platform/thread.h"
#include "transport/names.h"
#include "transport/pause_point.h"
#include "transport/piece_assembler.h"
#include "transport/piece_sender.h"

namespace tolk {
namespace {

constexpr std::uint32_t kPieceLimitMs = 500;

// On purpose held by SendMsgEx for its whole run: one large call at a time in the process.
constinit platform::StaticMutex large_call_lock;

// A hook does not wait for its turn: who has it may be waiting for the very loop that the hook is
// holding up. Nor does a forked child, where nobody would hand the turn on.
std::unique_lock<platform::StaticMutex> take_large_turn(bool of_this_process) {
  std::unique_lock<platform::StaticMutex> turn(large_call_lock, std::defer_lock);
  if (!of_this_process) return turn;
  if (LoopSession::on_a_loop_thread()) {
    turn.try_lock();
  } else {
    turn.lock();
  }
  return turn;
}

void append_header(std::string& block, const char* name, int call_id) {
  Encoder<std::string> encoder(block, 0);
  encoder.add_key(kKeyName);
  encoder.add_string(name == nullptr ? "" : name);
  encoder.add_key(kKeyCallId);
  encoder.add_int(call_id);
}

// Joins the pieces of a large result and wakes the call that waits for it.
class RecvLargeDataClient final : public IServerMethod {
 public:
  explicit RecvLargeDataClient(ClientCore& owner) : owner_(owner) {}

  void callback(int, TolkParams* in, TolkParams*) override {
    auto joined = pieces_.add(*in);
    if (!joined) return;
    const int call_id = joined->call_id;
    owner_.large_results.store_owned(call_id, std::move(joined->bytes));
    TOLK_PAUSE_POINT("ex.result_stored");
    large_wait().post(call_id);
  }

 private:
  ClientCore& owner_;  // has this handler
  PieceAssembler pieces_;
};

// The local hook of a lost server; nothing is left to do in it.
class ServerClosed final : public IServerMethod {
 public:
  void callback(int, TolkParams*, TolkParams*) override {}
};

// The wait of one large call. It is off the process's list before it is gone.
class LargeAnswer {
 public:
  LargeAnswer() { uv_sem_init(&semaphore_, 0); }
  // On purpose all waits of the process are forgotten; under the lock there is only this one.
  ~LargeAnswer() {
    large_wait().forget_all();
    uv_sem_destroy(&semaphore_);
  }
  LargeAnswer(const LargeAnswer&) = delete;
  LargeAnswer& operator=(const LargeAnswer&) = delete;

  bool await_if_connected(const ClientCore& core, int call_id) {
    return large_wait().add_if([&] { return core.isok(); }, call_id, &semaphore_);
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

}  // namespace

LargeWait& large_wait() {
  static const std::uint32_t made_in = platform::generation();
  static auto* const wait = [] {
    std::atexit([] {
      if (platform::generation() != made_in) return;  // no thread waits, and it may have the lock
      note_process_exit();
      large_wait().wake_handler();
    });
    return new LargeWait;
  }();
  return *wait;
}

ClientCore::ClientCore() : process_(platform::generation()) {}

ClientCore::~ClientCore() = default;

void ClientCore::register_builtins() {
  methods.add_builtin(kMethodPieceBody, std::make_unique<RecvLargeDataClient>(*this));
  methods.add_builtin(kHookBuiltinClosed, std::make_unique<ServerClosed>());
}

TolkParams* ClientCore::SendMsgEx(const char* name, TolkParams* params, int threadid) {
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
    TOLK_PAUSE_POINT("ex.before_register");
    if (!answer.await_if_connected(*this, call_id)) {
      platform::print_line("sendmsgex: disconnect... .. .");
      return nullptr;
    }
    TOLK_PAUSE_POINT("ex.registered");
    // The arguments may be the very block that the result is about to refresh: they are taken out
    // before its present content loses its keeper.
    std::string block = take_bytes(params);
    const ResultTable::Expectation content_may_go(large_results, call_id);
    append_header(block, name, call_id);
    if (!fits_pieces(block)) {
      logger.plain("sendmsgex: too large: %zu bytes\n", block.size());
      return nullptr;
    }
    send_large(block, call_id, call_id, kPieceLimitMs, [&block] { std::string().swap(block); });
    TOLK_PAUSE_POINT("ex.pieces_sent");
    // On purpose without a limit, and not woken by the client's own close: only the result or the
    // loss of a server ends it. A hook on the loop thread can't wait for what that thread would do.
    if (!session()->on_own_thread()) answer.wait();
    TOLK_PAUSE_POINT("ex.woken_before_unlist");
  }
  return destroyed_ ? nullptr : large_results.find(call_id);
}

bool ClientCore::SendMsgLargeData(const char* name, TolkParams* params, int threadid,
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

bool ClientCore::send_large(std::string_view block, int header_id, int call_id,
                            std::uint32_t timeout_ms, const std::function<void()>& all_read) {
  const auto send = [&](TolkParams& piece) {
    return SendMsg(kMethodPieceBody, &piece, call_id, timeout_ms) != nullptr;
  };
  return send_in_pieces(block, header_id, send, all_read);
}

}  // namespace tolk
