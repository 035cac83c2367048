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

class Delivery;

struct CallData {
  CallData() { ++alive; }
  ~CallData() {
    end(nullptr);
    --alive;
  }
  CallData(const CallData&) = delete;
  CallData& operator=(const CallData&) = delete;

  // Stops the transfers. `after` is dropped when no code of the host runs for them any more.
  void end(const std::shared_ptr<void>& after) {
    if (out) out->stop(after);
    std::shared_ptr<AnswerIn> in;
    std::unique_ptr<tolk_sink> unused;  // dropped after the lock
    {
      const auto answer = answer_data.lock();
      answer->is_over = true;
      in = answer->in;
      unused = std::move(answer->sink);
    }
    if (in) in->stop(after);
  }

  // The data of the answer.
  struct Answer {
    std::unique_ptr<tolk_sink> sink;  // until they begin
    std::shared_ptr<AnswerIn> in;
    bool is_over = false;
  };
  Guarded<Answer> answer_data;

  // What tells the outcome, made before there is one.
  std::shared_ptr<Delivery> delivery;
  // Constant once the call has begun. A call has its own kind, which `call` names too.
  std::shared_ptr<TransferOut> out;
  std::shared_ptr<CallOut> call;
  Progress progress;
  std::int32_t piece_limit_ms = 0;
  std::unique_ptr<tolk_source> source;  // until the call begins
  // The loop.
  bool replied = false;

  // Of the process: without one, nobody looks for it.
  static inline constinit std::atomic<std::size_t> alive{0};
};

}  // namespace tolk
