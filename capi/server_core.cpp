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
constexpr std::int32_t kUsualHelloLimitMs = 60000;

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

// Tells the host of a client. The client keeps it until it is pushed; then it keeps the client.
class ServerCore::ClientHook final : public tolk_task {
 public:
  ClientHook(ServerCore& core, Hook hook)
      : tolk_task(Kind::hook, false), core_(core), hook_(hook) {}

  std::shared_ptr<Peer> client;

 private:
  void run_claimed() override {
    const auto peer = std::move(client);
    peer->on_hook_begun();
    hook_(core_.settings().context.get(), &core_.handle_, &peer->shown());
    peer->dispatch_next(peer->hooks());
  }

  ServerCore& core_;
  const Hook hook_;
};

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
      hello_limit_ms_(options.hello_limit_ms == 0 ? kUsualHelloLimitMs : options.hello_limit_ms),
      hello_limits_(
          [this](std::uint64_t number) {
            enter_loop();
            end_silent_client(number);
          },
          [this](std::uint64_t number) { return silent_streams_.lock()->contains(number); }) {
  handle_.core = this;
}

std::shared_ptr<Core> ServerCore::shared() {
  return std::static_pointer_cast<ServerCore>(shared_from_this());
}

// Host.

tolk_status ServerCore::listen(tolk_error** error) {
  const WorkerPool::Blocked others_may_run;
  prepare_stopped_hook();
  const auto session = std::make_shared<ServerSession>(*this, endpoint_of(where_));
  set_session(session);
  if (session->start_thread()) session->wait_until_decided();
  if (session->phase() == Phase::live) return TOLK_OK;
  session->wait_until_ended();
  if (listen_status_ == UV_ENOMEM) return fail_without_memory(error);
  Failure failure;
  failure.status = TOLK_CANNOT_LISTEN;
  failure.address = address();
  failure.code = listen_status_;
  failure.reason = uv_strerror(listen_status_);
  return fail(error, std::move(failure));
}

std::size_t ServerCore::clients(std::uint64_t* ids, std::size_t capacity) const {
  if (!of_this_process()) return 0;
  const Peers all = peers();
  std::size_t count = 0;
  for (const auto& [id, peer] : all) {
    if (count < capacity) ids[count] = id;
    ++count;
  }
  return count;
}

bool ServerCore::disconnect_client(std::uint64_t id) {
  if (!of_this_process()) return false;
  const auto client = peer(id);
  if (!client) return false;
  client->disconnect();
  return true;
}

void ServerCore::begin_draining() {
  run_on_loop([self = std::static_pointer_cast<ServerCore>(shared_from_this())] {
    enter_loop();
    static_cast<ServerSession&>(*self->session()).stop_listening();
  });
}

// Loop.

bool ServerCore::on_listening(uv_loop_t* loop, const Endpoint&) {
  if (!open_deadlines(loop) || hello_limits_.open(loop) != 0) return false;
  const auto& listening = static_cast<ServerSession&>(*session());
  const Endpoint bound = listening.bound_address();
  set_address(Address{bound, std::nullopt}.text());
  if (listening.is_tcp()) port_ = bound.port();
  log(TOLK_INFO, [&] { return address() + ": listening"; });
  return true;
}

std::shared_ptr<Peer> ServerCore::new_peer(PeerStream& stream) {
  Peer::Identity identity{next_client_id(), address(), {}, 0};
  sockaddr_storage name{};
  int size = sizeof name;
  if (!static_cast<ServerSession&>(*session()).is_tcp()) {
    identity.note_user_of(&stream.handle().pipe);
  } else if (uv_tcp_getpeername(&stream.handle().tcp, reinterpret_cast<sockaddr*>(&name), &size) ==
             0) {
    identity.address = text_of(name);
  }
  auto peer = Peer::make(*this, std::move(identity), settings().most_queued_bytes, quota_);
  peer->set_hooks(make_client_hook(on_connect_), make_client_hook(on_gone_));
  const auto silent = silent_.find(stream.id());
  if (silent != silent_.end()) {
    silent_streams_.lock()->erase(silent->second);
    silent_.erase(silent);
  }
  by_stream_[stream.id()] = peer;
  peer->open(stream);
  stream.set_user(peer);
  return peer;
}

// Without memory, the client has no limit.
void ServerCore::expect_hello(int stream) {
  if (hello_limit_ms_ < 0) return;
  guarded([&] {
    enter_loop();
    const std::uint64_t number = ++last_hello_;
    silent_[stream] = number;
    silent_streams_.lock()->emplace(number, stream);
    const auto limit = static_cast<std::uint64_t>(hello_limit_ms_) * kNanosecondsPerMs;
    if (hello_limits_.add(uv_hrtime() + limit, number)) hello_limits_.arm();
  });
}

void ServerCore::end_silent_client(std::uint64_t number) {
  int id = 0;
  {
    const auto streams = silent_streams_.lock();
    const auto at = streams->find(number);
    if (at == streams->end()) return;
    id = at->second;
  }
  log(TOLK_WARNING, [&] { return address() + ": a client has sent nothing in time"; });
  auto& current = static_cast<ServerSession&>(*session());
  PeerStream* const stream = current.find(id);
  if (stream != nullptr && current.takes_messages()) current.on_stream_end(*stream, UV_ETIMEDOUT);
}

void ServerCore::on_client_refused(const std::string& user) {
  log(TOLK_WARNING, [&] { return address() + ": refused " + user; });
}

// A client that has gone counts while handlers have its requests.
bool ServerCore::may_accept(std::size_t count) {
  std::erase_if(leaving_, [](const std::weak_ptr<Peer>& leaving) {
    const auto peer = leaving.lock();
    return !peer || peer->requests() == 0;
  });
  if (count + leaving_.size() < most_clients_) return true;
  log(TOLK_WARNING, [&] { return address() + ": refused a client, there are too many"; });
  return false;
}

// A client is one from its first message on, and the host hears of it before its calls begin.
void ServerCore::on_message(PeerStream& stream, SharedBytes payload) {
  auto peer = std::static_pointer_cast<Peer>(stream.user());
  if (peer && (peer->is_gone() || peer->holds_back(payload))) return;
  const bool is_new = !peer;
  if (is_new) peer = new_peer(stream);
  if (is_new && Message::scan(payload.view).plain.name != kMethodVersion) {
    add_peer(peer);
    announce(peer);
  }
  receive(peer, payload);
}

// A client whose first reply could not be written has gone before the host has heard of it.
void ServerCore::announce(const std::shared_ptr<Peer>& peer) {
  if (peer->is_gone()) return;
  log(TOLK_INFO, [&] { return peer->name() + " connected from " + peer->shown().address; });
  peer->note_announced();
  const auto hook = peer->take_connect_hook();
  if (!hook) return peer->on_hook_begun();
  push_hook(peer, hook);
}

std::shared_ptr<tolk_task> ServerCore::make_client_hook(Hook hook) {
  if (hook == nullptr) return nullptr;
  return std::make_shared<ClientHook>(*this, hook);
}

void ServerCore::push_hook(const std::shared_ptr<Peer>& peer,
                           const std::shared_ptr<tolk_task>& hook) {
  static_cast<ClientHook&>(*hook).client = peer;
  if (peer->hooks().push(hook)) callbacks().dispatch(hook, Callbacks::When::later);
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
  Frame reply = reply_message(Side::server, ids, {copy_of(yes), {}});
  Failure failure;
  failure.status = TOLK_CLOSED;
  failure.address = address();
  failure.reason = "a client has stopped the server";
  ErrorRef why(new_error(std::move(failure)));
  peer.send(std::move(reply), false);  // from here on there is need of no memory
  const auto current = session();
  if (!current->enter(Phase::close_asked)) return;
  log(TOLK_INFO, [&] { return peer.name() + " has stopped the server"; });
  static_cast<ServerSession&>(*current).close_here(stream);
  tell_stopped(std::move(why));
}

void ServerCore::prepare_stopped_hook() {
  if (on_stopped_ == nullptr) return;
  stopped_hook_ =
      make_hook([this] { on_stopped_(settings().context.get(), &handle_, stopped_why_.get()); });
}

void ServerCore::tell_stopped(ErrorRef why) {
  const auto hook = std::move(stopped_hook_);
  if (!hook) return;
  stopped_why_ = std::move(why);
  callbacks().dispatch(hook, Callbacks::When::later);
}

void ServerCore::on_broken_off() {
  on_loop_ending(TOLK_CLOSED);
  finish_closing();
  log(TOLK_WARNING, [&] { return address() + ": stopped, there is no memory to go on"; });
  tell_stopped(ErrorRef(no_memory_error()));
}

void ServerCore::on_client_gone(int id, int status) {
  if (const auto silent = silent_.find(id); silent != silent_.end()) {
    silent_streams_.lock()->erase(silent->second);
    silent_.erase(silent);
  }
  const auto at = by_stream_.find(id);
  if (at == by_stream_.end()) return;
  const auto peer = at->second;
  by_stream_.erase(at);
  if (status == UV_EPROTO || status == UV_ENOMEM) {
    log(TOLK_WARNING, [&] {
      return peer->name() + (status == UV_EPROTO ? " has sent a broken frame"
                                                 : " is disconnected, there is no memory");
    });
  }
  lose(peer, TOLK_GONE);
}

void ServerCore::on_peer_lost(const std::shared_ptr<Peer>& peer, tolk_status) {
  if (most_clients_ != SIZE_MAX && peer->requests() != 0) {
    guarded([&] {
      enter_loop();
      leaving_.push_back(peer);
    });
  }
  if (!peer->is_announced()) return;
  log(TOLK_INFO, [&] { return peer->name() + " has gone"; });
  const auto hook = peer->take_gone_hook();
  if (hook) push_hook(peer, hook);
}

}  // namespace tolk
