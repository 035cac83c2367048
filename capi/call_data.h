// What a call has beside its arguments and result: the data that go along, and those of the answer.
//
// Thread: any. Owner: the call's record, and whoever looks at it for the moment. Its end is the end
// of the transfers. Failure: none.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "capi/data.h"
#include "capi/transfer_in.h"
#include "capi/transfer_out.h"

namespace tolk {

struct CallData {
  CallData() { ++alive; }
  ~CallData() {
    if (out) out->stop();
    if (const auto answer = *in.lock()) answer->stop();
    --alive;
  }
  CallData(const CallData&) = delete;
  CallData& operator=(const CallData&) = delete;

  // Constant once the call has begun. A call has its own kind, which `call` names too.
  std::shared_ptr<TransferOut> out;
  std::shared_ptr<CallOut> call;
  Progress progress;
  std::int32_t piece_limit_ms = 0;
  std::unique_ptr<tolk_source> source;  // until the call begins
  // The loop.
  std::unique_ptr<tolk_sink> sink;  // until the data of the answer begin
  bool replied = false;
  Guarded<std::shared_ptr<AnswerIn>> in;

  // Of the process: without one, nobody looks for it.
  static inline constinit std::atomic<std::size_t> alive{0};
};

}  // namespace tolk
