#include "server/TolkServer.h"

#include <tolk/tolk.h>

#include <new>
#include <string>
#include <utility>

#include "server/core.h"
#include "transport/names.h"
#include "transport/piece_size.h"
#include "transport/shielded.h"

using tolk::shielded;
using tolk::Transport;

namespace {

tolk::Endpoint endpoint(Transport transport, const char* host, const char* port) {
  return {transport, host == nullptr ? "" : host, port == nullptr ? "" : port};
}

}  // namespace

TolkServer::TolkServer() : core_(std::make_shared<tolk::ServerCore>()) {
  core_->register_builtins();
}

TolkServer::~TolkServer() { let_go(); }

void TolkServer::let_go() {
  if (core_) core_->abandon();
  core_.reset();
}

bool TolkServer::ListenPipe(const char* port) {
  return shielded(
      false, [&, core = core()] { return core->listen(endpoint(Transport::pipe, nullptr, port)); });
}

bool TolkServer::InitTolkServer(const char* port) {
  return shielded(
      false, [&, core = core()] { return core->start(endpoint(Transport::pipe, nullptr, port)); });
}

bool TolkServer::ListenTcp4(const char* host, const char* port) {
  return shielded(
      false, [&, core = core()] { return core->listen(endpoint(Transport::tcp4, host, port)); });
}

bool TolkServer::ListenTcp6(const char* host, const char* port) {
  return shielded(
      false, [&, core = core()] { return core->listen(endpoint(Transport::tcp6, host, port)); });
}

bool TolkServer::InitTolkServerTcp4(const char* host, const char* port) {
  return shielded(
      false, [&, core = core()] { return core->start(endpoint(Transport::tcp4, host, port)); });
}

bool TolkServer::InitTolkServerTcp6(const char* host, const char* port) {
  return shielded(
      false, [&, core = core()] { return core->start(endpoint(Transport::tcp6, host, port)); });
}

bool TolkServer::run() {
  shielded([core = core()] { core->run(); });
  return true;
}

void TolkServer::SetTimeoutStep(int ms) {
  shielded([&, core = core()] { core->SetTimeoutStep(ms); });
}

bool TolkServer::isok() { return core()->isok(); }

bool TolkServer::close() {
  shielded([core = core()] { core->close(); });
  return true;
}

bool TolkServer::closeasync() {
  shielded([core = core()] { core->closeasync(); });
  return true;
}

TolkParams* TolkServer::SendMsg(int clientid, const char* name, TolkParams* params, int threadid,
                                int timeout) {
  return shielded<TolkParams*>(nullptr, [&, core = core()] {
    return core->SendMsg(clientid, name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

TolkParams* TolkServer::PostMsg(int clientid, const char* name, TolkParams* params, int threadid) {
  shielded([&, core = core()] { core->PostMsg(clientid, name, params, threadid); });
  return nullptr;
}

// The client's log sets the level first; the server has its own order.
bool TolkServer::log(char* text, int level) {
  return shielded(false, [&, core = core()] {
    const bool has_text = tolk::Logger::set_text(text);
    core->logger.set_level(level);
    return has_text;
  });
}

void TolkServer::method(const char* name, IServerMethod* m) {
  shielded([&, core = core()] { core->method(name, m); });
}

void TolkServer::methodall(IMethodAll* m) {
  shielded([&, core = core()] { core->methods.set_all(m); });
}

int TolkServer::GetPort() { return core()->port; }

int TolkServer::GetClientCount() { return core()->client_count; }

bool TolkServer::IsPipe() { return core()->is_pipe; }

void TolkServer::SetCustomReleaseEvent() { core()->custom_release = true; }

void TolkServer::SetBigfileBufferSize(int size) { tolk::piece_bytes() = size; }

void TolkServer::ClearRetvalMem() {
  shielded([core = core()] { core->results.clear(); });
}

extern "C" {

IServer* CreateServer() {
  return shielded<IServer*>(nullptr, [] { return new TolkServer; });
}

void DestroyServer(IServer* server) {
  if (server == nullptr) return;
  if (server->IsPipe()) {
    server->closeasync();
  } else {
    server->close();
  }
  // On purpose the destructor does not run: no handler is released that the close above kept.
  auto* const door = static_cast<TolkServer*>(server);
  door->let_go();
  ::operator delete(door);
}

}  // extern "C"
