#include "tools/tolk/wire/message.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tolk::tool {
namespace {

constexpr std::array<std::string_view, 4> kEnvelope{"s_c_sw_name", "s_c_sw_threadid", "s_c_sw_data",
                                                    "s_c_sw_semid"};
constexpr std::string_view kReplyMethod = "retval";

bool is_piece(std::string_view method) {
  return method == "tolk.piece" || method == "s_c_req_body" || method == "s_c_req_header";
}

// Peers read a record without bytes as the empty text.
std::string_view text_of(const DecodedRecord* record) {
  return record != nullptr && record->has_bytes() ? record->bytes : std::string_view();
}

bool in_envelope(const DecodedRecord& record) {
  return record.key &&
         std::find(kEnvelope.begin(), kEnvelope.end(), *record.key) != kEnvelope.end();
}

Kind kind_of(const Message& message) {
  if (message.method == kReplyMethod) return Kind::reply;
  if (is_piece(message.method)) return Kind::piece;
  return message.token ? Kind::call : Kind::post;
}

}  // namespace

const char* to_string(Kind kind) {
  static constexpr const char* kNames[] = {"call", "post", "reply", "piece", "nameless"};
  return kNames[static_cast<int>(kind)];
}

Message decode_message(std::string_view payload) {
  Message message;
  DecodedBlock whole = decode_block(payload);
  const DecodedRecord* const id = whole.find("s_c_sw_threadid");
  const DecodedRecord* const token = whole.find("s_c_sw_semid");
  const DecodedRecord* const name = whole.find("s_c_sw_name");
  message.method = text_of(name);
  if (id != nullptr && id->type == TolkValue::Int) message.call_id = id->integer;
  if (token != nullptr && token->type == TolkValue::String) message.token = token->bytes;
  if (name != nullptr) message.kind = kind_of(message);
  if (message.kind == Kind::reply || message.kind == Kind::nameless) {
    message.method = {};
    message.arguments.records = std::move(whole.records);
    std::erase_if(message.arguments.records, in_envelope);
  } else {
    message.arguments = decode_block(text_of(whole.find("s_c_sw_data")));
  }
  if (message.kind == Kind::piece) {
    const std::string_view called = text_of(message.arguments.find("tolk.method"));
    if (!called.empty()) message.method = called;
  }
  message.flaw = std::move(whole.flaw);
  return message;
}

std::string failure_in(const Message& reply) {
  if (reply.kind != Kind::reply) return {};
  const DecodedBlock& values = reply.arguments;
  if (const DecodedRecord* const error = values.find("tolk.error"))
    return std::string(error->bytes);
  if (values.find("tolk.value") != nullptr) return {};
  for (const DecodedRecord& record : values.records) {
    if (record.key) continue;
    const bool unknown = record.type == TolkValue::String && record.bytes.starts_with("no event: ");
    return unknown ? std::string(record.bytes) : std::string();
  }
  return {};
}

}  // namespace tolk::tool
