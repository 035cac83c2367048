#include "capi/client_core.h"

#include <algorithm>
#include <utility>

#include "capi/block.h"
#include "capi/hook_task.h"
#include "params/encoder.h"
#include "transport/reserved_names.h"
#include "transport/token.h"

namespace tolk {
namespace {

constexpr std::int32_t kUsualConnectLimitMs = 10000;
constexpr unsigned kRetryMs = 20;
constexpr std::uint64_t kNanosecondsPerMs = 1000000;

}  // namespace

ClientCore::ClientCore(Endpoint where, std::string address, CoreSettings settings,
                       const tolk_client_options& options)
    : Core(Side::client, std::move(address), std::move(settings)),
      where_(std::move(where)),
      patience_ms_(options.patience_ms),
      connect_limit_ms_(options.connect_limit_ms == 0 ? kUsualConnectLimitMs
                                                      : options.connect_limit_ms),
      rules_(rules_of(options.most_frame_bytes)),
      on_gone_(options.on_gone) {
  handle_.core = this;
}

std::shared_ptr<Core> ClientCore::shared() {
  return std::static_pointer_cast<ClientCore>(shared_from_this());
}

// Host.

tolk_status ClientCore::fail_connect(tolk_status status, const std::string& reason,
                                     tolk_error** error) const {
  Failure failure;
  failure.status = status;
  failure.address = address();
  failure.reason = reason;
  if (status == TOLK_NOT_CONNECTED) failure.code = attempt_status_;
  if (!refused_user_.empty()) failure.peer = refused_user_;
  if (status == TOLK_REFUSED && refused_user_.empty()) {
    failure.wanted = kVersionText;
    failure.found = server_version_;
  }
  return fail(error, std::move(failure));
}

bool ClientCore::attempt() {
  const auto session = std::make_shared<ClientSession>(*this, where_);
  set_session(session);
  if (session->start_thread()) session->wait_until_decided();
  if (session->phase() == Phase::live) return true;
  session->wait_until_ended();
  return false;
}

tolk_status ClientCore::connect(tolk_error** error) {
  const std::uint64_t begin = uv_hrtime();
  const auto patience = static_cast<std::uint64_t>(std::max(patience_ms_, 0)) * kNanosecondsPerMs;
  while (!attempt()) {
    if (!refused_user_.empty()) {
      return fail_connect(TOLK_REFUSED, "the server is another user's", error);
    }
    if (attempt_status_ == UV_ETIMEDOUT) {
      return fail_connect(TOLK_TIMED_OUT, "the server does not answer", error);
    }
    if (patience_ms_ >= 0 && uv_hrtime() - begin >= patience) {
      return fail_connect(TOLK_NOT_CONNECTED, "nobody listens there", error);
    }
    uv_sleep(kRetryMs);
  }
  return check_version(error);
}

tolk_status ClientCore::check_version(tolk_error** error) {
  auto record = std::make_shared<CallRecord>(false);
  record->number = next_token();
  record->method = kMethodVersion;
  record->deadline =
      connect_limit_ms_ < 0
          ? UINT64_MAX
          : uv_hrtime() + static_cast<std::uint64_t>(connect_limit_ms_) * kNanosecondsPerMs;
  std::string arguments;
  Encoder<std::string> encoder(arguments, 0);
  encoder.add_key(kKeyVersion);
  encoder.add_string(kVersionText);
  const Content content{copy_of(arguments), {}};
  version_check_ = record->number;
  const auto server = peer(0);
  if (!server) return fail_connect(TOLK_GONE, "the server has ended the connection", error);
  start_internal(record, server, &content, {{}, kOwnFeatures});
  const tolk_status status = wait(record->number, nullptr, error);
  if (status != TOLK_OK) return status;
  if (same_version_) return TOLK_OK;
  return fail_connect(TOLK_REFUSED, "the server has another version", error);
}

void ClientCore::ask_for_end(Session& session) {
  static_cast<ClientSession&>(session).ask_for_close();
}

// Any thread.
void ClientCore::disconnect(Peer&) {
  run_on_loop([self = std::static_pointer_cast<ClientCore>(shared_from_this())] {
    enter_loop();
    const auto server = self->peer(0);
    if (!server || server->stream() == nullptr) return;
    PeerStream& stream = *server->stream();
    stream.owner().on_stream_end(stream, UV_ECANCELED);
  });
}

// Loop.

bool ClientCore::on_connected(uv_loop_t* loop, const Endpoint&) {
  if (!open_deadlines(loop)) return false;
  const auto server =
      std::make_shared<Peer>(*this, 0, address(), settings().most_queued_bytes, PeerQuota());
  PeerStream& stream = static_cast<ClientSession&>(*session()).stream();
  stream.set_user(server);
  server->on_hook_begun();
  server->open(stream);
  add_peer(server);
  return true;
}

void ClientCore::on_message(PeerStream& stream, SharedBytes payload) {
  receive(std::static_pointer_cast<Peer>(stream.user()), payload);
}

void ClientCore::on_reply(Peer& peer, const Message& reply) {
  if (!reply.plain.token || parse_token(*reply.plain.token) != version_check_.load()) return;
  if (reply.features) peer.note_features(*reply.features);
  same_version_ = reply.first_is_true;
  server_version_ = reply.version;
  is_connected_ = same_version_;
  version_check_ = 0;
}

void ClientCore::lose_server(tolk_status status) {
  if (const auto server = peer(0)) lose(server, status);
}

void ClientCore::on_peer_lost(const std::shared_ptr<Peer>&, tolk_status status) {
  if (on_gone_ == nullptr || status != TOLK_GONE || !is_connected_) return;
  Failure failure;
  failure.status = TOLK_GONE;
  failure.address = address();
  callbacks().dispatch(make_hook([this, why = ErrorRef(new_error(std::move(failure)))] {
                         on_gone_(settings().context.get(), &handle_, why.get());
                       }),
                       Callbacks::When::later);
}

}  // namespace tolk
