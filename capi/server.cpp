// The functions of tolk_server.
#include <memory>
#include <utility>

#include "capi/address.h"
#include "capi/options.h"
#include "capi/server_core.h"
#include "platform/guarded.h"

using tolk::ServerCore;

namespace tolk {
namespace {

tolk_status listen_server(const char* address, const tolk_server_options& options, Context context,
                          tolk_server** server, tolk_error** error) {
  if (address == nullptr || server == nullptr) {
    return fail_at(address, TOLK_MISUSE, "no address, or no place for the server", error);
  }
  const AddressParse parsed = parse_address(address, AddressUse::listen);
  if (!parsed.address) return fail_at(address, TOLK_BAD_ADDRESS, parsed.wrong, error);
  const auto core = std::make_shared<ServerCore>(*parsed.address,
                                                 settings_of(options, std::move(context)), options);
  Starting starting(core->server_handle(), core);
  const tolk_status status = core->listen(error);
  if (status != TOLK_OK) return status;
  *server = starting.take();
  return TOLK_OK;
}

HandleUse use(tolk_server* server) {
  return {server == nullptr ? nullptr : server->core, "there is no server"};
}

}  // namespace
}  // namespace tolk

tolk_status tolk_server_listen(const char* address, const tolk_server_options* options,
                               tolk_server** server, tolk_error** error) {
  if (server != nullptr) *server = nullptr;
  return tolk::guarded_call(error, [&] {
    if (tolk::is_without_size(options)) {
      return tolk::fail_at(
          address, TOLK_MISUSE,
          "the size of tolk_server_options is 0; it is sizeof(tolk_server_options)", error);
    }
    const auto given = tolk::options_of(options);
    tolk::Context context(given.context, given.free_context);
    return tolk::listen_server(address, given, std::move(context), server, error);
  });
}

const char* tolk_server_address(const tolk_server* server) {
  return server == nullptr ? "" : server->core->address().c_str();
}

int tolk_server_port(const tolk_server* server) {
  return server == nullptr ? 0 : server->core->port();
}

size_t tolk_server_clients(const tolk_server* server, uint64_t* ids, size_t capacity) {
  if (server == nullptr) return 0;
  const auto core = server->core->shared();
  return tolk::guarded_or(std::size_t{0}, [&] { return server->core->clients(ids, capacity); });
}

bool tolk_server_disconnect(tolk_server* server, uint64_t client) {
  if (server == nullptr) return false;
  const auto core = server->core->shared();
  return tolk::guarded_or(false, [&] { return server->core->disconnect_client(client); });
}

tolk_status tolk_server_call(tolk_server* server, uint64_t client, const char* method,
                             const tolk_block* arguments, int32_t limit_ms, tolk_block** result,
                             tolk_error** error) {
  return tolk::use(server).call(client, method, arguments, limit_ms, result, error);
}

uint64_t tolk_server_start(tolk_server* server, const tolk_call* call) {
  return tolk::use(server).start(call);
}

tolk_status tolk_server_wait(tolk_server* server, uint64_t call, tolk_block** result,
                             tolk_error** error) {
  return tolk::use(server).wait(call, TOLK_FOREVER, result, error);
}

tolk_status tolk_server_wait_for(tolk_server* server, uint64_t call, int32_t limit_ms,
                                 tolk_block** result, tolk_error** error) {
  return tolk::use(server).wait(call, limit_ms, result, error);
}

bool tolk_server_cancel(tolk_server* server, uint64_t call) {
  return tolk::use(server).cancel(call);
}

tolk_status tolk_server_post(tolk_server* server, uint64_t client, const char* method,
                             const tolk_block* arguments, int32_t wait_ms, tolk_error** error) {
  return tolk::use(server).post(client, method, arguments, wait_ms, error);
}

tolk_status tolk_server_close(tolk_server* server, int32_t limit_ms) {
  return tolk::use(server).close(limit_ms);
}

tolk_status tolk_server_wait_closed(tolk_server* server, int32_t limit_ms) {
  if (server == nullptr) return TOLK_MISUSE;
  const auto core = server->core->shared();
  return core->wait_closed(limit_ms);
}

void tolk_server_free(tolk_server* server) { tolk::free_handle(server); }
