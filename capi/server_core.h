// A server of the C interface.
//
// Thread: any, but where TOLK_LOOP says otherwise. Owner: as every Core. Failure: as every Core.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "capi/address.h"
#include "capi/core.h"
#include "capi/handle.h"
#include "sessions/server_session.h"

namespace tolk {
class ServerCore;
}  // namespace tolk

struct tolk_server : tolk::Handle<tolk::ServerCore> {};

namespace tolk {

class ServerCore final : public Core, public ServerEvents {
 public:
  ServerCore(Address where, CoreSettings settings, const tolk_server_options& options);

  tolk_status listen(tolk_error** error);
  std::shared_ptr<Core> shared() override;
  tolk_server* server_handle() override { return &handle_; }
  int port() const { return port_; }
  std::size_t clients(std::uint64_t* ids, std::size_t capacity) const;
  bool disconnect_client(std::uint64_t id);

 private:
  using Hook = void (*)(void* context, tolk_server* server, const tolk_peer* client);
  class ClientHook;

  void begin_draining() override;
  void prepare_stopped_hook();

  // Loop.
  void on_message(PeerStream& stream, SharedBytes payload) TOLK_LOOP override;
  std::shared_ptr<Peer> new_peer(PeerStream& stream) TOLK_LOOP;
  bool answers_itself(Peer& peer, const Message& call) TOLK_LOOP override;
  void answer_version_check(Peer& peer, const Message& call) TOLK_LOOP;
  void announce(const std::shared_ptr<Peer>& peer) TOLK_LOOP;
  void stop(Peer& peer, const Message& call) TOLK_LOOP;
  void on_peer_lost(const std::shared_ptr<Peer>& peer, tolk_status status) TOLK_LOOP override;
  std::shared_ptr<tolk_task> make_client_hook(Hook hook);
  void push_hook(const std::shared_ptr<Peer>& peer,
                 const std::shared_ptr<tolk_task>& hook) TOLK_LOOP;
  void tell_stopped(ErrorRef why) TOLK_LOOP;
  void expect_hello(int stream) TOLK_LOOP;
  void end_silent_client(std::uint64_t number) TOLK_LOOP;

  void on_starting(const Endpoint&) TOLK_LOOP override {}
  void on_listen_failed(const char*, int status) TOLK_LOOP override { listen_status_ = status; }
  void on_loop_failed(int status) TOLK_LOOP override { listen_status_ = status; }
  bool on_listening(uv_loop_t* loop, const Endpoint& where) TOLK_LOOP override;
  void on_connection_error() TOLK_LOOP override {}
  void on_connecting(int) TOLK_LOOP override {}
  void on_accept_failed() TOLK_LOOP override {}
  void on_accepted(int id, bool, int) TOLK_LOOP override { expect_hello(id); }
  void on_client_refused(const std::string& user) TOLK_LOOP override;
  void on_first_read(int) TOLK_LOOP override {}
  void on_client_gone(int id, int status) TOLK_LOOP override;
  void on_client_left(int, bool) TOLK_LOOP override {}
  bool on_delivery() TOLK_LOOP override { return true; }
  bool removes_port_file() const override { return false; }
  bool keeps_connections() const override { return false; }
  bool may_accept(std::size_t count) TOLK_LOOP override;
  StreamRules stream_rules() const override { return rules_; }
  void on_closing() TOLK_LOOP override { on_loop_ending(TOLK_CLOSED); }
  void on_closed() TOLK_LOOP override { finish_closing(); }
  void on_broken_off() TOLK_LOOP override;
  void on_closing_async() TOLK_LOOP override {}
  void on_closed_async() TOLK_LOOP override {}

  const Address where_;
  const bool clients_may_stop_;
  const Hook on_connect_;
  const Hook on_gone_;
  void (*const on_stopped_)(void* context, tolk_server* server, const tolk_error* why);
  const PeerQuota quota_;
  const std::size_t most_clients_;
  const StreamRules rules_;
  const std::int32_t hello_limit_ms_;
  tolk_server handle_;
  // By the loop thread, before the start is decided.
  int port_ = 0;
  int listen_status_ = UV_ENOMEM;  // unless another failure is told
  // Made before the session, so that its end needs no memory.
  std::shared_ptr<tolk_task> stopped_hook_;
  ErrorRef stopped_why_;
  // By the id of the stream.
  std::unordered_map<int, std::shared_ptr<Peer>> by_stream_ TOLK_GUARDED_BY(loop_role);
  // Clients that have gone and may have left requests; only with a bound for clients.
  std::vector<std::weak_ptr<Peer>> leaving_ TOLK_GUARDED_BY(loop_role);
  // Clients that have sent nothing yet: the number of the limit by the stream, and the reverse.
  Deadlines hello_limits_;
  std::uint64_t last_hello_ TOLK_GUARDED_BY(loop_role) = 0;
  std::unordered_map<int, std::uint64_t> silent_ TOLK_GUARDED_BY(loop_role);
  Guarded<std::unordered_map<std::uint64_t, int>> silent_streams_;
};

}  // namespace tolk
