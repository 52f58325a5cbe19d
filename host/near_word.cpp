// SPDX-License-Identifier: Apache-2.0
#include "near_word.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace polctl {

namespace {

constexpr size_t kLongestWord = 127;  // the work is quadratic in it
constexpr size_t kMostSlips = 4;

// How many characters must be changed, added, dropped or swapped with the next to make one word of
// the other.
size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<size_t> before(b.size() + 1);
  std::vector<size_t> row(b.size() + 1);
  std::vector<size_t> next(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    next[0] = i + 1;
    for (size_t j = 0; j < b.size(); ++j) {
      size_t cost = row[j] + (a[i] == b[j] ? 0 : 1);
      if (i > 0 && j > 0 && a[i] == b[j - 1] && a[i - 1] == b[j]) {
        cost = std::min(cost, before[j - 1] + 1);
      }
      next[j + 1] = std::min({row[j + 1] + 1, next[j] + 1, cost});
    }
    before.swap(row);
    row.swap(next);
  }
  return row[b.size()];
}

}  // namespace

std::vector<std::string> near_words(std::string_view word, const std::vector<std::string>& known) {
  if (word.size() > kLongestWord) return {};
  size_t tolerated = std::clamp<size_t>(word.size() / 3, 1, kMostSlips);
  std::vector<std::pair<size_t, std::string>> found;
  for (const std::string& each : known) {
    size_t longer = std::max(each.size(), word.size());
    if (longer - std::min(each.size(), word.size()) > tolerated) continue;
    size_t distance = edit_distance(word, each);
    if (distance <= tolerated) found.emplace_back(distance, each);
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> words;
  words.reserve(found.size());
  for (auto& [distance, each] : found) words.push_back(std::move(each));
  return words;
}

}  // namespace polctl
