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

CoreSettings client_settings(const tolk_client_options& options, Context context) {
  CoreSettings settings = settings_of(options, std::move(context));
  settings.most_requests = options.most_requests;
  return settings;
}

tolk_status connect_client(const char* address, const tolk_client_options& options, Context context,
                           tolk_client** client, tolk_error** error) {
  if (address == nullptr || client == nullptr) {
    return fail_at(address, TOLK_MISUSE, "no address, or no place for the client", error);
  }
  const AddressParse parsed = parse_address(address, AddressUse::connect);
  if (!parsed.address) return fail_at(address, TOLK_BAD_ADDRESS, parsed.wrong, error);
  const auto core =
      std::make_shared<ClientCore>(parsed.address->endpoint, parsed.address->text(),
                                   client_settings(options, std::move(context)), options);
  Starting starting(core->client_handle(), core);
  const tolk_status status = core->connect(error);
  if (status != TOLK_OK) return status;
  *client = starting.take();
  return TOLK_OK;
}

HandleUse use(tolk_client* client) {
  return {client == nullptr ? nullptr : client->core, "there is no client"};
}

}  // namespace
}  // namespace tolk

tolk_status tolk_client_connect(const char* address, const tolk_client_options* options,
                                tolk_client** client, tolk_error** error) {
  if (client != nullptr) *client = nullptr;
  return tolk::guarded_call(error, [&] {
    if (tolk::is_without_size(options)) {
      return tolk::fail_at(
          address, TOLK_MISUSE,
          "the size of tolk_client_options is 0; it is sizeof(tolk_client_options)", error);
    }
    const auto given = tolk::options_of(options);
    tolk::Context context(given.context, given.free_context);
    return tolk::connect_client(address, given, std::move(context), client, error);
  });
}

tolk_status tolk_client_call(tolk_client* client, const char* method, const tolk_block* arguments,
                             int32_t limit_ms, tolk_block** result, tolk_error** error) {
  return tolk::use(client).call(0, method, arguments, limit_ms, result, error);
}

uint64_t tolk_client_start(tolk_client* client, const tolk_call* call) {
  return tolk::use(client).start(call);
}

tolk_status tolk_client_wait(tolk_client* client, uint64_t call, tolk_block** result,
                             tolk_error** error) {
  return tolk::use(client).wait(call, TOLK_FOREVER, result, error);
}

tolk_status tolk_client_wait_for(tolk_client* client, uint64_t call, int32_t limit_ms,
                                 tolk_block** result, tolk_error** error) {
  return tolk::use(client).wait(call, limit_ms, result, error);
}

bool tolk_client_cancel(tolk_client* client, uint64_t call) {
  return tolk::use(client).cancel(call);
}

tolk_status tolk_client_post(tolk_client* client, const char* method, const tolk_block* arguments,
                             int32_t wait_ms, tolk_error** error) {
  return tolk::use(client).post(0, method, arguments, wait_ms, error);
}

tolk_status tolk_client_close(tolk_client* client, int32_t limit_ms) {
  return tolk::use(client).close(limit_ms);
}

void tolk_client_free(tolk_client* client) { tolk::free_handle(client); }
