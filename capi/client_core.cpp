#include "capi/client_core.h"

#include <algorithm>
#include <utility>

#include "capi/block.h"
#include "capi/hook_task.h"
#include "params/encoder.h"
#include "transport/process_exit.h"
#include "transport/reserved_names.h"
#include "transport/token.h"

namespace tolk {
namespace {

constexpr std::int32_t kUsualConnectLimitMs = 10000;
// While nobody listens: the first waits are short, since a server that is being started comes soon.
constexpr std::uint64_t kFirstWaitMs = 1;
constexpr std::uint64_t kLongestWaitMs = 10;
constexpr char kNoAnswer[] = "the server does not answer";

// Of an attempt that fails for another reason than that nobody listens.
const char* hint_of(int status) {
  if (status == UV_EACCES || status == UV_EPERM) return "run it as a user who may use the address";
  if (status == UV_EMFILE || status == UV_ENFILE) return "close files, or allow more open ones";
  return "look at the address and the network";
}

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
  if (status == TOLK_NOT_CONNECTED) {
    failure.code = attempt_status_;
    if (attempt_status_ != UV_ECONNREFUSED && attempt_status_ != UV_ENOENT) {
      failure.reason = uv_strerror(attempt_status_);
      failure.hint = hint_of(attempt_status_);
    }
  }
  if (!refused_user_.empty()) failure.peer = refused_user_;
  if (status == TOLK_REFUSED && refused_user_.empty()) {
    failure.wanted = kVersionText;
    failure.found = server_version_;
  }
  return fail(error, std::move(failure));
}

// A server may end the connection before this thread sees it: that is no attempt to repeat.
bool ClientCore::attempt() {
  const WorkerPool::Blocked others_may_run;
  attempt_begin_ = uv_hrtime();
  has_connected_ = false;
  const auto session = std::make_shared<ClientSession>(*this, where_);
  set_session(session);
  attempt_status_ = UV_ENOMEM;  // unless another failure is told
  if (session->start_thread()) session->wait_until_decided();
  if (session->phase() == Phase::live) return true;
  session->wait_until_ended();
  return has_connected_;
}

// Waits a moment, and never beyond the host's patience. The last attempt is at its end.
bool ClientCore::may_try_again(std::uint64_t begin, unsigned attempts) const {
  const auto patience = static_cast<std::uint64_t>(std::max(patience_ms_, 0)) * kNanosecondsPerMs;
  const std::uint64_t waited = uv_hrtime() - begin;
  if (patience_ms_ >= 0 && waited >= patience) return false;
  std::uint64_t wait_ms = std::min(kFirstWaitMs << std::min(attempts, 8U), kLongestWaitMs);
  if (patience_ms_ >= 0) {
    wait_ms = std::min(wait_ms, (patience - waited + kNanosecondsPerMs - 1) / kNanosecondsPerMs);
  }
  const WorkerPool::Blocked others_may_run;
  uv_sleep(static_cast<unsigned>(wait_ms));
  return true;
}

tolk_status ClientCore::connect(tolk_error** error) {
  const std::uint64_t begin = uv_hrtime();
  for (unsigned attempts = 0; !attempt(); ++attempts) {
    if (!refused_user_.empty()) {
      log(TOLK_WARNING, [&] { return address() + ": the server is " + refused_user_ + "'s"; });
      return fail_connect(TOLK_REFUSED, "the server is another user's", error);
    }
    if (attempt_status_ == UV_ETIMEDOUT) {
      return fail_connect(TOLK_TIMED_OUT, kNoAnswer, error);
    }
    if (attempt_status_ == UV_ENOMEM) return fail_without_memory(error);
    if (process_exits() || !may_try_again(begin, attempts)) {
      return fail_connect(TOLK_NOT_CONNECTED, "nobody listens there", error);
    }
  }
  const tolk_status status = check_version(error);
  log(status == TOLK_OK ? TOLK_INFO : TOLK_WARNING, [&] {
    return address() + ": " + (status == TOLK_OK ? "connected" : tolk_status_name(status));
  });
  return status;
}

tolk_status ClientCore::check_version(tolk_error** error) {
  auto record = std::make_shared<CallRecord>(false);
  record->number = next_token();
  record->method = kMethodVersion;
  record->deadline =
      connect_limit_ms_ < 0
          ? UINT64_MAX
          : attempt_begin_ + static_cast<std::uint64_t>(connect_limit_ms_) * kNanosecondsPerMs;
  std::string arguments;
  Encoder<std::string> encoder(arguments, 0);
  encoder.add_key(kKeyVersion);
  encoder.add_string(kVersionText);
  const Content content{copy_of(arguments), {}};
  version_check_ = record->number;
  const auto server = peer(0);
  if (!server) return fail_connect(TOLK_GONE, "the server has ended the connection", error);
  start_internal(record, server, &content, {{}, kOwnFeatures});
  tolk_error* given = nullptr;
  const tolk_status status = wait(record->number, TOLK_FOREVER, nullptr, &given);
  const ErrorRef why(given);
  // The host has called no method.
  if (status == TOLK_TIMED_OUT) return fail_connect(status, kNoAnswer, error);
  if (status != TOLK_OK) return fail_connect(status, tolk_error_reason(why.get()), error);
  if (!same_version_) {
    return fail_connect(TOLK_REFUSED, "the server has another version", error);
  }
  note_part_of_gone();
  return TOLK_OK;
}

// Loop.

bool ClientCore::on_connected(uv_loop_t* loop, const Endpoint& where) {
  if (!open_deadlines(loop)) return false;
  PeerStream& stream = static_cast<ClientSession&>(*session()).stream();
  Peer::Identity identity{0, address(), {}, 0};
  if (!where.is_tcp()) identity.note_user_of(&stream.handle().pipe);
  const auto server =
      Peer::make(*this, std::move(identity), settings().most_queued_bytes, PeerQuota());
  Failure failure;
  failure.status = TOLK_GONE;
  failure.address = address();
  gone_hook_ = make_hook([this, why = ErrorRef(new_error(std::move(failure)))] {
    on_gone_(settings().context.get(), &handle_, why.get());
  });
  stream.set_user(server);
  server->on_hook_begun();
  server->open(stream);
  add_peer(server);
  has_connected_ = true;
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
  version_check_ = 0;
}

void ClientCore::lose_server(tolk_status status) {
  if (const auto server = peer(0)) lose(server, status);
}

void ClientCore::on_lost() {
  if (!is_open()) finish_closing();
}

void ClientCore::on_broken_off() {
  lose_server(TOLK_GONE);
  on_lost();
}

void ClientCore::on_peer_lost(const std::shared_ptr<Peer>&, tolk_status status) {
  log(TOLK_INFO,
      [&] { return address() + (status == TOLK_GONE ? ": the server has gone" : ": closed"); });
  if (status == TOLK_GONE) note_part_of_gone();
}

// The hook holds this object only while it waits to run.
void ClientCore::note_part_of_gone() {
  if (gone_parts_left_.fetch_sub(1) != 1 || on_gone_ == nullptr || !is_open()) return;
  callbacks().dispatch(std::exchange(gone_hook_, nullptr), Callbacks::When::later);
}

}  // namespace tolk
