#include "tools/tolk/text/json.h"

#include <cmath>
#include <limits>

#include "tools/tolk/text/base64.h"
#include "tools/tolk/text/bytes.h"

namespace tolk::tool {
namespace {

constexpr char kBase64Key[] = "$base64";
constexpr char kDoubleKey[] = "$double";

// The JSON library accepts no text that is not UTF-8.
bool is_utf8(std::string_view text) {
  try {
    (void)Json(text).dump();
    return true;
  } catch (const Json::type_error&) {
    return false;
  }
}

Json json_of_bytes(std::string_view data) { return {{kBase64Key, to_base64(data)}}; }

Json json_of_text(std::string_view text) {
  return is_utf8(text) ? Json(text) : json_of_bytes(text);
}

Json json_of_real(double number) {
  if (std::isfinite(number)) return number;
  const char* const name = std::isnan(number) ? "nan" : number > 0 ? "inf" : "-inf";
  return {{kDoubleKey, name}};
}

Json json_of_map(const Value::Map& map) {
  Json object = Json::object();
  for (const auto& [key, value] : map) object[key] = to_json(value);
  return object;
}

Json object_of(const Values& values) { return json_of_map(values.keyed()); }

// How deep the calling thread is in blocks inside blocks. A peer may nest any number of them: those
// below the deepest level are shown as bytes.
constexpr int kDeepest = 64;
thread_local int depth = 0;

class Nesting {
 public:
  Nesting() { ++depth; }
  ~Nesting() { --depth; }
  Nesting(const Nesting&) = delete;
  Nesting& operator=(const Nesting&) = delete;
};

// An inner block as a list, which value_from turns into the same block again. Only arguments need
// the empty object that arguments_to_json adds.
Json list_of(const Values& values) {
  Json all = Json::array();
  for (const Value& value : values.positional()) all.push_back(to_json(value));
  if (!values.keyed().empty()) all.push_back(object_of(values));
  return all;
}

// A struct or an inner list of an older peer is a block inside bytes. Other bytes are taken for one
// only if they happen to be well formed, which is rare: records contain their own offsets.
Json json_of_stream(std::string_view data) {
  const Nesting one_more;
  const bool may_be_block = !data.empty() && depth <= kDeepest;
  const auto inner = may_be_block ? Values::parse(data) : std::nullopt;
  if (!inner) return json_of_bytes(data);
  return inner->size() == 0 ? object_of(*inner) : list_of(*inner);
}

// Whether the object stands for bytes or for a number.
bool is_marked(const Json& json) {
  return json.is_object() && json.size() == 1 &&
         (json.contains(kBase64Key) || json.contains(kDoubleKey));
}
bool is_keyed(const Json& json) { return json.is_object() && !is_marked(json); }

bytes bytes_in(const std::string& base64) {
  try {
    return bytes_from(from_base64(base64));
  } catch (const BadBase64& bad) {
    throw BadJson(bad.what());
  }
}

Value value_from_marked(const Json& json) {
  const auto entry = json.begin();
  if (!entry.value().is_string()) throw BadJson(entry.key() + " must be a text");
  const auto text = entry.value().get<std::string>();
  if (entry.key() == kBase64Key) return bytes_in(text);
  using Limits = std::numeric_limits<double>;
  if (text == "nan") return Limits::quiet_NaN();
  if (text == "inf") return Limits::infinity();
  if (text == "-inf") return -Limits::infinity();
  throw BadJson("$double must be nan, inf or -inf, not \"" + text + "\"");
}

void add_keyed(Values& values, const Json& object) {
  for (const auto& [key, value] : object.items()) {
    if (is_reserved_key(key)) throw BadJson(std::string(kReservedKey) + ", as " + key + " does");
    values.add(key, value_from(value));
  }
}

Value struct_from(const Json& object) {
  Values fields;
  add_keyed(fields, object);
  return fields.keyed();
}

}  // namespace

// A receiver with the C++ layer treats these keys as the protocol's own and drops unknown ones.
bool is_reserved_key(std::string_view key) {
  return key.starts_with("s_c_") || key.starts_with("tolk.");
}

Json json_from(std::string_view text) {
  try {
    return Json::parse(text);
  } catch (const Json::parse_error& error) {
    throw BadJson("not valid JSON from character " + std::to_string(error.byte) + " on");
  } catch (const Json::exception& error) {
    // The number is too large for a double. The message begins with the name of the exception, in
    // brackets.
    const std::string_view what = error.what();
    const std::size_t name_end = what.find("] ");
    throw BadJson(
        std::string(name_end == std::string_view::npos ? what : what.substr(name_end + 2)));
  }
}

Json to_json(const Value& value) {
  if (const auto* v = value.get_if<bool>()) return *v;
  if (const auto* v = value.get_if<int>()) return *v;
  if (const auto* v = value.get_if<std::int64_t>()) return *v;
  if (const auto* v = value.get_if<std::uint64_t>()) return *v;
  if (const auto* v = value.get_if<double>()) return json_of_real(*v);
  if (const auto* v = value.get_if<std::string>()) return json_of_text(*v);
  if (const auto* v = value.get_if<bytes>()) return json_of_stream(view_of(*v));
  if (const auto* v = value.get_if<Value::List>()) {
    Json list = Json::array();
    for (const Value& element : *v) list.push_back(to_json(element));
    return list;
  }
  if (const auto* v = value.get_if<Value::Map>()) return json_of_map(*v);
  return nullptr;
}

Json arguments_to_json(const Values& values) {
  Json all = list_of(values);
  // Without the empty object, a struct at the end would be read as keyed values.
  if (values.keyed().empty() && !all.empty() && is_keyed(all.back())) all.push_back(Json::object());
  return all;
}

Json result_to_json(const Values& values) {
  if (values.size() == 0 && values.keyed().empty()) return nullptr;
  if (values.size() == 0) return object_of(values);
  if (values.size() == 1 && values.keyed().empty()) return to_json(values.at(0));
  return arguments_to_json(values);
}

Value value_from(const Json& json) {
  if (json.is_null()) return {};
  if (json.is_boolean()) return json.get<bool>();
  if (json.is_number_float()) return json.get<double>();
  if (json.is_number_unsigned()) return json.get<std::uint64_t>();
  if (json.is_number()) return json.get<std::int64_t>();
  if (json.is_string()) return json.get<std::string>();
  if (is_marked(json)) return value_from_marked(json);
  if (json.is_object()) return struct_from(json);
  Value::List list;
  for (const Json& element : json) list.push_back(value_from(element));
  return list;
}

Values arguments_from(const Json& json) {
  Values values;
  if (!json.is_array()) return result_from(json);
  for (std::size_t i = 0; i < json.size(); ++i) {
    if (i + 1 == json.size() && is_keyed(json[i])) {
      add_keyed(values, json[i]);
    } else {
      values.add(value_from(json[i]));
    }
  }
  return values;
}

Values result_from(const Json& json) {
  Values values;
  if (is_keyed(json)) {
    add_keyed(values, json);
  } else if (!json.is_null()) {
    values.add(value_from(json));
  }
  return values;
}

std::string text_of(const Json& json, JsonStyle style) {
  if (style == JsonStyle::pretty) return json.dump(2);
  if (style == JsonStyle::brief) return json.dump();
  if (json.is_null()) return {};
  return json.is_string() ? json.get<std::string>() : json.dump();
}

}  // namespace tolk::tool
