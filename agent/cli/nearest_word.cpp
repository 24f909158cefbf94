#include "agent/cli/nearest_word.h"

#include <algorithm>
#include <vector>

namespace vnagent {
namespace {

// The optimal string alignment distance.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> beforeLast(b.size() + 1);
  std::vector<size_t> last(b.size() + 1);
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    beforeLast.swap(last);
    last.swap(row);
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        row[j] = std::min(row[j], beforeLast[j - 2] + 1);
      }
    }
  }
  return row[b.size()];
}

}  // namespace

std::string nearestWord(std::string_view word, std::span<const std::string> known) {
  std::string_view best;
  size_t bestDistance = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : known) {
    if (word.size() > 2 && candidate.starts_with(word)) return candidate;
    const size_t far = distance(word, candidate);
    if (far >= bestDistance) continue;
    best = candidate;
    bestDistance = far;
  }
  return std::string(best);
}

}  // namespace vnagent
