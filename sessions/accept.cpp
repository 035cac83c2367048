// Accepting clients, and a client's leaving.
#include <algorithm>
#include <utility>

#include "platform/guarded.h"
#include "platform/peer_user.h"
#include "sessions/server_session.h"

namespace tolk {

void ServerSession::on_connection_cb(uv_stream_t* listener, int status) {
  auto* const session = static_cast<ServerSession*>(listener->data);
  session->check_loop_thread();
  const auto accept = [&] {
    enter_loop();
    session->on_connection(status);
  };
  const auto turn_away = [&](const char*) {
    enter_loop();
    session->turn_away();
  };
  guarded(accept, turn_away);
}

void ServerSession::on_connection(int status) {
  if (status < 0) {
    side_.on_connection_error();
    if (is_shortage(status)) on_no_descriptor();
    return;
  }
  if (!takes_messages()) return;
  if (!side_.may_accept(open_.size())) return turn_away();
  PeerStream& connection = new_connection();
  // What needs memory comes first: a connection that was accepted cannot be put back.
  if (open_.size() == open_.capacity()) open_.reserve(2 * open_.size() + 1);
  open_by_id_[connection.id()] = &connection;
  int accepted = 0;
  if (!is_tcp()) {
    // Before the hook: the host does not hear of a client that is refused.
    accepted = accept(connection);
    if (accepted == 0 && refused(connection)) return;
  }
  // On purpose before the accept where there is no user to look at, and even when that fails.
  side_.on_connecting(connection.id());
  if (!takes_messages()) return;  // the hook has closed the server
  if (is_tcp()) accepted = accept(connection);
  if (accepted != 0) {
    open_by_id_.erase(connection.id());
    side_.on_accept_failed();
    return;
  }
  take_connection(connection);
}

// A client id is never 0 and names one open connection.
PeerStream& ServerSession::new_connection() {
  do {
    all_.push_back(std::make_unique<PeerStream>(*this));
  } while (all_.back()->id() == 0 || open_by_id_.contains(all_.back()->id()));
  return *all_.back();
}

int ServerSession::accept(PeerStream& connection) {
  const int made = connection.init(is_tcp());
  if (made != 0) {
    turn_away();
    return made;
  }
  const int status = uv_accept(&listener_.stream, &connection.handle().stream);
  if (status != 0) close_connection(connection);
  if (status == 0 && is_tcp()) uv_tcp_nodelay(&connection.handle().tcp, 1);
  return status;
}

// Whether the client is another user's. Nothing of it is read; the connection is forgotten, since
// nobody has learnt its id.
bool ServerSession::refused(PeerStream& connection) {
  platform::PeerUser client;  // not trusted: so it stays when there is no memory to ask
  guarded([&] {
    enter_loop();
    client = platform::peer_user(&connection.handle().pipe);
  });
  if (client.trusted) return false;
  open_by_id_.erase(connection.id());
  uv_close(&connection.handle().handle, forget);
  // Last: a log sink may close the server, and with it all handles that are open.
  side_.on_client_refused(client.name);
  return true;
}

void ServerSession::forget(uv_handle_t* handle) {
  auto* const closed = static_cast<PeerStream*>(handle->data);
  auto& session = static_cast<ServerSession&>(closed->owner());
  session.check_loop_thread();
  auto& all = session.all_;
  // From the back: one that is refused came last, or nearly so.
  const auto found = std::find_if(all.rbegin(), all.rend(),
                                  [&](const auto& kept) { return kept.get() == closed; });
  std::swap(*found, all.back());
  all.pop_back();
}

void ServerSession::take_connection(PeerStream& connection) {
  open_.push_back(&connection);
  side_.on_accepted(connection.id(), is_tcp(), static_cast<int>(open_.size()));
  const int status = connection.start_reading();
  if (status != 0 && takes_messages()) end_connection(connection, status);
}

// Accepts a connection into the spare handle and closes it.
void ServerSession::turn_away() {
  if (!takes_messages()) return;
  if (turning_away_) {
    ++waiting_count_;
    return;
  }
  if (turned_away_.init(loop(), is_tcp(), this) != 0) return pause_listening();
  turning_away_ = true;
  uv_accept(&listener_.stream, &turned_away_.stream);
  uv_close(&turned_away_.handle, on_turned_away);
}

void ServerSession::on_turned_away(uv_handle_t* handle) {
  auto* const session = static_cast<ServerSession*>(handle->data);
  session->check_loop_thread();
  session->turning_away_ = false;
  if (session->waiting_count_ == 0) return;
  --session->waiting_count_;
  session->turn_away();
}

void ServerSession::on_stream_end(PeerStream& stream, int status) {
  if (stream.is_muted()) return on_drained_end(stream, status);
  end_connection(stream, status);
}

void ServerSession::end_connection(PeerStream& connection, int status) {
  guarded([&] {
    enter_loop();
    remove_connection(connection, status);
  });
  close_connection(connection);
}

void ServerSession::remove_connection(PeerStream& connection, int status) {
  side_.on_client_gone(connection.id(), status);
  std::erase(open_, &connection);
  open_by_id_.erase(connection.id());
  side_.on_client_left(connection.id(), connection.has_read());
  close_connection(connection);
  connection.drop_pending();
}

void ServerSession::close_connection(PeerStream& connection) {
  if (side_.keeps_connections()) return connection.close();
  if (!connection.is_closing()) uv_close(&connection.handle().handle, forget);
}

}  // namespace tolk
