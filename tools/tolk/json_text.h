// Values and blocks as JSON, and JSON as values.
//
// | a value that travels | JSON |
// |---|---|
// | bool, int, string, list | true, 3, "text", [ … ] |
// | double | a number with a point: 2.0; {"$double": "nan"} for what is no number |
// | bytes, and a string that is not UTF-8 | {"$base64": "…"} |
// | bytes that hold a block: a struct or an inner list | { … } or [ … ] |
// | nothing | null |
//
// Arguments are an array of the positional values; keyed values are an object at its end:
// [3, "x", {"level": 5}]. An object elsewhere in the array is a struct; behind one that stands at
// the end is an empty object. An object alone is keyed values, and any other value alone is the
// only argument. Inside a value there are no keyed values, so each object is a struct.
// A result that is one value is that value, an object is keyed values, none is null; otherwise as
// arguments.
//
// Thread: any. Owner: values. Failure: BadJson names what can not travel.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>

#include "tools/tolk/command.h"
#include "tools/tolk/output.h"

namespace tolk::tool {

using Json = nlohmann::ordered_json;

struct BadJson : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Keys that are none of the user's, and what is said of one.
bool is_reserved_key(std::string_view key);
inline constexpr const char* kReservedKey = "a key does not begin with s_c_ or tolk.";

// The JSON that a text is. Throws BadJson, which says where it ends to be one.
Json json_from(std::string_view text);

Json to_json(const Value& value);
Json to_json(const TolkValue& value);
// A block as arguments, its keys of the envelope among them.
Json to_json(TolkParams& block);
Json arguments_to_json(const Values& values);
Json result_to_json(const Values& values);

Value value_from(const Json& json);
Values arguments_from(const Json& json);
// An array is one value, a list; an object is keyed values.
Values result_from(const Json& json);

// In one line, or laid out; without a line end. JsonStyle::off is as brief, but a string alone is
// the text itself, and nothing is empty.
std::string text_of(const Json& json, JsonStyle style);

// The same for standard output: with colours, if there are any, and on a terminal without a control
// character of a peer's.
std::string colored(const Json& json, JsonStyle style, const Colors& colors);

// Bytes as base64, and back; `from_base64` throws BadJson.
std::string to_base64(std::string_view bytes);
std::string from_base64(std::string_view text);

}  // namespace tolk::tool
