// Records of a block as JSON, in the shapes of json_text.h: values by position in an array, values
// under keys in an object at its end. A map is an object.
//
// Texts and streams of more than kMostShownBytes are shown by their size and how they begin:
// {"$bytes": 262144, "$first": "…"}.
// Thread: any. Owner: values. Failure: std::bad_alloc.
#pragma once

#include "tools/tolk/frames.h"
#include "tools/tolk/json_text.h"

namespace tolk::tool {

inline constexpr std::size_t kMostShownBytes = 256;

Json to_json(const Record& record);
Json to_json(const Block& block);
// A text that may be no UTF-8.
Json text_to_json(std::string_view text);

// Adds what a message holds: id, arguments or result, why it failed, what is malformed.
void add_content(Json& line, const Message& message);

}  // namespace tolk::tool
