#include "tools/tolk/wire/proxied_connection.h"

#include <fmt/format.h>

#include <array>
#include <memory>
#include <utility>
#include <vector>

#include "platform/pipe_name.h"

namespace tolk::tool {

// Bytes that wait until an end accepts them.
struct ProxiedConnection::Write {
  uv_write_t request{};
  std::string bytes;
  End* end = nullptr;
};

HostAndPort host_and_port_from(const sockaddr_storage& address) {
  std::array<char, 64> host{};
  uv_ip_name(reinterpret_cast<const sockaddr*>(&address), host.data(), host.size());
  const bool ipv4 = address.ss_family == AF_INET;
  const std::uint16_t port = ipv4 ? reinterpret_cast<const sockaddr_in&>(address).sin_port
                                  : reinterpret_cast<const sockaddr_in6&>(address).sin6_port;
  return {host.data(), ntohs(port)};
}

sockaddr_storage socket_address(const ProxyAddress& address) {
  sockaddr_storage storage{};
  const char* const host = address.host.c_str();
  if (address.transport == Transport::tcp4) {
    uv_ip4_addr(host, address.port(), reinterpret_cast<sockaddr_in*>(&storage));
  } else {
    uv_ip6_addr(host, address.port(), reinterpret_cast<sockaddr_in6*>(&storage));
  }
  return storage;
}

ProxiedConnection::ProxiedConnection(ConnectionOwner& owner, int number, const ProxyAddress& from,
                                     const ProxyAddress& to)
    : owner_(owner), number_(number), from_(from), to_(to) {
  client_.direction = Direction::to_server;
  server_.direction = Direction::to_client;
}

void ProxiedConnection::begin(uv_stream_t* listener) {
  open(client_, from_.transport);
  open(server_, to_.transport);
  const int error = uv_accept(listener, client_.stream());
  if (error != 0) {
    how_ = fmt::format("cannot accept the client: {}", uv_strerror(error));
    close();
    return;
  }
  connect();
}

void ProxiedConnection::open(End& end, Transport transport) {
  uv_loop_t* const loop = owner_.loop();
  if (transport == Transport::pipe) {
    uv_pipe_init(loop, &end.handle.pipe, 0);
  } else {
    uv_tcp_init(loop, &end.handle.tcp);
  }
  end.connection = this;
  end.handle.handle.data = &end;
  end.open = true;
  ++handles_;
}

void ProxiedConnection::connect() {
  connect_.data = this;
  const auto done = [](uv_connect_t* request, int status) {
    auto* const self = static_cast<ProxiedConnection*>(request->data);
    self->owner_.guarded([&] { self->connected(status); });
  };
  if (to_.transport == Transport::pipe) {
    const platform::PipeAddress pipe = platform::pipe_address(to_.name);
    if (pipe.error == 0) {
      uv_pipe_connect(&connect_, &server_.handle.pipe, pipe.path.c_str(), done);
    } else {
      connected(pipe.error);
    }
    return;
  }
  const sockaddr_storage where = socket_address(to_);
  const int error = uv_tcp_connect(&connect_, &server_.handle.tcp,
                                   reinterpret_cast<const sockaddr*>(&where), done);
  if (error != 0) connected(error);
}

void ProxiedConnection::connected(int status) {
  if (status == UV_ECANCELED) return;
  if (status != 0) {
    how_ = fmt::format("cannot connect to {}: {}", to_.text, uv_strerror(status));
    close(server_);
    reset(client_);
    return;
  }
  for (End* end : {&client_, &server_}) {
    if (end->handle.handle.type == UV_TCP) uv_tcp_nodelay(&end->handle.tcp, 1);
  }
  owner_.watcher().opened(number_, client_address(), server_address());
  read_from(client_);
  read_from(server_);
}

void ProxiedConnection::read_from(End& end) {
  uv_read_start(
      end.stream(),
      [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
        *buffer = static_cast<End*>(handle->data)->connection->owner_.read_buffer();
      },
      [](uv_stream_t* stream, ssize_t size, const uv_buf_t* buffer) {
        End& from = *static_cast<End*>(stream->data);
        ProxiedConnection& self = *from.connection;
        self.owner_.guarded([&] {
          if (size > 0) {
            self.take(from, {buffer->base, static_cast<std::size_t>(size)});
          } else if (size == UV_EOF) {
            self.end_of(from);
          } else if (size < 0) {
            self.broken(from, static_cast<int>(size));
          }
        });
      });
}

void ProxiedConnection::take(End& end, std::string_view bytes) {
  owner_.watcher().passed(number_, end.direction, bytes);
  End& to = other(end);
  send(to, bytes);
  if (!end.open || to.waiting_bytes() <= Proxy::kMostWaitingBytes) return;
  end.paused = true;
  uv_read_stop(end.stream());
}

// Bytes that the socket accepts at once are not copied.
void ProxiedConnection::send(End& end, std::string_view bytes) {
  if (end.write_failed) return;
  if (end.waiting_bytes() == 0) {
    const uv_buf_t all =
        uv_buf_init(const_cast<char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
    const int taken = uv_try_write(end.stream(), &all, 1);
    if (taken > 0) bytes.remove_prefix(static_cast<std::size_t>(taken));
    if (bytes.empty()) return;
  }
  auto write = std::make_unique<Write>();
  write->bytes = bytes;
  write->end = &end;
  write->request.data = write.get();
  const uv_buf_t rest =
      uv_buf_init(write->bytes.data(), static_cast<unsigned>(write->bytes.size()));
  const int error =
      uv_write(&write->request, end.stream(), &rest, 1, [](uv_write_t* request, int status) {
        const std::unique_ptr<Write> done(static_cast<Write*>(request->data));
        ProxiedConnection& self = *done->end->connection;
        self.owner_.guarded([&] { self.written(*done->end, status); });
      });
  if (error != 0) {
    give_up_writing(end);
    return;
  }
  static_cast<void>(write.release());  // its callback frees it
}

void ProxiedConnection::written(End& end, int status) {
  if (!end.open) return;
  if (status != 0) {
    give_up_writing(end);
    return;
  }
  if (end.reset_at_last && end.waiting_bytes() == 0) {
    reset(end);
    return;
  }
  End& from = other(end);
  if (!from.paused || !from.open || end.waiting_bytes() > Proxy::kMostWaitingBytes / 2) return;
  from.paused = false;
  read_from(from);
}

// One side has ended its sending. The bytes that it sent before are written first.
void ProxiedConnection::end_of(End& end) {
  end.ended = true;
  uv_read_stop(end.stream());
  End& to = other(end);
  if (end.write_failed) {
    broken(end, UV_ECONNRESET);
    return;
  }
  if (to.write_failed) {
    broken(to, UV_ECONNRESET);
    return;
  }
  const int error = uv_shutdown(&to.shutdown, to.stream(), [](uv_shutdown_t* request, int status) {
    End& shut = *static_cast<End*>(request->handle->data);
    ProxiedConnection& self = *shut.connection;
    shut.shut = true;
    if (status == UV_ECANCELED || !shut.open) return;
    if (self.client_.shut && self.server_.shut) self.close();
  });
  if (error == 0) return;
  // The peer of that end has disconnected.
  to.shut = true;
  if (client_.ended && server_.ended) close();
}

// The side has disconnected without a proper end.
void ProxiedConnection::broken(End& end, int error) {
  if (!end.open) return;
  if (how_.empty())
    how_ = fmt::format("the {} has disconnected: {}", name_of(end), uv_strerror(error));
  close(end);
  End& to = other(end);
  if (!to.open) return;
  uv_read_stop(to.stream());
  to.ended = true;
  if (to.waiting_bytes() == 0 || to.write_failed) {
    reset(to);
  } else {
    to.reset_at_last = true;
  }
}

// The side accepts no more bytes. Bytes that it sent before may still be readable; after them the
// read fails and the connection ends.
void ProxiedConnection::give_up_writing(End& end) {
  if (end.write_failed) return;
  end.write_failed = true;
  End& from = other(end);
  if (from.open) uv_read_stop(from.stream());
  if (end.ended || end.reset_at_last) broken(end, UV_ECONNRESET);
}

void ProxiedConnection::close() {
  close(client_);
  close(server_);
}

void ProxiedConnection::close(End& end) {
  if (!end.open) return;
  end.open = false;
  uv_close(&end.handle.handle, handle_closed);
}

// The peer then reads an error instead of an end. That is impossible on a pipe, and on a TCP
// connection whose sending has ended.
void ProxiedConnection::reset(End& end) {
  if (!end.open) return;
  const bool tcp = end.handle.handle.type == UV_TCP;
  if (!tcp || uv_tcp_close_reset(&end.handle.tcp, handle_closed) != 0) {
    close(end);
  }
  end.open = false;
}

void ProxiedConnection::handle_closed(uv_handle_t* handle) {
  static_cast<End*>(handle->data)->connection->finish_if_done();
}

void ProxiedConnection::finish_if_done() {
  if (--handles_ > 0) return;
  owner_.guarded([&] { owner_.watcher().closed(number_, how_.empty() ? "closed" : how_); });
  owner_.finished(number_);
}

HostAndPort ProxiedConnection::client_address() const {
  if (from_.transport == Transport::pipe) {
    return {"127.0.0.1", static_cast<std::uint32_t>(number_)};
  }
  sockaddr_storage address{};
  int size = sizeof address;
  uv_tcp_getpeername(&client_.handle.tcp, reinterpret_cast<sockaddr*>(&address), &size);
  return host_and_port_from(address);
}

// The address that the client connected to. For a pipe it is another host than that of the clients.
HostAndPort ProxiedConnection::server_address() const {
  if (from_.transport == Transport::pipe) {
    return {"127.0.0.2", static_cast<std::uint32_t>(from_.port())};
  }
  sockaddr_storage address{};
  int size = sizeof address;
  uv_tcp_getsockname(&client_.handle.tcp, reinterpret_cast<sockaddr*>(&address), &size);
  return host_and_port_from(address);
}

}  // namespace tolk::tool
