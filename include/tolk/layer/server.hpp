/// @file
/// A server: its methods, its clients, and calls to clients.
#pragma once

#include <tolk/layer/method.hpp>

namespace tolk {
inline namespace v1 {
/// @cond internal
namespace detail {
class ServerCore final : public Core {
 public:
  using Core::Core;

  void listen(const Address& where) {
    std::unique_lock<std::mutex> lock(mutex_);
    const char* const wrong = closed_                 ? "a closed server can't listen again"
                              : link_ || is_starting_ ? "this server listens already"
                                                      : nullptr;
    if (wrong != nullptr) throw Error(Errc::misuse, "", where.text(), wrong);
    is_starting_ = true;
    lock.unlock();
    tolk_server_options wanted{};
    fill(wanted, new std::shared_ptr<Core>(shared_from_this()),
         delete_context<std::shared_ptr<Core>>);
    wanted.clients_may_stop = options.clients_may_stop;
    wanted.on_connect = run_hook<&ServerCore::on_connect>;
    wanted.on_gone = run_hook<&ServerCore::on_closed>;
    wanted.on_stopped = [](void* of, tolk_server*, const tolk_error*) {
      self_of(of).stopped_ = true;
    };
    tolk_server* server = nullptr;
    CError error;
    tolk_server_listen(where.text().c_str(), &wanted, &server, error.place());
    lock.lock();
    is_starting_ = false;
    changed_.notify_all();
    if (server == nullptr) throw listen_error(error.get());
    link_ = std::make_shared<Link>(server);
    address_ = tolk_server_address(server);
    port_ = tolk_server_port(server);
    lock.unlock();
    if (closed_) end_link(link(), true);  // by another thread, which found no link
  }

  void close(bool is_destroyed) {
    note_change(true);
    end_link(link(), is_destroyed);
    if (is_destroyed) forget_methods();
  }

  bool listening() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return link_ && !closed_ && !stopped_;
  }
  void wait() {
    const auto link = this->link();
    if (!link) throw Error(Errc::misuse, "", "", "this server does not listen");
    if (const Link::Use use = Link::use(link)) tolk_server_wait_closed(use->server(), TOLK_FOREVER);
  }
  int port() const { return port_; }

  std::vector<ClientId> clients() const {
    std::vector<ClientId> ids;
    const Link::Use use = Link::use(link());
    if (!use || closed_) return ids;
    std::size_t count = tolk_server_clients(use->server(), nullptr, 0);
    do {
      ids.resize(count);
      count = tolk_server_clients(use->server(), ids.data(), ids.size());
    } while (count > ids.size());
    ids.resize(count);
    return ids;
  }
  bool disconnect(ClientId client) {
    const Link::Use use = Link::use(link());
    return use && tolk_server_disconnect(use->server(), client);
  }

  Function<void(ClientId)> on_connect;
  Function<void(ClientId)> on_closed;

 private:
  static ServerCore& self_of(void* context) { return static_cast<ServerCore&>(core_of(context)); }

  template <Function<void(ClientId)> ServerCore::*Hook>
  static void run_hook(void* of, tolk_server*, const tolk_peer* peer) {
    const Scope scope(&self_of(of));
    if (const auto& hook = self_of(of).*Hook) hook(peer->client);
  }

  static Error listen_error(const tolk_error* error) {
    if (errc_of(error) != Errc::cannot_listen) return to_error(error);
    const std::string reason = tolk_error_reason(error);
    const std::string where = tolk_error_address(error);
    const bool is_pipe = where.starts_with("pipe:");
    const bool denied = reason == "permission denied";
    std::string_view hint;  // for a failure other than a taken address
    if (reason == "address not available") hint = "use an address that this machine has";
    if (denied && !is_pipe) {
      hint = "choose a port from 1024 on: lower ones are not for every user";
    } else if (denied || reason == "not a directory") {
      hint =
          "see that the directory of the pipes, and what is in it, is this user's alone: "
          "tolk(7), FILES";
    }
    return Error(Errc::cannot_listen, "", where, "can't listen: " + reason, hint)
        .with(tolk_error_code(error), {});
  }

  Error unconnected(const std::string& method, ClientId to) const override {
    return {Errc::not_connected, method, text_of(to, address()),
            "not connected: the server does not listen", "let the server listen, then call"};
  }

  std::atomic<int> port_{0};
  std::atomic<bool> stopped_{false};
};
}  // namespace detail
/// @endcond

/// A server. It listens from `listen` until it is closed or destroyed.
/// Hooks run where handlers run: on_connect of a client before its calls, on_closed after it. A
/// moved-from server can only be destroyed or assigned to. Failure: `listen` and `wait` throw
/// tolk::Error.
class Server : public Calls<Server, ClientId>, public Endpoint<Server, detail::ServerCore> {
 public:
  /// A server that does not listen.
  explicit Server(const Options& options = {}) : Endpoint(options) {}

  /// Sets the hook for new clients. It gets the client's id, and may call the client.
  Server& on_connect(Function<void(ClientId client)> hook) {
    core_->on_connect = std::move(hook);
    return *this;
  }
  /// Sets the hook for ended connections. It gets the client's id.
  Server& on_closed(Function<void(ClientId client)> hook) {
    core_->on_closed = std::move(hook);
    return *this;
  }
  /// Starts to listen and returns. Throws tolk::Error: Errc::bad_address or Errc::cannot_listen.
  void listen(const Address& where) { core_->listen(where); }
  /// Returns whether the server listens.
  bool listening() const { return core_->listening(); }
  /// Waits until another thread or a client closes the server. Throws Errc::misuse without listen.
  void wait() { core_->wait(); }
  /// Returns the port of a TCP server, otherwise 0.
  int port() const { return core_->port(); }

  /// Returns the ids of the connected clients; none after a close.
  std::vector<ClientId> clients() const { return core_->clients(); }
  /// Ends the connection of a client. Returns whether there was one.
  bool disconnect(ClientId client) { return core_->disconnect(client); }
  /// Posts a call to all clients. Errc::busy: some did not get it, because too much waits for them.
  template <class... Args>
  Result<void> broadcast(std::string_view method, const Args&... args) {
    return this->post(TOLK_ALL, method, args...);
  }

 private:
  friend class Calls<Server, ClientId>;
  detail::Callee callee(ClientId client) const { return {core_, client}; }
};

}  // namespace v1
}  // namespace tolk
