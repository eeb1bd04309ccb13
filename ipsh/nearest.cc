// SPDX-License-Identifier: Apache-2.0
#include "nearest.h"

#include <algorithm>
#include <vector>

namespace ipsh {

size_t edits_between(std::string_view one, std::string_view other) {
  // Row by row; a swap looks two rows back.
  std::vector<size_t> before_last(other.size() + 1), last(other.size() + 1), now(other.size() + 1);
  for (size_t j = 0; j <= other.size(); ++j) last[j] = j;
  for (size_t i = 1; i <= one.size(); ++i) {
    now[0] = i;
    for (size_t j = 1; j <= other.size(); ++j) {
      const size_t replaced = last[j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
      now[j] = std::min({last[j] + 1, now[j - 1] + 1, replaced});
      const bool swapped = i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1];
      if (swapped) now[j] = std::min(now[j], before_last[j - 2] + 1);
    }
    before_last.swap(last);
    last.swap(now);
  }
  return last[other.size()];
}

std::string nearest(std::string_view word, std::span<const std::string> names) {
  // A third of the letters may be wrong, one in any case: beyond that it is a guess.
  size_t most = std::max<size_t>(1, word.size() / 3);
  std::string found;
  if (word.size() > 64) return found;
  for (const std::string &name : names) {
    const size_t edits = edits_between(word, name);
    if (edits > most || (edits == most && !found.empty()) || edits >= name.size()) continue;
    most = edits;
    found = name;
  }
  return found;
}

}  // namespace ipsh
