#include "server/TolkServer.h"

#include <tolk/tolk.h>

#include <new>
#include <string>
#include <utility>

#include "platform/guarded.h"
#include "platform/text.h"
#include "server/server_side.h"
#include "transport/piece_sender.h"

using tolk::guarded;
using tolk::guarded_or;
using Kind = tolk::Endpoint::Kind;

namespace {

tolk::Endpoint server_endpoint(Kind kind, const char* host, const char* port) {
  return {kind, std::string(tolk::text_of(host)), std::string(tolk::text_of(port))};
}

}  // namespace

TolkServer::TolkServer() : side_(std::make_shared<tolk::ServerSide>()) {
  side_->register_builtins();
}

TolkServer::~TolkServer() { release(); }

void TolkServer::release() {
  if (side_) side_->abandon();
  side_.reset();
}

bool TolkServer::ListenPipe(const char* port) {
  return guarded_or(false, [&, side = side()] {
    return side->listen(server_endpoint(Kind::pipe, nullptr, port));
  });
}

bool TolkServer::InitTolkServer(const char* port) {
  return guarded_or(false, [&, side = side()] {
    return side->start(server_endpoint(Kind::pipe, nullptr, port));
  });
}

bool TolkServer::ListenTcp4(const char* host, const char* port) {
  return guarded_or(
      false, [&, side = side()] { return side->listen(server_endpoint(Kind::tcp4, host, port)); });
}

bool TolkServer::ListenTcp6(const char* host, const char* port) {
  return guarded_or(
      false, [&, side = side()] { return side->listen(server_endpoint(Kind::tcp6, host, port)); });
}

bool TolkServer::InitTolkServerTcp4(const char* host, const char* port) {
  return guarded_or(
      false, [&, side = side()] { return side->start(server_endpoint(Kind::tcp4, host, port)); });
}

bool TolkServer::InitTolkServerTcp6(const char* host, const char* port) {
  return guarded_or(
      false, [&, side = side()] { return side->start(server_endpoint(Kind::tcp6, host, port)); });
}

bool TolkServer::run() {
  guarded([side = side()] { side->run(); });
  return true;
}

void TolkServer::SetTimeoutStep(int ms) {
  guarded([&, side = side()] { side->SetTimeoutStep(ms); });
}

bool TolkServer::isok() { return side()->isok(); }

bool TolkServer::close() {
  guarded([side = side()] { side->close(); });
  return true;
}

bool TolkServer::closeasync() {
  guarded([side = side()] { side->closeasync(); });
  return true;
}

TolkParams* TolkServer::SendMsg(int clientid, const char* name, TolkParams* params, int threadid,
                                int timeout) {
  return guarded_or<TolkParams*>(nullptr, [&, side = side()] {
    return side->SendMsg(clientid, name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

TolkParams* TolkServer::PostMsg(int clientid, const char* name, TolkParams* params, int threadid) {
  guarded([&, side = side()] { side->PostMsg(clientid, name, params, threadid); });
  return nullptr;
}

// The client's log sets the level first; the server has its own order.
bool TolkServer::log(char* text, int level) {
  return guarded_or(false, [&, side = side()] {
    const bool has_text = tolk::Logger::set_text(text);
    side->logger.set_level(level);
    return has_text;
  });
}

void TolkServer::method(const char* name, IServerMethod* m) {
  guarded([&, side = side()] { side->method(name, m); });
}

void TolkServer::methodall(IMethodAll* m) {
  guarded([&, side = side()] { side->methods.set_all(m); });
}

int TolkServer::GetPort() { return side()->port; }

int TolkServer::GetClientCount() { return side()->client_count; }

bool TolkServer::IsPipe() { return side()->is_pipe; }

void TolkServer::SetCustomReleaseEvent() { side()->custom_release = true; }

void TolkServer::SetBigfileBufferSize(int size) { tolk::piece_bytes() = size; }

void TolkServer::ClearRetvalMem() {
  guarded([side = side()] { side->results.clear(); });
}

extern "C" {

IServer* CreateServer() {
  return guarded_or<IServer*>(nullptr, [] { return new TolkServer; });
}

void DestroyServer(IServer* server) {
  if (server == nullptr) return;
  if (server->IsPipe()) {
    server->closeasync();
  } else {
    server->close();
  }
  // On purpose the destructor does not run: no handler is released that the close above kept.
  auto* const facade = static_cast<TolkServer*>(server);
  facade->release();
  ::operator delete(facade);
}

}  // extern "C"
