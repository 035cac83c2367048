// A client of the C interface.
//
// Thread: any, but where TOLK_LOOP says otherwise. Owner: as every Core. Failure: as every Core.
#pragma once

#include <tolk/c.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>

#include "capi/core.h"
#include "capi/handle.h"
#include "sessions/client_session.h"

namespace tolk {
class ClientCore;
}  // namespace tolk

struct tolk_client : tolk::Handle<tolk::ClientCore> {};

namespace tolk {

class ClientCore final : public Core, public ClientEvents {
 public:
  ClientCore(Endpoint where, std::string address, CoreSettings settings,
             const tolk_client_options& options);

  tolk_status connect(tolk_error** error);
  std::shared_ptr<Core> shared() override;
  tolk_client* client_handle() override { return &handle_; }

 private:
  // Host.
  bool attempt();
  tolk_status check_version(tolk_error** error);
  tolk_status fail_connect(tolk_status status, const std::string& reason, tolk_error** error) const;
  bool may_try_again(std::uint64_t begin, unsigned attempts) const;

  // The thread that connects, and the loop thread.
  void note_part_of_gone();

  // Loop.
  void on_message(PeerStream& stream, SharedBytes payload) TOLK_LOOP override;
  void on_reply(Peer& peer, const Message& reply) TOLK_LOOP override;
  void on_peer_lost(const std::shared_ptr<Peer>& peer, tolk_status status) TOLK_LOOP override;
  void lose_server(tolk_status status) TOLK_LOOP;
  void on_starting(const Endpoint&) TOLK_LOOP override {}
  void on_setup_failed(const Endpoint&, SetupStep) TOLK_LOOP override {}
  void on_server_refused(const std::string& user) TOLK_LOOP override { refused_user_ = user; }
  bool on_connected(uv_loop_t* loop, const Endpoint& where) TOLK_LOOP override;
  void on_server_gone(int) TOLK_LOOP override { lose_server(TOLK_GONE); }
  void on_lost() TOLK_LOOP override;
  void on_closing() TOLK_LOOP override { on_loop_ending(TOLK_CLOSED); }
  void on_closed() TOLK_LOOP override { finish_closing(); }
  void on_run_out(const Endpoint&) TOLK_LOOP override {}
  void on_broken_off() TOLK_LOOP override;
  bool begins_calls_when_lost() const override { return false; }
  int connect_limit_ms() const override { return std::max(connect_limit_ms_, 0); }
  void on_attempt_failed(int status) TOLK_LOOP override { attempt_status_ = status; }
  StreamRules stream_rules() const override { return rules_; }

  const Endpoint where_;
  const std::int32_t patience_ms_;
  const std::int32_t connect_limit_ms_;
  const StreamRules rules_;
  void (*const on_gone_)(void* context, tolk_client* client, const tolk_error* why);
  tolk_client handle_;
  // Made with the connection, so that its end needs no memory. It is dispatched when the connect
  // has succeeded and the server has gone: by whoever comes second.
  std::shared_ptr<tolk_task> gone_hook_;
  std::atomic<int> gone_parts_left_{2};
  // Of the latest attempt: by the loop thread, before the attempt is decided.
  int attempt_status_ = 0;
  std::uint64_t attempt_begin_ = 0;  // the host's
  bool has_connected_ = false;
  std::string refused_user_;
  std::atomic<std::uint64_t> version_check_{0};
  // What the server says about its version: by the loop thread, before the check is completed.
  bool same_version_ = false;
  std::string server_version_;
};

}  // namespace tolk
