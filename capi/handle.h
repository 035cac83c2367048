// The handles that the host has of clients and servers, and what both can do.
//
// Thread: any. Owner: the object has its handle, and lives at least until the host frees that.
// Failure: as the functions of <tolk/c.h>. A null handle is TOLK_MISUSE.
#pragma once

#include <tolk/c.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "capi/context.h"
#include "capi/core.h"
#include "transport/thread_safety.h"

namespace tolk {

// Callbacks that still run may use it after its free.
template <class ItsCore>
struct Handle {
  ItsCore* core = nullptr;
  Guarded<std::shared_ptr<ItsCore>> held_by_host;

  // Null: it has been freed.
  std::shared_ptr<ItsCore> take() { return std::exchange(*held_by_host.lock(), nullptr); }
};

// An object that starts. Its callbacks get the handle before the host does, and may free it. An
// object that its host does not get is ended, also when memory runs out.
template <class AnyHandle, class ItsCore>
class Starting {
 public:
  Starting(AnyHandle* handle, const std::shared_ptr<ItsCore>& core) : handle_(handle), core_(core) {
    *handle->held_by_host.lock() = core;
  }
  ~Starting() {
    if (handle_ == nullptr) return;
    handle_->take();
    core_->end();
  }
  Starting(const Starting&) = delete;
  Starting& operator=(const Starting&) = delete;

  // For the host.
  AnyHandle* take() { return std::exchange(handle_, nullptr); }

 private:
  AnyHandle* handle_;
  const std::shared_ptr<ItsCore> core_;
};

// One use of a handle. It keeps the object, which another thread may free meanwhile.
class HandleUse {
 public:
  // `core` may be null.
  HandleUse(Core* core, const char* missing)
      : core_(core == nullptr ? nullptr : core->shared()), missing_(missing) {}

  tolk_status call(std::uint64_t peer, const char* method, const tolk_block* arguments,
                   std::int32_t limit_ms, tolk_block** result, tolk_error** error) const;
  std::uint64_t start(const tolk_call* call) const;
  tolk_status wait(std::uint64_t call, std::int32_t limit_ms, tolk_block** result,
                   tolk_error** error) const;
  bool cancel(std::uint64_t call) const;
  tolk_status post(std::uint64_t peer, const char* method, const tolk_block* arguments,
                   std::int32_t wait_ms, tolk_error** error) const;
  tolk_status close(std::int32_t limit_ms) const;

 private:
  // The same, with a handle, for guarded_call.
  template <class Function>
  tolk_status guarded_use(tolk_error** error, const Function& function) const;

  const std::shared_ptr<Core> core_;
  const char* const missing_;
};

template <class AnyHandle>
void free_handle(AnyHandle* handle) {
  // In a forked child, threads of the parent may have left anything of it half done.
  if (handle == nullptr || !handle->core->of_this_process()) return;
  const auto core = handle->take();
  if (core) core->end();
}

// A failure before there is an object. `address` may be null.
tolk_status fail_at(const char* address, tolk_status status, const char* reason,
                    tolk_error** error);

// The options that clients and servers share.
template <class Options>
CoreSettings settings_of(const Options& options, Context context) {
  CoreSettings settings;
  if (options.methods != nullptr) settings.methods = options.methods->table;
  settings.limit_ms = options.limit_ms;
  settings.workers = options.workers;
  settings.execute = options.execute;
  settings.log = options.log;
  settings.context = std::move(context);
  settings.most_queued_bytes = options.most_queued_bytes;
  settings.most_data_bytes = options.most_data_bytes;
  return settings;
}

}  // namespace tolk
