#include "capi/server_core.h"

#include <array>
#include <utility>

#include "capi/hook_task.h"
#include "params/encoder.h"
#include "params/parser.h"
#include "platform/text.h"
#include "transport/reserved_names.h"

namespace tolk {
namespace {

constexpr std::size_t kUsualClientBytes = std::size_t{64} << 20;
constexpr unsigned kUsualClientRequests = 1000;

// Of all servers of the process.
std::uint64_t next_client_id() {
  static constinit std::atomic<std::uint64_t> last{0};
  return ++last;
}

PeerQuota quota_of(const tolk_server_options& options) {
  return {options.most_client_bytes == 0 ? kUsualClientBytes : options.most_client_bytes,
          options.most_client_requests == 0 ? kUsualClientRequests : options.most_client_requests};
}

std::string text_of(const sockaddr_storage& address) {
  std::array<char, INET6_ADDRSTRLEN> host{};
  if (address.ss_family == AF_INET6) {
    const auto& six = reinterpret_cast<const sockaddr_in6&>(address);
    uv_ip6_name(&six, host.data(), host.size());
    return "tcp6:[" + std::string(host.data()) + "]:" + std::to_string(ntohs(six.sin6_port));
  }
  const auto& four = reinterpret_cast<const sockaddr_in&>(address);
  uv_ip4_name(&four, host.data(), host.size());
  return "tcp4:" + std::string(host.data()) + ":" + std::to_string(ntohs(four.sin_port));
}

Endpoint endpoint_of(const Address& where) {
  Endpoint endpoint = where.endpoint;
  endpoint.inherited = where.descriptor;
  return endpoint;
}

}  // namespace

ServerCore::ServerCore(Address where, CoreSettings settings, const tolk_server_options& options)
    : Core(Side::server, where.text(), std::move(settings)),
      where_(std::move(where)),
      clients_may_stop_(options.clients_may_stop),
      on_connect_(options.on_connect),
      on_gone_(options.on_gone),
      on_stopped_(options.on_stopped),
      quota_(quota_of(options)),
      most_clients_(options.most_clients == 0 ? SIZE_MAX : options.most_clients),
      rules_(rules_of(options.most_frame_bytes)),
      bound_to_(where_.text()) {
  handle_.core = this;
}

std::shared_ptr<Core> ServerCore::shared() {
  return std::static_pointer_cast<ServerCore>(shared_from_this());
}

// Host.

tolk_status ServerCore::listen(tolk_error** error) {
  const auto session = std::make_shared<ServerSession>(*this, endpoint_of(where_));
  set_session(session);
  if (session->start_thread()) session->wait_until_decided();
  if (session->phase() == Phase::live) return TOLK_OK;
  session->wait_until_ended();
  Failure failure;
  failure.status = TOLK_CANNOT_LISTEN;
  failure.address = address();
  failure.code = listen_status_;
  if (listen_status_ != 0) failure.reason = uv_strerror(listen_status_);
  return fail(error, std::move(failure));
}

std::size_t ServerCore::clients(std::uint64_t* ids, std::size_t capacity) const {
  const Peers all = peers();
  std::size_t count = 0;
  for (const auto& [id, peer] : all) {
    if (count < capacity) ids[count] = id;
    ++count;
  }
  return count;
}

bool ServerCore::disconnect_client(std::uint64_t id) {
  const auto client = peer(id);
  if (!client) return false;
  run_on_loop([client] {
    enter_loop();
    PeerStream* const stream = client->stream();
    if (stream != nullptr) stream->owner().on_stream_end(*stream, UV_ECANCELED);
  });
  return true;
}

void ServerCore::begin_draining() {
  run_on_loop([self = std::static_pointer_cast<ServerCore>(shared_from_this())] {
    enter_loop();
    static_cast<ServerSession&>(*self->session()).stop_listening();
  });
}

void ServerCore::ask_for_end(Session& session) {
  session.enter(Phase::close_asked);
  session.wake_for_end();
}

// Loop.

bool ServerCore::on_listening(uv_loop_t* loop, const Endpoint&) {
  if (!open_deadlines(loop)) return false;
  const auto& listening = static_cast<ServerSession&>(*session());
  const Endpoint bound = listening.bound_address();
  bound_to_ = Address{bound, std::nullopt}.text();
  if (listening.is_tcp()) port_ = bound.port();
  return true;
}

std::shared_ptr<Peer> ServerCore::new_peer(PeerStream& stream) {
  std::string from = bound_to_;
  sockaddr_storage name{};
  int size = sizeof name;
  if (static_cast<ServerSession&>(*session()).is_tcp() &&
      uv_tcp_getpeername(&stream.handle().tcp, reinterpret_cast<sockaddr*>(&name), &size) == 0) {
    from = text_of(name);
  }
  auto peer = std::make_shared<Peer>(*this, next_client_id(), std::move(from),
                                     settings().most_queued_bytes, quota_);
  by_stream_[stream.id()] = peer;
  stream.set_user(peer);
  peer->open(stream);
  return peer;
}

// A client is one from its first message on, and the host hears of it before its calls begin.
void ServerCore::on_message(PeerStream& stream, SharedBytes payload) {
  auto peer = std::static_pointer_cast<Peer>(stream.user());
  const bool is_new = !peer;
  if (is_new) peer = new_peer(stream);
  if (is_new && Message::scan(payload.view).plain.name != kMethodVersion) {
    add_peer(peer);
    announce(peer);
  }
  receive(peer, payload);
}

void ServerCore::announce(const std::shared_ptr<Peer>& peer) {
  if (on_connect_ == nullptr) return peer->on_hook_begun();
  push_hook(peer, on_connect_);
}

void ServerCore::push_hook(const std::shared_ptr<Peer>& peer, Hook hook) {
  const auto task = make_hook([this, peer, hook] {
    peer->on_hook_begun();
    hook(settings().context.get(), &handle_, &peer->shown());
    peer->dispatch_next(peer->hooks());
  });
  if (peer->hooks().push(task)) callbacks().dispatch(task, Callbacks::When::later);
}

bool ServerCore::answers_itself(Peer& peer, const Message& call) {
  if (call.plain.name == kMethodVersion) {
    answer_version_check(peer, call);
    return true;
  }
  if (call.plain.name != kMethodCloseServer || !clients_may_stop_) return false;
  stop(peer, call);
  return true;
}

// The client learns what this side takes only if it has said what it takes itself.
void ServerCore::answer_version_check(Peer& peer, const Message& call) {
  struct VersionSink : IgnoringSink {
    void keyed(std::string_view key, const Scalar& value) {
      if (key == kKeyVersion && value.type == TolkValue::String) version = value.bytes;
    }
    std::string_view version;
  } sink;
  if (call.plain.arguments) parse_records(*call.plain.arguments, sink);
  if (call.features) peer.note_features(*call.features);
  std::string result;
  Encoder<std::string> encoder(result, 0);
  encoder.add_bool(cut_at_zero(sink.version) == kVersionText);
  encoder.add_key(kKeyVersion);
  encoder.add_string(kVersionText);
  // When the client knows that it is connected, the host finds it.
  const bool is_new = !Core::peer(peer.id());
  if (is_new) add_peer(peer.shared_from_this());
  const CallIds ids(call.plain);
  if (ids.wants_reply()) {
    peer.send(
        reply_message(Side::server, ids, {copy_of(result), {}}, call.features ? kOwnFeatures : ""),
        false);
  }
  if (is_new) announce(peer.shared_from_this());
}

// The connection that asked stays open until its reply has arrived.
void ServerCore::stop(Peer& peer, const Message& call) {
  PeerStream* const stream = peer.stream();
  if (stream == nullptr) return;
  std::string yes;
  Encoder<std::string>(yes, 0).add_bool(true);
  CallIds ids(call.plain);
  if (!ids.call_id) ids.call_id = 0;
  peer.send(reply_message(Side::server, ids, {copy_of(yes), {}}), false);
  const auto current = session();
  if (!current->enter(Phase::close_asked)) return;
  lose_all();
  static_cast<ServerSession&>(*current).close_here(stream);
  finish_closing();
  if (on_stopped_ == nullptr) return;
  Failure failure;
  failure.status = TOLK_CLOSED;
  failure.address = address();
  failure.reason = "a client has stopped the server";
  callbacks().dispatch(make_hook([this, why = ErrorRef(new_error(std::move(failure)))] {
                         on_stopped_(settings().context.get(), &handle_, why.get());
                       }),
                       Callbacks::When::later);
}

void ServerCore::on_client_gone(int id, int) {
  const auto at = by_stream_.find(id);
  if (at == by_stream_.end()) return;
  const auto peer = at->second;
  by_stream_.erase(at);
  lose(peer, TOLK_GONE);
}

void ServerCore::on_peer_lost(const std::shared_ptr<Peer>& peer, tolk_status) {
  if (on_gone_ != nullptr) push_hook(peer, on_gone_);
}

}  // namespace tolk
