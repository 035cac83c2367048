// The envelope of a message: how its reserved keys are read, and how calls and replies are built.
//
// Thread: any. Lifetime: a scanned envelope's texts point into the payload that was scanned.
// Failure: a key of another type than it should have counts as said beside each field; nothing
// that a peer sends makes reading fail.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "transport/frame.h"

class TolkParams;
class TolkValue;

namespace tolk {

struct Envelope {
  // False when the payload does not parse to its end; the fields then hold what stood before the
  // malformed record.
  bool well_formed = false;
  // Absent when the key is. A value that is not a text gives "".
  std::optional<std::string_view> name;
  // A bool or a double gives the number in its first bytes, any other value 0.
  std::optional<int> call_id;
  // The caller's encoded arguments; absent also when the value is not a byte string.
  std::optional<std::string_view> arguments;
  // The caller's wait record; absent also when the value is not a string.
  std::optional<std::string_view> token;

  // Reads the envelope in one pass, without making values. Its verdict is the parser's.
  static Envelope scan(std::string_view payload);

  bool is_reply() const;
};

// The same readings from a block that is already parsed.
namespace read {
std::optional<std::string_view> text(const TolkValue* value);   // String or Stream
std::optional<std::string_view> bytes(const TolkValue* value);  // String or Stream, zeros included
int number(const TolkValue* value);                             // as Envelope::call_id; null is 0
}  // namespace read

// A wait record's token in the form of a printed pointer, and back. Only the side that made a token
// reads it; what is not one of ours is none.
std::string token_text(std::uint64_t token);
std::optional<std::uint64_t> parse_token(std::string_view text);

// A call; without `token` a posted call. With an owner of the arguments the frame holds that and
// copies nothing of them.
Frame call_frame(std::string_view name, int call_id, std::optional<std::string_view> arguments,
                 std::optional<std::uint64_t> token, std::shared_ptr<const void> owner = nullptr);

// A reply is the method's encoded result with the envelope behind it. The two sides write it in
// different orders, and a client names call id 0 where the call named none.
Frame client_reply_frame(std::string result, std::optional<int> call_id,
                         std::optional<std::string_view> token);
Frame server_reply_frame(std::string result, std::optional<int> call_id,
                         std::optional<std::string_view> token);

// The client's reply to a method that it does not have: on purpose without call id and token, so
// that the caller runs into its timeout.
Frame no_method_frame();

}  // namespace tolk
