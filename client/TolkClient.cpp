#include "client/TolkClient.h"

#include <tolk/tolk.h>

#include <cstdlib>
#include <new>
#include <utility>

#include "client/core.h"
#include "transport/frame_writer.h"
#include "transport/piece_size.h"
#include "transport/shielded.h"

using tolk::shielded;

namespace {

constexpr unsigned kDestroyPauseMs = 300;

std::string text_or_empty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

// Shared by the copies of a client; the last one ends it.
struct TolkClient::Door {
  std::shared_ptr<tolk::ClientCore> core = std::make_shared<tolk::ClientCore>();

  Door() { core->register_builtins(); }
  ~Door() {
    shielded([this] { core->abandon(); });
  }
  Door(const Door&) = delete;
  Door& operator=(const Door&) = delete;
};

std::list<timeout_sem*>& TolkClient::_vcSem = tolk::client_waits().records();

TolkClient::TolkClient() : door_(std::make_shared<Door>()) {}

std::shared_ptr<tolk::ClientCore> TolkClient::core() const { return door_->core; }

// The bool that the connect operations take has no meaning.

bool TolkClient::InitTolkClient(const char* name, bool) {
  return shielded(false, [&, core = core()] {
    return core->connect({tolk::Transport::pipe, "", text_or_empty(name)});
  });
}

bool TolkClient::InitTolkClientTcp4(const char* host, const char* port, bool) {
  return shielded(false, [&, core = core()] {
    return core->connect({tolk::Transport::tcp4, text_or_empty(host), text_or_empty(port)});
  });
}

bool TolkClient::InitTolkClientTcp6(const char* host, const char* port, bool) {
  return shielded(false, [&, core = core()] {
    return core->connect({tolk::Transport::tcp6, text_or_empty(host), text_or_empty(port)});
  });
}

// On purpose without effect: the stored step is 100 and nothing ever changes it, so the sweep's
// period stays what it is.
void TolkClient::SetTimeoutStep(int) {}

bool TolkClient::isok() { return core()->isok(); }

void TolkClient::close() {
  shielded([core = core()] { core->close(); });
}

TolkParams* TolkClient::SendMsg(const char* name, TolkParams* params, int threadid, int timeout) {
  return shielded<TolkParams*>(nullptr, [&, core = core()] {
    return core->SendMsg(name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

TolkParams* TolkClient::SendMsgFast(const char* name, TolkParams* params, int threadid,
                                    int timeout) {
  return shielded<TolkParams*>(nullptr, [&, core = core()] {
    return core->SendMsgFast(name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

TolkParams* TolkClient::PostMsg(const char* name, TolkParams* params, int threadid) {
  shielded([&, core = core()] { core->PostMsg(name, params, threadid); });
  return nullptr;
}

TolkParams* TolkClient::PostMsgFast(const char* name, TolkParams* params, int threadid) {
  shielded([&, core = core()] { core->PostMsgFast(name, params, threadid); });
  return nullptr;
}

TolkParams* TolkClient::SendMsgEx(const char* name, TolkParams* params, int threadid, int) {
  return shielded<TolkParams*>(
      nullptr, [&, core = core()] { return core->SendMsgEx(name, params, threadid); });
}

bool TolkClient::log(char* text, int level) {
  return shielded(false, [&, core = core()] {
    core->logger.set_level(level);
    return tolk::Logger::set_text(text);
  });
}

void TolkClient::method(const char* name, IServerMethod* handler) {
  shielded([&, core = core()] { core->methods.add_if_absent(name, handler); });
}

void TolkClient::methodall(IMethodAll* handler) {
  shielded([&, core = core()] { core->methods.set_all_if_absent(handler); });
}

void TolkClient::SetCustomReleaseEvent() { core()->custom_release = true; }

void TolkClient::SetBigfileBufferSize(int size) { tolk::piece_bytes() = size; }

int TolkClient::GetBigfileBufferSize() { return tolk::piece_bytes(); }

void TolkClient::ClearRetvalMem() {
  shielded([core = core()] { core->clear_results(); });
}

bool TolkClient::SendMsgLargeData(const char* name, TolkParams* params, int threadid, int timeout) {
  return shielded(false, [&, core = core()] {
    return core->SendMsgLargeData(name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

void TolkClient::ClearMem() {
  shielded([core = core()] { core->ClearMem(); });
}

void TolkClient::closeClient() {
  shielded([core = core()] { core->closeClient(); });
}

int TolkClient::writebuff(uv_stream_t* stream, char* data, int len) {
  return shielded<int>(UV_ENOMEM, [&] {
    if (len < 0) return tolk::refuse_frame(UV_EINVAL);
    return tolk::write_frame(stream, tolk::Frame::copy_of({data, static_cast<std::size_t>(len)}));
  });
}

void TolkClient::write_server_cb(uv_write_t* request, int status) {
  tolk::write_server_cb(request, status);
}

void TolkClient::write_server(uv_write_t*, int status) { core()->connected = status >= 0; }

void TolkClient::sendmsg_timeout_cb(uv_timer_t*) { tolk::client_waits().sweep(); }

void TolkClient::close_sendmsg_timeout_cb(uv_handle_t* handle) { std::free(handle); }

extern "C" {

IClient* CreateClient() {
  return shielded<IClient*>(nullptr, [] { return new TolkClient; });
}

void DestroyClient(IClient* client) {
  if (client == nullptr) return;
  // On purpose, also for a client that never connected: what the host posted last gets out.
  uv_sleep(kDestroyPauseMs);
  if (client->isok()) client->close();
  delete client;
}

}  // extern "C"
