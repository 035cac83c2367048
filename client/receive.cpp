// Receiving: replies and calls from the server, and the server's going away.
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "client/core.h"
#include "params/content.h"
#include "platform/standard_output.h"
#include "transport/call_handler.h"
#include "transport/frame_writer.h"
#include "transport/invoke_guarded.h"
#include "transport/names.h"
#include "transport/pause_point.h"
#include "transport/read_buffer.h"
#include "transport/work_item.h"

namespace tolk {
namespace {

// A call from the server. Its reply is built on the worker and written on the loop thread.
class CallItem final : public WorkItem {
 public:
  CallItem(std::shared_ptr<ClientCore> core, std::shared_ptr<ClientSession> session,
           const Envelope& envelope)
      : core_(std::move(core)), session_(std::move(session)), call_(envelope) {}

 private:
  void run() override {
    if (session_->stopping()) return;
    TOLK_PAUSE_POINT("client_worker.before_handler");
    TolkParams out;
    const bool found = core_->DoTask(call_, session_->connection_id(), &out);
    reply_ = found
                 ? client_reply_frame(TolkParamsAccess::take_bytes(out), call_.call_id, call_.token)
                 : no_method_frame();
    TOLK_PAUSE_POINT("client_worker.answered");
  }

  void end() override {
    if (!reply_) return;
    if (write_frame(session_->stream(), std::move(*reply_)) < 0) {
      core_->logger.plain("write data error\n");
    }
  }

  void fail() override { session_->end_unanswered(); }

  const std::shared_ptr<ClientCore> core_;  // outlives the session
  const std::shared_ptr<ClientSession> session_;
  IncomingCall call_;
  std::optional<Frame> reply_;
};

}  // namespace

// Worker.

bool ClientCore::DoTask(IncomingCall& call, int connection_id, TolkParams* out) {
  const MethodRef method = methods.acquire(call.name);
  if (!method) return false;
  TolkParams arguments;
  if (call.arguments) TolkParamsAccess::parse_owned(arguments, std::move(*call.arguments));
  call_handler(logger, call.name, method,
               [&] { method->callback(connection_id, &arguments, out); });
  return true;
}

// Loop.

void ClientSession::onReadCb(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
  const ReadBuffer freed_at_the_end(buffer->base);
  static_cast<ClientSession*>(stream->data)->onRead(count, buffer->base);
}

void ClientSession::onRead(ssize_t count, const char* bytes) {
  check_loop_thread();
  if (count < 0) return server_closed();
  bool intact = false;
  invoke_guarded([&] {
    check_loop_thread();  // of this lambda the compiler knows nothing yet
    reader_.feed({bytes, static_cast<std::size_t>(count)}, [this](std::string_view payload) {
      DoQueueWork(payload);
      return !stopping();
    });
    intact = true;
  });
  if (!intact) server_closed();  // no memory for what came: the connection can't go on
}

void ClientSession::DoQueueWork(std::string_view payload) {
  check_loop_thread();
  const Envelope envelope = Envelope::scan(payload);
  if (!envelope.well_formed) return;
  if (!envelope.name) return platform::print_line("event empty!");
  if (envelope.is_reply()) return take_reply(envelope, payload);
  auto self = std::static_pointer_cast<ClientSession>(shared_from_this());
  WorkItem::begin(loop(),
                  std::make_unique<CallItem>(core_.shared_from_this(), std::move(self), envelope));
}

// Stored first, then woken: a woken caller always finds its answer.
void ClientSession::take_reply(const Envelope& envelope, std::string_view payload) {
  if (!envelope.call_id) return;
  TOLK_PAUSE_POINT("reply.before_store");
  core_.results.store(*envelope.call_id, payload);
  TOLK_PAUSE_POINT("reply.stored");
  if (!envelope.token) return;
  if (const auto token = parse_token(*envelope.token)) client_waits().wake(*token);
}

void ClientSession::run_closed_hooks() {
  const int id = connection_id();

  if (const MethodRef hook = core_.methods.acquire(kHookClosed)) {
    platform::print_line("close server event!");
    call_handler(core_.logger, kHookClosed, [&] { hook->callback(id, nullptr, nullptr); });
  }
  // After a lost connection the table is empty: the name then comes in without a handler.
  if (const MethodRef hook = core_.methods.acquire_or_insert(kHookBuiltinClosed)) {
    call_handler(core_.logger, kHookBuiltinClosed, [&] { hook->callback(id, nullptr, nullptr); });
  }
}

void ClientSession::server_closed() {
  check_loop_thread();
  core_.logger.formatted("Server Closed: %d\n", connection_id());
  invoke_guarded([this] { run_closed_hooks(); });
  TOLK_PAUSE_POINT("lost.before_stop");
  begin_stop();
  TOLK_PAUSE_POINT("lost.refusing");
  close_all_handles();
  TOLK_PAUSE_POINT("lost.handles_closing");
  // With the large calls' lock: a call that still saw us connected is registered, and woken below.
  large_wait().exclusively([this] { core_.connected = false; });
  TOLK_PAUSE_POINT("lost.offline");
  client_waits().wake_all();
  large_wait().post_all_and_forget();
  TOLK_PAUSE_POINT("lost.woken");
  stop_loop();
}

void ClientSession::end_unanswered() {
  if (!stopping()) server_closed();
}

bool ClientSession::deliver(int, Frame frame) {
  check_loop_thread();
  write_frame(stream(), std::move(frame));
  return true;  // also when the stream refused: the caller then waits for its time-out
}

int ClientSession::connection_id() const {
  return static_cast<int>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&stream_)));
}

}  // namespace tolk
