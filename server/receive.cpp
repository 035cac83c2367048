// Receiving: calls and replies from clients, and a client's going away.
#include <algorithm>
#include <optional>
#include <utility>

#include "params/content.h"
#include "platform/standard_output.h"
#include "server/core.h"
#include "transport/call_handler.h"
#include "transport/frame_writer.h"
#include "transport/incoming_call.h"
#include "transport/invoke_guarded.h"
#include "transport/names.h"
#include "transport/pause_point.h"
#include "transport/read_buffer.h"
#include "transport/work_item.h"

namespace tolk {
namespace {

// A call from a client. Its reply is built on the worker and written on the loop thread.
class CallItem final : public WorkItem {
 public:
  CallItem(std::shared_ptr<ServerCore> core, std::shared_ptr<ServerSession> session,
           Connection& connection, const Envelope& envelope)
      : core_(std::move(core)),
        session_(std::move(session)),
        connection_(connection),
        call_(envelope) {}

 private:
  void run() override {
    if (session_->stopping()) return;
    TOLK_PAUSE_POINT("server_worker.before_handler");
    TolkParams arguments;
    TolkParams out;
    if (call_.arguments) TolkParamsAccess::parse_owned(arguments, std::move(*call_.arguments));
    core_->dispatch(connection_.id(), call_.name, &arguments, &out);
    reply_ = server_reply_frame(TolkParamsAccess::take_bytes(out), call_.call_id, call_.token);
    TOLK_PAUSE_POINT("server_worker.answered");
  }

  void end() override {
    session_->check_loop_thread();
    if (!reply_ || session_->drops_replies()) return;
    write_frame(&connection_.stream, std::move(*reply_));
  }

  void fail() override { session_->end_unanswered(connection_); }

  const std::shared_ptr<ServerCore> core_;  // outlives the session
  const std::shared_ptr<ServerSession> session_;
  Connection& connection_;  // the session's
  IncomingCall call_;
  std::optional<Frame> reply_;
};

}  // namespace

// Worker.

void ServerCore::dispatch(int client_id, const std::string& name, TolkParams* arguments,
                          TolkParams* out) {
  const MethodRef method = methods.acquire(name);
  if (name == kMethodVersion) return answer_version_check(arguments, out);
  if (!method) return answer_unknown(client_id, name, arguments, out);
  call_handler(logger, name, method, [&] { method->callback(client_id, arguments, out); });
}

// On purpose the text is added also behind what the catch-all has answered.
void ServerCore::answer_unknown(int client_id, const std::string& name, TolkParams* arguments,
                                TolkParams* out) {
  const AllRef all = methods.acquire_all();
  if (all && name != kHookClosed && name != kHookConnect) {
    call_handler(logger, name, [&] { all->callback(name.c_str(), client_id, arguments, out); });
  }
  out->AddString(("no event: " + name).c_str());
}

void ServerCore::answer_version_check(TolkParams* arguments, TolkParams* out) const {
  const TolkValue* const theirs = arguments->GetMap(kKeyVersion);
  const bool same = theirs != nullptr && theirs->IsString() && read::bytes(theirs) == kVersionText;
  out->AddBool(same);
  out->AddKeyValueString(kKeyVersion, kVersionText);
}

// Loop.

void ServerSession::onReadCb(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
  const ReadBuffer freed_at_the_end(buffer->base);
  auto& connection = *static_cast<Connection*>(stream->data);
  connection.session.on_read(connection, count, buffer->base);
}

void ServerSession::on_read(Connection& connection, ssize_t count, const char* bytes) {
  check_loop_thread();
  if (stopping()) {
    // Only the connection whose last answer is on its way still reads; nothing more is heard.
    if (count < 0) close_handle(&connection.handle);
    return;
  }
  mark_active(connection);
  if (count < 0) return end_guarded(connection, count);
  bool intact = false;
  invoke_guarded([&] {
    connection.reader->feed({bytes, static_cast<std::size_t>(count)},
                            [&](std::string_view payload) {
                              on_message(connection, payload);
                              return !stopping();
                            });
    intact = true;
  });
  // No memory for what came: this connection can't go on.
  if (!intact && !stopping()) end_guarded(connection, UV_ENOMEM);
}

void ServerSession::end_unanswered(Connection& connection) {
  if (!stopping() && !uv_is_closing(&connection.handle)) end_guarded(connection, UV_ENOMEM);
}

void ServerSession::end_guarded(Connection& connection, ssize_t status) {
  invoke_guarded([&] { connection_end(connection, status); });
  close_handle(&connection.handle);
}

// A client counts from its first read on, the one that ends the connection included.
void ServerSession::mark_active(Connection& connection) {
  if (std::exchange(connection.active, true)) return;
  ++core_.client_count;
}

void ServerSession::on_message(Connection& connection, std::string_view payload) {
  check_loop_thread();
  // On purpose the verdict does not matter: what stood before a malformed record is taken.
  const Envelope envelope = Envelope::scan(payload);
  if (!envelope.name) return platform::print_line("event empty!");
  if (envelope.is_reply()) return take_reply(envelope, payload);
  if (envelope.name == kMethodCloseServer) return answer_close_request(connection, envelope);
  auto self = std::static_pointer_cast<ServerSession>(shared_from_this());
  WorkItem::begin(loop(), std::make_unique<CallItem>(core_.shared_from_this(), std::move(self),
                                                     connection, envelope));
}

// Stored first, then woken: a woken caller always finds its answer.
void ServerSession::take_reply(const Envelope& envelope, std::string_view payload) {
  if (!envelope.call_id) return;
  TOLK_PAUSE_POINT("server_reply.before_store");
  core_.results.store(*envelope.call_id, payload);
  TOLK_PAUSE_POINT("server_reply.stored");
  if (!envelope.token) return;
  if (const auto token = parse_token(*envelope.token)) server_waits().wake(*token);
}

void ServerSession::connection_end(Connection& connection, ssize_t status) {
  check_loop_thread();
  if (status != UV_EOF) {
    core_.logger.plain("Read error %s\n", uv_err_name(static_cast<int>(status)));
  }
  TOLK_PAUSE_POINT("client_end.before_hook");
  call_hook(kHookClosed, connection.id());
  std::erase(connections_, &connection);
  connection_by_id_.erase(connection.id());
  if (std::exchange(connection.active, false)) --core_.client_count;
  core_.logger.formatted("Client Close: %d\n", connection.id());
  TOLK_PAUSE_POINT("client_end.before_close");
  close_handle(&connection.handle);
  connection.reader.reset();
}

}  // namespace tolk
