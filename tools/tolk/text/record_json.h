// Decoded records as JSON, in the forms of json.h: positional values in an array, keyed values in
// an object at its end. A map is an object.
//
// A text or stream of more than kMostShownBytes is shown by its size and its first bytes:
// {"$bytes": 262144, "$first": "…"}.
// Thread: any. Owner: values. Failure: std::bad_alloc.
#pragma once

#include "tools/tolk/text/json.h"
#include "tools/tolk/wire/message.h"

namespace tolk::tool {

inline constexpr std::size_t kMostShownBytes = 256;

Json to_json(const DecodedRecord& record);
Json to_json(const DecodedBlock& block);
// A text, which need not be UTF-8.
Json text_to_json(std::string_view text);

// Adds the content of a message: id, arguments or result, the error, and what is malformed.
void add_content(Json& line, const Message& message);

}  // namespace tolk::tool
