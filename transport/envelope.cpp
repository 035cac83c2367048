#include "transport/envelope.h"

#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <array>
#include <charconv>
#include <utility>

#include "params/encoder.h"
#include "platform/text.h"
#include "transport/envelope_sink.h"
#include "transport/reserved_names.h"

namespace tolk {
namespace {

template <class Encoding>
void add_keyed_int(Encoding& encoder, std::string_view key, int value) {
  encoder.add_key(key);
  encoder.add_int(value);
}

template <class Encoding>
void add_keyed_string(Encoding& encoder, std::string_view key, std::string_view value) {
  encoder.add_key(key);
  encoder.add_string(value);
}

}  // namespace

Envelope Envelope::scan(std::string_view payload) {
  Envelope envelope;
  EnvelopeSink sink(envelope);
  envelope.well_formed = parse_records(payload, sink);
  return envelope;
}

bool Envelope::is_reply() const { return name == kReply; }

std::optional<std::string_view> read::bytes(const TolkValue* value) {
  if (value == nullptr || !(value->IsString() || value->IsStream())) return std::nullopt;
  long size = 0;
  const char* data = value->GetStream(size);
  return std::string_view(data, static_cast<std::size_t>(size));
}

std::optional<std::string_view> read::text(const TolkValue* value) {
  const auto all = bytes(value);
  return all ? std::optional(cut_at_zero(*all)) : std::nullopt;
}

int read::number(const TolkValue* value) {
  if (value == nullptr) return 0;
  if (value->IsInt() || value->IsDouble()) return value->GetInt();
  return value->IsBool() && value->GetBool() ? 1 : 0;
}

std::string token_text(std::uint64_t token) {
  std::array<char, 20> digits{'0', 'x'};
  const auto end = std::to_chars(digits.data() + 2, digits.data() + digits.size(), token, 16);
  return {digits.data(), end.ptr};
}

std::optional<std::uint64_t> parse_token(std::string_view text) {
  if (!text.starts_with("0x")) return std::nullopt;
  std::uint64_t token = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data() + 2, end, token, 16);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return token;
}

Frame call_frame(std::string_view name, int call_id, std::optional<std::string_view> arguments,
                 std::optional<std::uint64_t> token, std::shared_ptr<const void> owner) {
  const std::string token_string = token ? token_text(*token) : std::string();
  SharedBytes held;
  if (owner && arguments) held = {std::move(owner), *arguments};
  return Frame::build_around(held, [&](auto& encoder) {
    add_keyed_string(encoder, kKeyName, name);
    add_keyed_int(encoder, kKeyCallId, call_id);
    if (arguments) {
      encoder.add_key(kKeyArguments);
      encoder.add_stream(*arguments);
    }
    if (token) add_keyed_string(encoder, kKeyToken, token_string);
  });
}

Frame client_reply_frame(std::string result, std::optional<int> call_id,
                         std::optional<std::string_view> token) {
  return Frame::build_after(std::move(result), [&](auto& encoder) {
    add_keyed_int(encoder, kKeyCallId, call_id.value_or(0));
    if (token) add_keyed_string(encoder, kKeyToken, *token);
    add_keyed_string(encoder, kKeyName, kReply);
  });
}

Frame server_reply_frame(std::string result, std::optional<int> call_id,
                         std::optional<std::string_view> token) {
  return Frame::build_after(std::move(result), [&](auto& encoder) {
    add_keyed_string(encoder, kKeyName, kReply);
    if (call_id) add_keyed_int(encoder, kKeyCallId, *call_id);
    if (token) add_keyed_string(encoder, kKeyToken, *token);
  });
}

Frame no_method_frame() {
  return Frame::build([](auto& encoder) { add_keyed_string(encoder, kKeyName, kReply); });
}

}  // namespace tolk
