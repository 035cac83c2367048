// The functions of tolk_client.
#include <memory>
#include <utility>

#include "capi/address.h"
#include "capi/client_core.h"
#include "capi/options.h"
#include "platform/guarded.h"

using tolk::ClientCore;

namespace tolk {
namespace {

tolk_status fail_connect(tolk_status status, const char* address, const char* reason,
                         tolk_error** error) {
  Failure failure;
  failure.status = status;
  failure.address = address == nullptr ? "" : address;
  failure.reason = reason;
  return fail(error, std::move(failure));
}

CoreSettings settings_of(const tolk_client_options& options, Context context) {
  CoreSettings settings;
  if (options.methods != nullptr) settings.methods = options.methods->table;
  settings.limit_ms = options.limit_ms;
  settings.workers = options.workers;
  settings.execute = options.execute;
  settings.log = options.log;
  settings.context = std::move(context);
  settings.most_queued_bytes = options.most_queued_bytes;
  settings.most_data_bytes = options.most_data_bytes;
  settings.most_requests = options.most_requests;
  return settings;
}

tolk_status connect_client(const char* address, const tolk_client_options& options, Context context,
                           tolk_client** client, tolk_error** error) {
  if (address == nullptr || client == nullptr) {
    return fail_connect(TOLK_MISUSE, address, "no address, or no place for the client", error);
  }
  const AddressParse parsed = parse_address(address, AddressUse::connect);
  if (!parsed.address) return fail_connect(TOLK_BAD_ADDRESS, address, parsed.wrong, error);
  const auto core = std::make_shared<ClientCore>(parsed.address->endpoint, parsed.address->text(),
                                                 settings_of(options, std::move(context)), options);
  // A connection that cannot be used is ended, also when memory runs out.
  EndUnlessTaken end{core.get()};
  const tolk_status status = core->connect(error);
  if (status != TOLK_OK) return status;
  *client = core->client_handle();
  (*client)->held_by_host = core;
  end.taken = true;
  return TOLK_OK;
}

tolk_status without_client(tolk_error** error) {
  return fail_connect(TOLK_MISUSE, nullptr, "there is no client", error);
}

}  // namespace
}  // namespace tolk

tolk_status tolk_client_connect(const char* address, const tolk_client_options* options,
                                tolk_client** client, tolk_error** error) {
  if (client != nullptr) *client = nullptr;
  return tolk::guarded_call(error, [&] {
    if (tolk::is_without_size(options)) {
      return tolk::fail_connect(
          TOLK_MISUSE, address,
          "the size of tolk_client_options is 0; it is sizeof(tolk_client_options)", error);
    }
    const auto given = tolk::options_of(options);
    tolk::Context context(given.context, given.free_context);
    return tolk::connect_client(address, given, std::move(context), client, error);
  });
}

tolk_status tolk_client_call(tolk_client* client, const char* method, const tolk_block* arguments,
                             int32_t limit_ms, tolk_block** result, tolk_error** error) {
  if (result != nullptr) *result = nullptr;
  return tolk::guarded_call(error, [&] {
    if (client == nullptr) return tolk::without_client(error);
    tolk_call call{};
    call.size = sizeof call;
    call.method = method;
    call.arguments = arguments;
    call.limit_ms = limit_ms;
    const auto core = client->core->shared();
    return core->call(call, result, error);
  });
}

uint64_t tolk_client_start(tolk_client* client, const tolk_call* call) {
  if (client == nullptr || call == nullptr) {
    if (call != nullptr) tolk::drop_data(*call);
    return 0;
  }
  const auto core = client->core->shared();
  return core->start_guarded(*call);
}

tolk_status tolk_client_wait(tolk_client* client, uint64_t call, tolk_block** result,
                             tolk_error** error) {
  return tolk_client_wait_for(client, call, TOLK_FOREVER, result, error);
}

tolk_status tolk_client_wait_for(tolk_client* client, uint64_t call, int32_t limit_ms,
                                 tolk_block** result, tolk_error** error) {
  if (result != nullptr) *result = nullptr;
  return tolk::guarded_call(error, [&] {
    if (client == nullptr) return tolk::without_client(error);
    const auto core = client->core->shared();
    return core->wait(call, limit_ms, result, error);
  });
}

bool tolk_client_cancel(tolk_client* client, uint64_t call) {
  if (client == nullptr) return false;
  const auto core = client->core->shared();
  return tolk::guarded_or(false, [&] { return core->cancel(call); });
}

tolk_status tolk_client_post(tolk_client* client, const char* method, const tolk_block* arguments,
                             int32_t wait_ms, tolk_error** error) {
  return tolk::guarded_call(error, [&] {
    if (client == nullptr) return tolk::without_client(error);
    const auto core = client->core->shared();
    return core->post(0, method, arguments, wait_ms, error);
  });
}

tolk_status tolk_client_close(tolk_client* client, int32_t limit_ms) {
  if (client == nullptr) return TOLK_MISUSE;
  const auto core = client->core->shared();
  return core->close(limit_ms);
}

void tolk_client_free(tolk_client* client) {
  // In a forked child, threads of the parent may have left anything of it half done.
  if (client == nullptr || !client->core->of_this_process()) return;
  const auto core = std::move(client->held_by_host);
  if (core) core->end();
}
