#include "client/TolkClient.h"

#include <tolk/tolk.h>

#include <cstdlib>
#include <new>
#include <utility>

#include "client/client_side.h"
#include "platform/guarded.h"
#include "platform/text.h"
#include "transport/frame_writer.h"
#include "transport/piece_sender.h"

using tolk::guarded;
using tolk::guarded_or;
using Kind = tolk::Endpoint::Kind;

namespace {

constexpr unsigned kDestroyPauseMs = 300;

tolk::Endpoint endpoint(Kind kind, const char* host, const char* name) {
  return {kind, std::string(tolk::text_of(host)), std::string(tolk::text_of(name))};
}

}  // namespace

// Shared by the copies of a client; the last one ends it.
struct TolkClient::Holder {
  std::shared_ptr<tolk::ClientSide> side = std::make_shared<tolk::ClientSide>();

  Holder() { side->register_builtins(); }
  ~Holder() {
    guarded([this] { side->abandon(); });
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
};

std::list<timeout_sem*>& TolkClient::_vcSem = tolk::client_waits().records();

TolkClient::TolkClient() : holder_(std::make_shared<Holder>()) {}

std::shared_ptr<tolk::ClientSide> TolkClient::side() const { return holder_->side; }

// The bool that the connect operations take has no meaning.

bool TolkClient::InitTolkClient(const char* name, bool) {
  return guarded_or(
      false, [&, side = side()] { return side->connect(endpoint(Kind::pipe, nullptr, name)); });
}

bool TolkClient::InitTolkClientTcp4(const char* host, const char* port, bool) {
  return guarded_or(false,
                    [&, side = side()] { return side->connect(endpoint(Kind::tcp4, host, port)); });
}

bool TolkClient::InitTolkClientTcp6(const char* host, const char* port, bool) {
  return guarded_or(false,
                    [&, side = side()] { return side->connect(endpoint(Kind::tcp6, host, port)); });
}

// On purpose without effect: the stored step is 100 and nothing ever changes it, so the sweep's
// period stays what it is.
void TolkClient::SetTimeoutStep(int) {}

bool TolkClient::isok() { return side()->isok(); }

void TolkClient::close() {
  guarded([side = side()] { side->close(); });
}

TolkParams* TolkClient::SendMsg(const char* name, TolkParams* params, int threadid, int timeout) {
  return guarded_or<TolkParams*>(nullptr, [&, side = side()] {
    return side->SendMsg(name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

TolkParams* TolkClient::SendMsgFast(const char* name, TolkParams* params, int threadid,
                                    int timeout) {
  return guarded_or<TolkParams*>(nullptr, [&, side = side()] {
    return side->SendMsgFast(name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

TolkParams* TolkClient::PostMsg(const char* name, TolkParams* params, int threadid) {
  guarded([&, side = side()] { side->PostMsg(name, params, threadid); });
  return nullptr;
}

TolkParams* TolkClient::PostMsgFast(const char* name, TolkParams* params, int threadid) {
  guarded([&, side = side()] { side->PostMsgFast(name, params, threadid); });
  return nullptr;
}

TolkParams* TolkClient::SendMsgEx(const char* name, TolkParams* params, int threadid, int) {
  return guarded_or<TolkParams*>(
      nullptr, [&, side = side()] { return side->SendMsgEx(name, params, threadid); });
}

bool TolkClient::log(char* text, int level) {
  return guarded_or(false, [&, side = side()] {
    side->logger.set_level(level);
    return tolk::Logger::set_text(text);
  });
}

void TolkClient::method(const char* name, IServerMethod* handler) {
  guarded([&, side = side()] { side->methods.add_if_absent(name, handler); });
}

void TolkClient::methodall(IMethodAll* handler) {
  guarded([&, side = side()] { side->methods.set_all_if_absent(handler); });
}

void TolkClient::SetCustomReleaseEvent() { side()->custom_release = true; }

void TolkClient::SetBigfileBufferSize(int size) { tolk::piece_bytes() = size; }

int TolkClient::GetBigfileBufferSize() { return tolk::piece_bytes(); }

void TolkClient::ClearRetvalMem() {
  guarded([side = side()] { side->clear_results(); });
}

bool TolkClient::SendMsgLargeData(const char* name, TolkParams* params, int threadid, int timeout) {
  return guarded_or(false, [&, side = side()] {
    return side->SendMsgLargeData(name, params, threadid, static_cast<std::uint32_t>(timeout));
  });
}

void TolkClient::ClearMem() {
  guarded([side = side()] { side->ClearMem(); });
}

void TolkClient::closeClient() {
  guarded([side = side()] { side->closeClient(); });
}

int TolkClient::writebuff(uv_stream_t* stream, char* data, int len) {
  return guarded_or<int>(UV_ENOMEM, [&] {
    if (len < 0) return tolk::refuse_frame(UV_EINVAL);
    return tolk::write_frame(stream, tolk::Frame::copy_of({data, static_cast<std::size_t>(len)}));
  });
}

void TolkClient::write_server_cb(uv_write_t* request, int status) {
  tolk::write_server_cb(request, status);
}

void TolkClient::write_server(uv_write_t*, int status) { side()->write_server(status); }

void TolkClient::sendmsg_timeout_cb(uv_timer_t*) { tolk::client_waits().sweep(); }

void TolkClient::close_sendmsg_timeout_cb(uv_handle_t* handle) { std::free(handle); }

extern "C" {

IClient* CreateClient() {
  return guarded_or<IClient*>(nullptr, [] { return new TolkClient; });
}

void DestroyClient(IClient* client) {
  if (client == nullptr) return;
  // On purpose, also for a client that never connected: what the host posted last gets out.
  uv_sleep(kDestroyPauseMs);
  if (client->isok()) client->close();
  delete client;
}

}  // extern "C"
