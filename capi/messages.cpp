#include "capi/messages.h"

#include <array>
#include <span>
#include <utility>

#include "capi/block.h"
#include "transport/envelope_sink.h"
#include "transport/frame_format.h"

namespace tolk {
namespace {

constexpr char kFeatures[] = "tolk.features";
constexpr char kLimit[] = "tolk.limit";
constexpr char kTypes[] = "tolk.types";
constexpr char kError[] = "tolk.error";
constexpr char kKind[] = "tolk.kind";
constexpr char kCode[] = "tolk.code";
constexpr char kDetails[] = "tolk.details";
constexpr char kData[] = "tolk.data";
constexpr char kDone[] = "tolk.done";
constexpr char kValue[] = "tolk.value";

// The envelope and a name beside a block.
constexpr std::size_t kMostEnvelopeBytes = std::size_t{64} << 10;

struct Kind {
  tolk_status status;
  std::string_view word;
  tolk_status at_caller;
};
constexpr std::array kKinds{Kind{TOLK_WRONG_ARGUMENTS, "arguments", TOLK_WRONG_ARGUMENTS},
                            Kind{TOLK_NO_METHOD, "method", TOLK_NO_METHOD},
                            Kind{TOLK_UNANSWERED, "dropped", TOLK_UNANSWERED},
                            Kind{TOLK_BUSY, "busy", TOLK_BUSY},
                            Kind{TOLK_CLOSED, "closing", TOLK_GONE},
                            Kind{TOLK_CANCELLED, "cancelled", TOLK_CANCELLED},
                            Kind{TOLK_TOO_LARGE, "large", TOLK_TOO_LARGE}};

class MessageSink : public EnvelopeSink {
 public:
  explicit MessageSink(Message& message) : EnvelopeSink(message.plain), message_(message) {}

  void positional(const Scalar& value) {
    if (std::exchange(has_first_, true)) return;
    message_.first_is_true = value.type == TolkValue::Bool && value.boolean;
    if (value.type == TolkValue::String) message_.first_text = value.bytes;
  }

  void keyed(std::string_view key, const Scalar& value) {
    EnvelopeSink::keyed(key, value);
    if (value.type == TolkValue::String) return keyed_text(key, value.bytes);
    if (key == kDetails && value.type == TolkValue::Stream) message_.details = value.bytes;
    if (key == kData && value.type == TolkValue::Double) message_.data = value.real;
    if (key == kDone && value.type == TolkValue::Double) message_.done = value.real;
    if (key == kValue) message_.marks_value = true;
    if (value.type != TolkValue::Int) return;
    if (key == kLimit) message_.limit_ms = value.integer;
    if (key == kCode) message_.code = value.integer;
  }

 private:
  void keyed_text(std::string_view key, std::string_view text) {
    if (key == kFeatures) message_.features = text;
    if (key == kTypes) message_.types = text;
    if (key == kError) message_.error = text;
    if (key == kKind) message_.kind = text;
    if (key == kKeyVersion) message_.version = text;
    if (key == kValue) message_.marks_value = true;
  }

  Message& message_;
  bool has_first_ = false;
};

template <class Encoding>
void add_int(Encoding& encoder, std::string_view key, std::int32_t value) {
  encoder.add_key(key);
  encoder.add_int(value);
}

template <class Encoding>
void add_string(Encoding& encoder, std::string_view key, std::string_view value) {
  encoder.add_key(key);
  encoder.add_string(value);
}

template <class Encoding>
void add_string_if(Encoding& encoder, std::string_view key, std::string_view value) {
  if (!value.empty()) add_string(encoder, key, value);
}

template <class Encoding>
void add_envelope(Encoding& encoder, Side side, const CallIds& ids) {
  if (side == Side::server) add_string(encoder, kKeyName, kReply);
  if (ids.call_id || side == Side::client) add_int(encoder, kKeyCallId, ids.call_id.value_or(0));
  if (ids.token) add_string(encoder, kKeyToken, *ids.token);
  if (side == Side::client) add_string(encoder, kKeyName, kReply);
}

const Kind* kind_of(tolk_status status) {
  for (const Kind& kind : kKinds) {
    if (kind.status == status) return &kind;
  }
  return nullptr;
}

template <class Encoding>
void add_parts(Encoding& encoder, const Content& content) {
  encoder.add_part(content.bytes.view);
  for (const SharedBytes& part : content.more) encoder.add_part(part.view);
}

template <class Encoding>
void add_stream(Encoding& encoder, const Content& content) {
  encoder.begin_stream(content.size());
  add_parts(encoder, content);
  encoder.end_stream();
}

template <class Encoding>
void add_failure(Encoding& encoder, const HandlerFailure& failure) {
  add_string(encoder, kError, failure.text);
  if (const Kind* const kind = kind_of(failure.status)) add_string(encoder, kKind, kind->word);
  if (failure.code != 0) add_int(encoder, kCode, failure.code);
  if (failure.details == nullptr) return;
  encoder.add_key(kDetails);
  add_stream(encoder, *failure.details);
}

// The parts of a content that its frame does not copy.
class LargeParts {
 public:
  explicit LargeParts(const Content* content) {
    if (content == nullptr) return;
    add(content->bytes);
    for (const SharedBytes& part : content->more) add(part);
  }
  operator std::span<const SharedBytes>() const {
    return many_.empty() ? std::span(&one_, count_) : std::span(many_);
  }

 private:
  void add(const SharedBytes& part) {
    if (part.view.size() < Frame::kTakeOverBytes || count_ == Frame::kMostLarge) return;
    if (++count_ == 1) {
      one_ = part;
      return;
    }
    if (many_.empty()) many_.push_back(one_);
    many_.push_back(part);
  }

  SharedBytes one_;
  std::vector<SharedBytes> many_;
  std::size_t count_ = 0;
};

tolk_status status_of_error(const Message& reply) {
  for (const Kind& kind : kKinds) {
    if (kind.word == reply.kind) return kind.at_caller;
  }
  return TOLK_FAILED;
}

// Whether a result begins with a text that reads as if there were no such method.
bool reads_as_no_event(std::string_view records) {
  constexpr std::size_t header = 5;
  return records.size() > header && static_cast<Tag>(records.front()) == Tag::String &&
         records.substr(header).starts_with(kNoEvent);
}

bool says_no_event(const Message& reply, std::string_view method) {
  return !reply.marks_value && reply.first_text.starts_with(kNoEvent) &&
         reply.first_text.substr(sizeof kNoEvent - 1) == method;
}

}  // namespace

Message Message::scan(std::string_view payload) {
  Message message;
  MessageSink sink(message);
  message.plain.well_formed = parse_records(payload, sink);
  return message;
}

bool has_feature(std::string_view features, std::string_view feature) {
  while (!features.empty()) {
    const std::size_t end = std::min(features.find(' '), features.size());
    if (features.substr(0, end) == feature) return true;
    features.remove_prefix(std::min(end + 1, features.size()));
  }
  return false;
}

Content Content::of(const tolk_block* block) {
  if (block == nullptr) return {};
  if (block->view()) return {block->share(), block->types()};
  std::vector<SharedBytes> parts = block->pieces();
  Content content{std::move(parts.front()), block->types()};
  parts.erase(parts.begin());
  content.more = std::move(parts);
  return content;
}

SharedBytes Content::whole() const {
  if (more.empty()) return bytes;
  std::string joined;
  joined.reserve(size());
  joined += bytes.view;
  for (const SharedBytes& part : more) joined += part.view;
  const auto owner = std::make_shared<const std::string>(std::move(joined));
  return {owner, *owner};
}

std::size_t Content::size() const {
  std::size_t size = bytes.view.size();
  for (const SharedBytes& part : more) size += part.view.size();
  return size;
}

bool Content::is_too_large() const {
  return size() + types.size() > frame_format::kMaxPayloadBytes - kMostEnvelopeBytes;
}

int call_id_of(std::uint64_t token) { return static_cast<int>(token & 0x7fffffff) | 1; }

Frame call_message(std::string_view name, std::uint64_t token, const Content* arguments,
                   const CallExtras& extras) {
  const std::string token_string = token_text(token);
  return Frame::build_around_all(LargeParts(arguments), [&](auto& encoder) {
    add_string(encoder, kKeyName, name);
    add_int(encoder, kKeyCallId, call_id_of(token));
    if (arguments != nullptr) {
      encoder.add_key(kKeyArguments);
      add_stream(encoder, *arguments);
    }
    add_string(encoder, kKeyToken, token_string);
    add_string_if(encoder, kFeatures, extras.features);
    if (extras.limit_ms) add_int(encoder, kLimit, *extras.limit_ms);
    if (arguments != nullptr) add_string_if(encoder, kTypes, arguments->types);
  });
}

Frame post_message(std::string_view name, const Content* arguments) {
  return Frame::build_around_all(LargeParts(arguments), [&](auto& encoder) {
    add_string(encoder, kKeyName, name);
    if (arguments == nullptr) return;
    encoder.add_key(kKeyArguments);
    add_stream(encoder, *arguments);
    add_string_if(encoder, kTypes, arguments->types);
  });
}

Frame reply_message(Side side, const CallIds& ids, const Content& result, std::string_view features,
                    std::optional<double> data) {
  return Frame::build_around_all(LargeParts(&result), [&](auto& encoder) {
    add_parts(encoder, result);
    add_envelope(encoder, side, ids);
    add_string_if(encoder, kFeatures, features);
    add_string_if(encoder, kTypes, result.types);
    if (reads_as_no_event(result.bytes.view)) {
      encoder.add_key(kValue);
      encoder.add_bool(true);
    }
    if (!data) return;
    encoder.add_key(kData);
    encoder.add_double(*data);
  });
}

Frame failure_message(Side side, const CallIds& ids, const HandlerFailure& failure,
                      std::string_view unknown) {
  const std::string no_event = unknown.empty() ? "" : kNoEvent + std::string(unknown);
  return Frame::build([&](auto& encoder) {
    if (!no_event.empty()) encoder.add_string(no_event);
    add_envelope(encoder, side, ids);
    add_failure(encoder, failure);
  });
}

std::string failure_records(const HandlerFailure& failure, std::string_view unknown) {
  std::string records;
  Encoder<std::string> encoder(records, 0);
  if (!unknown.empty()) encoder.add_string(kNoEvent + std::string(unknown));
  add_failure(encoder, failure);
  return records;
}

tolk_status status_of(const Message& reply, std::string_view method) {
  if (!reply.plain.well_formed) return TOLK_MALFORMED;
  if (reply.error) return status_of_error(reply);
  return says_no_event(reply, method) ? TOLK_NO_METHOD : TOLK_OK;
}

Failure failure_of(const Message& reply, std::string_view method) {
  Failure failure;
  failure.status = status_of(reply, method);
  failure.method = method;
  if (!reply.plain.well_formed || !reply.error) return failure;
  failure.reason = *reply.error;
  failure.code = reply.code;
  if (reply.details) {
    failure.details = tolk_block::of_copy(*reply.details).block;
  }
  return failure;
}

}  // namespace tolk
