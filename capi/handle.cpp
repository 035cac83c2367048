#include "capi/handle.h"

#include "platform/guarded.h"

namespace tolk {

tolk_status fail_at(const char* address, tolk_status status, const char* reason,
                    tolk_error** error) {
  Failure failure;
  failure.status = status;
  failure.address = address == nullptr ? "" : address;
  failure.reason = reason;
  return fail(error, std::move(failure));
}

template <class Function>
tolk_status HandleUse::guarded_use(tolk_error** error, const Function& function) const {
  return guarded_call(
      error, [&] { return core_ ? function() : fail_at(nullptr, TOLK_MISUSE, missing_, error); });
}

tolk_status HandleUse::call(std::uint64_t peer, const char* method, const tolk_block* arguments,
                            std::int32_t limit_ms, tolk_block** result, tolk_error** error) const {
  if (result != nullptr) *result = nullptr;
  return guarded_use(error, [&] {
    tolk_call call{};
    call.size = sizeof call;
    call.method = method;
    call.arguments = arguments;
    call.client = peer;
    call.limit_ms = limit_ms;
    return core_->call(call, result, error);
  });
}

std::uint64_t HandleUse::start(const tolk_call* call) const {
  if (call == nullptr) return 0;
  if (core_) return core_->start_guarded(*call);
  drop_data(*call);
  return 0;
}

tolk_status HandleUse::wait(std::uint64_t call, std::int32_t limit_ms, tolk_block** result,
                            tolk_error** error) const {
  if (result != nullptr) *result = nullptr;
  return guarded_use(error, [&] { return core_->wait(call, limit_ms, result, error); });
}

bool HandleUse::cancel(std::uint64_t call) const {
  return core_ && guarded_or(false, [&] { return core_->cancel(call); });
}

tolk_status HandleUse::post(std::uint64_t peer, const char* method, const tolk_block* arguments,
                            std::int32_t wait_ms, tolk_error** error) const {
  return guarded_use(error, [&] { return core_->post(peer, method, arguments, wait_ms, error); });
}

tolk_status HandleUse::close(std::int32_t limit_ms) const {
  return core_ ? core_->close(limit_ms) : TOLK_MISUSE;
}

}  // namespace tolk
