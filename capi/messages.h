// The messages of the C interface: plain envelopes, and the keys that follow them.
//
// Thread: any. Lifetime: the texts of a scanned message point into its payload.
// Failure: std::bad_alloc. A key of another type than it should have counts as absent.
#pragma once

#include <tolk/c.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "capi/error.h"
#include "params/shared_bytes.h"
#include "transport/envelope.h"
#include "transport/frame.h"

// What runs only in a failure is built for size.
#if defined(__GNUC__)
#define TOLK_COLD [[gnu::cold]]
#else
#define TOLK_COLD
#endif

namespace tolk {

inline constexpr char kMethodCancel[] = "tolk.cancel";
inline constexpr char kMethodDescribe[] = "tolk.describe";
inline constexpr char kNoEvent[] = "no event: ";
// What this side takes of its peers.
inline constexpr char kOwnFeatures[] = "cancel describe pieces";

struct Message {
  Envelope plain;
  std::optional<std::int32_t> limit_ms;
  std::optional<std::string_view> features;
  std::string_view types;
  std::optional<std::string_view> error;
  std::string_view kind;
  std::int32_t code = 0;
  std::optional<std::string_view> details;
  std::optional<double> data;
  std::optional<double> done;  // in the answer to a piece
  bool marks_value = false;
  // The first positional value, of a version check or of an unknown method's answer.
  bool first_is_true = false;
  std::string_view first_text;
  std::string_view version;

  static Message scan(std::string_view payload);
};

// Whether `features`, a list of words, has this one.
bool has_feature(std::string_view features, std::string_view feature);

// A block as it travels: its records, in one part or in several.
struct Content {
  SharedBytes bytes;
  std::string types;                // the text of "tolk.types"
  std::vector<SharedBytes> more{};  // the parts behind `bytes`, of a block that holds bytes

  static Content of(const tolk_block* block);
  // In one part; copied only if there are several.
  SharedBytes whole() const;
  std::size_t size() const;
  bool is_too_large() const;
};

// What a reply repeats of its call.
struct CallIds {
  std::optional<int> call_id;
  std::optional<std::string> token;

  explicit CallIds(const Envelope& call) : call_id(call.call_id) {
    if (call.token) token = *call.token;
  }
  bool wants_reply() const { return call_id || token; }
};

enum class Side { client, server };

int call_id_of(std::uint64_t token);

struct CallExtras {
  std::optional<std::int32_t> limit_ms;
  std::string_view features;
};
// `arguments`: null is none.
Frame call_message(std::string_view name, std::uint64_t token, const Content* arguments,
                   const CallExtras& extras);
Frame post_message(std::string_view name, const Content* arguments);
// `features`: only in the answer to a version check. `data`: the bytes that came before.
Frame reply_message(Side side, const CallIds& ids, const Content& result,
                    std::string_view features = {}, std::optional<double> data = {});

struct HandlerFailure {
  tolk_status status = TOLK_FAILED;
  std::int32_t code = 0;
  std::string_view text;
  const Content* details = nullptr;
};
// `unknown`: the name of the method that is not there; a plain caller learns it as a result.
TOLK_COLD Frame failure_message(Side side, const CallIds& ids, const HandlerFailure& failure,
                                std::string_view unknown = {});

// The same without an envelope.
TOLK_COLD std::string failure_records(const HandlerFailure& failure, std::string_view unknown);

// What the reply says about a call of `method`. TOLK_OK: the result is in it.
tolk_status status_of(const Message& reply, std::string_view method);
Failure failure_of(const Message& reply, std::string_view method);

}  // namespace tolk
