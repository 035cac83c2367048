#include "tools/tolk/text/record_json.h"

#include <fmt/format.h>

#include <utility>

#include "tools/tolk/text/base64.h"
#include "tools/tolk/text/bytes.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kFirstBytes = 48;

Json first_of(std::string_view bytes) {
  return {{"$bytes", bytes.size()}, {"$first", to_base64(bytes.substr(0, kFirstBytes))}};
}

Json bytes_to_json(const DecodedRecord& record) {
  const std::string_view data = record.bytes;
  if (record.type == TolkValue::String) return text_to_json(data);
  if (data.size() > kMostShownBytes) return first_of(data);
  return to_json(Value(bytes_from(data)));
}

std::string text_of(const Flaw& flaw) {
  return fmt::format("at byte {}: {}", flaw.offset, flaw.reason);
}

// Bytes, and numbers that JSON cannot write, are objects too, but their one key begins with $.
bool is_struct(const Json& json) {
  return json.is_object() && (json.empty() || !json.begin().key().starts_with('$'));
}

// A later value of the same key replaces an earlier one; a key without a value becomes null.
void set(Json& object, const DecodedRecord& record) {
  Json& entry = object[text_of(text_to_json(*record.key), JsonStyle::off)];
  entry = to_json(record);
}

}  // namespace

Json text_to_json(std::string_view text) {
  if (text.size() > kMostShownBytes) return first_of(text);
  return to_json(Value(std::string(text)));
}

Json to_json(const DecodedRecord& record) {
  switch (record.type) {
    case TolkValue::Bool:
      return record.boolean;
    case TolkValue::Int:
      return record.integer;
    case TolkValue::Double:
      return to_json(Value(record.real));
    case TolkValue::String:
    case TolkValue::Stream:
      return bytes_to_json(record);
    case TolkValue::List: {
      Json list = Json::array();
      for (const DecodedRecord& element : record.elements) list.push_back(to_json(element));
      return list;
    }
    case TolkValue::Map: {
      Json map = Json::object();
      for (const DecodedRecord& entry : record.elements) set(map, entry);
      return map;
    }
    case TolkValue::None:
      break;
  }
  return nullptr;
}

Json to_json(const DecodedBlock& block) {
  Json all = Json::array();
  Json keyed = Json::object();
  for (const DecodedRecord& record : block.records) {
    if (record.key) {
      set(keyed, record);
    } else {
      all.push_back(to_json(record));
    }
  }
  if (!keyed.empty() || (!all.empty() && is_struct(all.back()))) all.push_back(std::move(keyed));
  return all;
}

void add_content(Json& line, const Message& message) {
  const char* const values = message.kind == Kind::reply      ? "result"
                             : message.kind == Kind::nameless ? "values"
                                                              : "arguments";
  if (message.call_id) line["id"] = *message.call_id;
  line[values] = to_json(message.arguments);
  const std::string failure = failure_in(message);
  if (!failure.empty()) line["error"] = text_to_json(failure);
  if (message.flaw) line["malformed"] = text_of(*message.flaw);
  if (message.arguments.flaw) line["malformed_arguments"] = text_of(*message.arguments.flaw);
}

}  // namespace tolk::tool
