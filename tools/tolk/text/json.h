// Values and blocks as JSON, and JSON as values.
//
// | value on the wire | JSON |
// |---|---|
// | bool, int, string, list | true, 3, "text", [ … ] |
// | double | a number with a point: 2.0; {"$double": "nan"}, "inf" or "-inf" for the others |
// | bytes, and a string that is not UTF-8 | {"$base64": "…"} |
// | bytes that hold a block: a struct or an inner list | { … } or [ … ] |
// | nothing: an absent value | null |
//
// Arguments are an array of the positional values; the keyed values are an object at its end:
// [3, "x", {"level": 5}]. An object elsewhere in the array is a struct. If a struct is the last
// positional value and there are no keyed values, an empty object follows it. An object alone is
// keyed values, and any other value alone is the only argument. Inside a value there are no keyed
// values, so each object is a struct.
// A result of one value is that value; keyed values alone are an object; no values are null; any
// other result has the form of arguments.
//
// Thread: any. Owner: values. Failure: BadJson names what a call cannot carry.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>

#include "tools/tolk/command/common_options.h"

namespace tolk::tool {

using Json = nlohmann::ordered_json;

struct BadJson : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Whether the protocol reserves the key, and what the command says of such a key.
bool is_reserved_key(std::string_view key);
inline constexpr const char* kReservedKey = "a key must not begin with s_c_ or tolk.";

// Parses a text. Throws BadJson, which says where the text stops being JSON.
Json json_from(std::string_view text);

Json to_json(const Value& value);
Json arguments_to_json(const Values& values);
Json result_to_json(const Values& values);

Value value_from(const Json& json);
Values arguments_from(const Json& json);
// An array is one value, a list; an object is keyed values.
Values result_from(const Json& json);

// The text of the JSON, without a line end: in one line, or on several with `pretty`. With
// JsonStyle::off a string alone is the text itself, and null is empty.
std::string text_of(const Json& json, JsonStyle style);

}  // namespace tolk::tool
