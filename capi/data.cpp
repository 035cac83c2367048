// Sources and sinks of transfers. They are not there yet: none can be made.
#include "capi/error.h"
#include "capi/request.h"

namespace tolk {
namespace {

tolk_status not_there(tolk_error** error) {
  Failure failure;
  failure.status = TOLK_MISUSE;
  failure.reason = "transfers are not there yet";
  return fail(error, std::move(failure));
}

}  // namespace
}  // namespace tolk

tolk_source* tolk_source_memory(const void*, size_t, void* context, tolk_release free_context) {
  if (free_context != nullptr) free_context(context);
  return nullptr;
}
tolk_status tolk_source_file(const char*, tolk_source** source, tolk_error** error) {
  if (source != nullptr) *source = nullptr;
  return tolk::not_there(error);
}
tolk_source* tolk_source_callback(uint64_t, tolk_read, void* context, tolk_release free_context) {
  if (free_context != nullptr) free_context(context);
  return nullptr;
}
void tolk_source_free(tolk_source*) {}
tolk_status tolk_sink_file(const char*, tolk_sink** sink, tolk_error** error) {
  if (sink != nullptr) *sink = nullptr;
  return tolk::not_there(error);
}
tolk_sink* tolk_sink_callback(tolk_write, void* context, tolk_release free_context) {
  if (free_context != nullptr) free_context(context);
  return nullptr;
}
void tolk_sink_free(tolk_sink*) {}
void tolk_request_answer_data(tolk_request* request, tolk_block* result, tolk_source*) {
  tolk_request_answer(request, result);
}
