// The word that somebody meant who has mistyped it.
//
// Thread: any. Failure: std::bad_alloc.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tolk::tool {

// "did you mean WORD? ", for the candidate that differs least from the word; empty if each differs
// in more than a third of it.
std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace tolk::tool
