#include "tools/tolk/record_json.h"

#include <fmt/format.h>

#include <utility>

namespace tolk::tool {
namespace {

constexpr std::size_t kFirstBytes = 48;

Json bytes_to_json(const Record& record) {
  const std::string_view data = record.bytes;
  if (record.type == TolkValue::String) return text_to_json(data);
  if (data.size() <= kMostShownBytes) {
    const auto* const first = reinterpret_cast<const std::byte*>(data.data());
    return to_json(Value(bytes(first, first + data.size())));
  }
  return {{"$bytes", data.size()}, {"$first", to_base64(data.substr(0, kFirstBytes))}};
}

std::string text_of(const Flaw& flaw) {
  return fmt::format("at byte {}: {}", flaw.offset, flaw.reason);
}

// A struct; bytes and odd numbers are objects too, but their one key begins with $.
bool is_struct(const Json& json) {
  return json.is_object() && (json.empty() || !json.begin().key().starts_with('$'));
}

// Where a value of that key stands, a later one takes its place; a key without a value leaves none.
void set(Json& object, const Record& record) {
  Json& entry = object[text_of(text_to_json(*record.key), JsonStyle::off)];
  entry = to_json(record);
}

}  // namespace

Json text_to_json(std::string_view text) {
  if (text.size() <= kMostShownBytes) return to_json(Value(std::string(text)));
  return {{"$bytes", text.size()}, {"$first", to_base64(text.substr(0, kFirstBytes))}};
}

Json to_json(const Record& record) {
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
      for (const Record& element : record.elements) list.push_back(to_json(element));
      return list;
    }
    case TolkValue::Map: {
      Json map = Json::object();
      for (const Record& entry : record.elements) set(map, entry);
      return map;
    }
    case TolkValue::None:
      break;
  }
  return nullptr;
}

Json to_json(const Block& block) {
  Json all = Json::array();
  Json keyed = Json::object();
  for (const Record& record : block.records) {
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
