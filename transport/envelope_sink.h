// Picks the envelope from the records of a message.
// Thread: any. Owner: fills the envelope of the caller. Failure: none.
#pragma once

#include <cstdint>
#include <cstring>

#include "params/parser.h"
#include "platform/text.h"
#include "transport/envelope.h"
#include "transport/reserved_names.h"

namespace tolk {

// A bool or a double gives the number in its first bytes, any other value 0.
inline int number_in(const Scalar& value) {
  switch (value.type) {
    case TolkValue::Int:
      return value.integer;
    case TolkValue::Bool:
      return value.boolean ? 1 : 0;
    case TolkValue::Double: {
      std::int32_t low = 0;
      std::memcpy(&low, &value.real, sizeof low);
      return low;
    }
    default:
      return 0;
  }
}

// Follows the keyed values of a payload as a block would hold them, four keys of it.
class EnvelopeSink : public IgnoringSink {
 public:
  explicit EnvelopeSink(Envelope& envelope) : envelope_(envelope) {}

  void erase_key(std::string_view key) {
    if (key == kKeyName) envelope_.name.reset();
    if (key == kKeyCallId) envelope_.call_id.reset();
    if (key == kKeyArguments) envelope_.arguments.reset();
    if (key == kKeyToken) envelope_.token.reset();
  }

  void keyed(std::string_view key, const Scalar& value) {
    if (key == kKeyName) {
      envelope_.name = value.has_bytes() ? cut_at_zero(value.bytes) : std::string_view();
    } else if (key == kKeyCallId) {
      envelope_.call_id = number_in(value);
    } else if (key == kKeyArguments) {
      if (value.has_bytes()) envelope_.arguments = value.bytes;
    } else if (key == kKeyToken) {
      if (value.type == TolkValue::String) envelope_.token = cut_at_zero(value.bytes);
    }
  }

 private:
  Envelope& envelope_;
};

}  // namespace tolk
