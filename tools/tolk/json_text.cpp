#include "tools/tolk/json_text.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "tools/tolk/printable.h"

namespace tolk::tool {
namespace {

constexpr char kBase64Key[] = "$base64";
constexpr char kDoubleKey[] = "$double";
constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string_view view_of(const bytes& data) {
  return {reinterpret_cast<const char*>(data.data()), data.size()};
}
bytes bytes_from(std::string_view text) {
  const auto* const first = reinterpret_cast<const std::byte*>(text.data());
  return {first, first + text.size()};
}

// The library's JSON reads texts strictly, so it is asked.
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

Json object_of(const Values& values) {
  Json object = Json::object();
  for (const auto& [key, value] : values.keyed()) object[key] = to_json(value);
  return object;
}

// How deep the calling thread is in blocks inside blocks. A peer may send any number: below the
// deepest they are shown as the bytes that they are.
constexpr int kDeepest = 64;
thread_local int depth = 0;

class Nesting {
 public:
  Nesting() { ++depth; }
  ~Nesting() { --depth; }
  Nesting(const Nesting&) = delete;
  Nesting& operator=(const Nesting&) = delete;
};

// What an inner block holds, as the list that value_from makes such a block of: only arguments need
// the empty object that arguments_to_json adds.
Json list_of(const Values& values) {
  Json all = Json::array();
  for (const Value& value : values.positional()) all.push_back(to_json(value));
  if (!values.keyed().empty()) all.push_back(object_of(values));
  return all;
}

// A struct or an inner list is a block inside bytes. Bytes that happen to be one look the same,
// which is rare: its records carry their own offsets.
Json json_of_stream(std::string_view data) {
  const Nesting one_more;
  const bool may_be_block = !data.empty() && depth <= kDeepest;
  const auto inner = may_be_block ? Values::parse(data) : std::nullopt;
  if (!inner) return json_of_bytes(data);
  return inner->size() == 0 ? object_of(*inner) : list_of(*inner);
}

// Whether it stands for bytes or a number in an object's clothes.
bool is_marked(const Json& json) {
  return json.is_object() && json.size() == 1 &&
         (json.contains(kBase64Key) || json.contains(kDoubleKey));
}
bool is_keyed(const Json& json) { return json.is_object() && !is_marked(json); }

Value value_from_marked(const Json& json) {
  const auto entry = json.begin();
  if (!entry.value().is_string()) throw BadJson(entry.key() + " takes a text");
  const auto text = entry.value().get<std::string>();
  if (entry.key() == kBase64Key) return bytes_from(from_base64(text));
  using Limits = std::numeric_limits<double>;
  if (text == "nan") return Limits::quiet_NaN();
  if (text == "inf") return Limits::infinity();
  if (text == "-inf") return -Limits::infinity();
  throw BadJson("$double takes nan, inf or -inf, not \"" + text + "\"");
}

int int_from(const Json& json) {
  using Limits = std::numeric_limits<int>;
  const bool fits = json.is_number_unsigned()
                        ? json.get<std::uint64_t>() <= std::uint64_t{Limits::max()}
                        : json.get<std::int64_t>() >= Limits::min();
  if (fits) return json.get<int>();
  throw BadJson("an int has 32 bits, " + json.dump() + " has not: write " + json.dump() +
                ".0 or a text");
}

void add_keyed(Values& values, const Json& object) {
  for (const auto& [key, value] : object.items()) {
    if (is_reserved_key(key)) throw BadJson(std::string(kReservedKey) + ", as " + key + " does");
    values.add(key, value_from(value));
  }
}

// A struct as the C++ layer sends it: a block inside bytes.
bytes struct_from(const Json& object) {
  Values fields;
  add_keyed(fields, object);
  TolkParams block;
  fields.put(block);
  return bytes_from(*block.GetParamas());
}

// Texts and words are tokens, every other character is one.
std::size_t token_end(std::string_view json, std::size_t at) {
  if (json[at] == '"') {
    for (++at; json[at] != '"'; ++at) at += json[at] == '\\' ? 1 : 0;
    return at + 1;
  }
  constexpr std::string_view kWord = "+-.0123456789abcdefghijklmnopqrstuvwxyzE";
  const std::size_t end = std::min(json.find_first_not_of(kWord, at), json.size());
  return std::max(end, at + 1);
}

std::string_view color_of(std::string_view json, std::size_t at, std::size_t end,
                          const Colors& colors) {
  if (json[at] == '"') return end < json.size() && json[end] == ':' ? colors.name : colors.text;
  constexpr std::string_view kMarks = "[]{}:, \n";
  return kMarks.find(json[at]) == std::string_view::npos ? colors.number : std::string_view();
}

}  // namespace

// A receiver of the layer's takes them for its own, and drops what it does not know of them.
bool is_reserved_key(std::string_view key) {
  return key.starts_with("s_c_") || key.starts_with("tolk.");
}

Json json_from(std::string_view text) {
  try {
    return Json::parse(text);
  } catch (const Json::parse_error& error) {
    throw BadJson("no JSON from character " + std::to_string(error.byte) + " on");
  } catch (const Json::exception& error) {
    // A number that no double holds. Before the text stands the name of the exception, in brackets.
    const std::string_view what = error.what();
    const std::size_t name_end = what.find("] ");
    throw BadJson(
        std::string(name_end == std::string_view::npos ? what : what.substr(name_end + 2)));
  }
}

Json to_json(const Value& value) {
  if (const auto* v = value.get_if<bool>()) return *v;
  if (const auto* v = value.get_if<int>()) return *v;
  if (const auto* v = value.get_if<double>()) return json_of_real(*v);
  if (const auto* v = value.get_if<std::string>()) return json_of_text(*v);
  if (const auto* v = value.get_if<bytes>()) return json_of_stream(view_of(*v));
  if (const auto* v = value.get_if<Value::List>()) {
    Json list = Json::array();
    for (const Value& element : *v) list.push_back(to_json(element));
    return list;
  }
  return nullptr;
}

Json to_json(const TolkValue& value) { return to_json(Value::of(&value)); }

Json to_json(TolkParams& block) {
  Json all = Json::array();
  for (int i = 0; i < block.ParamsSize(); ++i) all.push_back(to_json(*block.GetValue(i)));
  Json keyed = Json::object();
  for (const auto& [key, value] : *block.GetMapPtr()) keyed[key] = to_json(*value);
  if (!keyed.empty() || (!all.empty() && is_keyed(all.back()))) all.push_back(std::move(keyed));
  return all;
}

Json arguments_to_json(const Values& values) {
  Json all = list_of(values);
  // A struct at the end would be taken for keyed values: an empty object behind it says otherwise.
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
  if (json.is_number()) return int_from(json);
  if (json.is_string()) return json.get<std::string>();
  if (is_marked(json)) return value_from_marked(json);
  if (json.is_object()) return struct_from(json);
  Value::List list;
  for (const Json& element : json) {
    if (element.is_null()) throw BadJson("null has no place in a list");
    list.push_back(value_from(element));
  }
  return list;
}

Values arguments_from(const Json& json) {
  Values values;
  if (!json.is_array()) return result_from(json);
  for (std::size_t i = 0; i < json.size(); ++i) {
    if (json[i].is_null()) throw BadJson("null has no place among the arguments");
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

std::string colored(const Json& json, JsonStyle style, const Colors& colors) {
  std::string text = text_of(json, style);
  if (Output::get().data_is_terminal()) text = harmless(text);
  if (colors.off.empty() || (json.is_string() && style == JsonStyle::off)) return text;
  std::string painted;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = token_end(text, at);
    const std::string_view color = color_of(text, at, end, colors);
    const std::string_view off = color.empty() ? std::string_view() : colors.off;
    painted.append(color).append(text, at, end - at).append(off);
    at = end;
  }
  return painted;
}

std::string to_base64(std::string_view bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    unsigned bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      text += i <= group.size() ? kDigits[bits >> (18 - 6 * i) & 63] : '=';
    }
  }
  return text;
}

std::string from_base64(std::string_view text) {
  if (text.size() % 4 != 0) throw BadJson("base64 comes in groups of four characters");
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::string bytes;
  unsigned bits = 0;
  int held = 0;
  for (const char character : text) {
    const std::size_t digit = kDigits.find(character);
    if (digit == std::string_view::npos) {
      throw BadJson(std::string("no base64 character: ") + character);
    }
    bits = (bits << 6 | static_cast<unsigned>(digit)) & 0xffffU;
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>(bits >> held & 255);
  }
  return bytes;
}

}  // namespace tolk::tool
