// JSON with long values by their size and their begin, for people who watch.
//
// A text of more than kMostShownBytes is {"$bytes": 70000, "$text": "its begin"}; bytes are
// {"$bytes": 70000, "$first": "their begin as base64"}. A list of more than kMostShownElements has
// {"$more": 900} at its end.
// Thread: any. Failure: std::bad_alloc.
#pragma once

#include "tools/tolk/text/json.h"

namespace tolk::tool {

inline constexpr std::size_t kMostShownElements = 32;

Json shortened(const Json& json);

}  // namespace tolk::tool
