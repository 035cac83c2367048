#include "tools/tolk/text/nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace tolk::tool {
namespace {

// How many characters must be added, removed, changed or exchanged with their neighbour.
std::size_t distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> before;
  std::vector<std::size_t> last(to.size() + 1);
  std::iota(last.begin(), last.end(), std::size_t{0});
  for (std::size_t i = 1; i <= from.size(); ++i) {
    std::vector<std::size_t> row(to.size() + 1, i);
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const bool same = from[i - 1] == to[j - 1];
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0 : 1)});
      const bool exchanged = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
      if (exchanged) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before = std::exchange(last, std::move(row));
  }
  return last.back();
}

}  // namespace

std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates) {
  std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
  std::string meant;
  for (const std::string& candidate : candidates) {
    const std::size_t differs = distance(word, candidate);
    if (differs >= least) continue;
    least = differs;
    meant = candidate;
  }
  return meant.empty() ? "" : "did you mean " + meant + "? ";
}

}  // namespace tolk::tool
