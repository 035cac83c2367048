// JSON on standard output: with colours, if there are any.
//
// Thread: any. Failure: a Failure of the output; std::bad_alloc.
#pragma once

#include <string>

#include "tools/tolk/text/json.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {

// The text of the JSON with these colours. If standard output is a terminal, control characters in
// it, which may come from a peer, are escaped.
std::string colored(const Json& json, JsonStyle style, const Colors& colors);

// Prints it with a line end.
void print_json(const Json& json, JsonStyle style);

// The same for the result of a call. As plain text, no result prints nothing.
void print_result(const Json& json, JsonStyle style);

}  // namespace tolk::tool
