// SPDX-License-Identifier: Apache-2.0
#include "difference.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace polctl {

namespace {

struct Answers {
  Outcome was;
  Outcome is;
  uint32_t direction;
};

// The answers of two sequences to routes of a type, where they differ.
std::optional<Answers> unlike(const SequenceModel& a, const SequenceModel& b, uint32_t type,
                              const std::vector<uint32_t>& directions) {
  for (uint32_t direction : directions) {
    Outcome was = outcome_of(a, type, direction);
    Outcome is = outcome_of(b, type, direction);
    if (!(was == is)) return Answers{std::move(was), std::move(is), direction};
  }
  return std::nullopt;
}

// One sequence of each, or one without a partner.
struct Pair {
  std::optional<size_t> before;
  std::optional<size_t> after;
};

class Pairing {
 public:
  Pairing(const PolicyProof& before, const PolicyProof& after,
          const std::vector<uint32_t>& directions)
      : before_(before), after_(after), directions_(directions) {
    // The default actions pair up, and are last.
    const size_t a = before.size() - 1;
    const size_t b = after.size() - 1;
    size_t head = 0;
    while (head < a && head < b && same(head, head)) pair(head, head), ++head;
    size_t tail = 0;
    while (head + tail < a && head + tail < b && same(a - 1 - tail, b - 1 - tail)) ++tail;
    middle(head, a - tail, head, b - tail);
    for (size_t i = 0; i < tail; ++i) pair(a - tail + i, b - tail + i);
  }

  const std::vector<Pair>& pairs() const { return pairs_; }

 private:
  static constexpr size_t kMostPairs = 4'000'000;  // that are looked at for the longest run

  bool answers_alike(size_t i, size_t j) const {
    uint32_t type = before_.sequence(i).is.match_type;
    return type == after_.sequence(j).is.match_type &&
           !unlike(before_.sequence(i), after_.sequence(j), type, directions_);
  }

  bool same(size_t i, size_t j) const {
    return before_.atoms(i) == after_.atoms(j) && answers_alike(i, j);
  }

  void pair(size_t i, size_t j) { pairs_.push_back({i, j}); }

  // The longest common run, then what lies between its members.
  void middle(size_t a, size_t a_end, size_t b, size_t b_end) {
    const size_t rows = a_end - a;
    const size_t columns = b_end - b;
    if (rows * columns > kMostPairs) return between(a, a_end, b, b_end);
    std::vector<uint32_t> longest((rows + 1) * (columns + 1));
    auto at = [&](size_t i, size_t j) -> uint32_t& { return longest[i * (columns + 1) + j]; };
    for (size_t i = rows; i-- > 0;) {
      for (size_t j = columns; j-- > 0;) {
        at(i, j) = same(a + i, b + j) ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
      }
    }
    size_t i = 0;
    size_t j = 0;
    size_t i_done = 0;
    size_t j_done = 0;
    while (i < rows && j < columns) {
      if (same(a + i, b + j)) {
        between(a + i_done, a + i, b + j_done, b + j);
        pair(a + i, b + j);
        i_done = ++i;
        j_done = ++j;
      } else if (at(i + 1, j) >= at(i, j + 1)) {
        ++i;
      } else {
        ++j;
      }
    }
    between(a + i_done, a_end, b + j_done, b_end);
  }

  void between(size_t a, size_t a_end, size_t b, size_t b_end) {
    while (a < a_end && b < b_end) {
      if (answers_alike(a, b)) {
        pair(a++, b++);
      } else if (a_end - a > b_end - b) {
        pairs_.push_back({a++, std::nullopt});
      } else if (a_end - a < b_end - b) {
        pairs_.push_back({std::nullopt, b++});
      } else {
        pairs_.push_back({a++, std::nullopt});
        pairs_.push_back({std::nullopt, b++});
      }
    }
    for (; a < a_end; ++a) pairs_.push_back({a, std::nullopt});
    for (; b < b_end; ++b) pairs_.push_back({std::nullopt, b});
  }

  const PolicyProof& before_;
  const PolicyProof& after_;
  const std::vector<uint32_t>& directions_;
  std::vector<Pair> pairs_;
};

// Outside of these every route is taken by the same pairs, and so answered by the same one or by default.
RouteSet in_question(RouteSpace* space, const PolicyProof& before, const PolicyProof& after,
                     const std::vector<uint32_t>& directions) {
  Pairing pairing(before, after, directions);
  RouteSet routes;
  for (const Pair& pair : pairing.pairs()) {
    if (!pair.before) {
      routes = routes | after.takes(*pair.after);
    } else if (!pair.after) {
      routes = routes | before.takes(*pair.before);
    } else if (before.atoms(*pair.before) != after.atoms(*pair.after)) {
      routes = routes | (before.takes(*pair.before) ^ after.takes(*pair.after));
    }
  }
  const SequenceModel& was = before.sequence(before.size() - 1);
  const SequenceModel& is = after.sequence(after.size() - 1);
  for (uint32_t type : kRouteTypes) {
    if (unlike(was, is, type, directions)) routes = routes | space->type(type);
  }
  return routes & before.universe();
}

}  // namespace

bool plainly_equal(const PolicyProof& before, const PolicyProof& after,
                   const std::vector<uint32_t>& directions) {
  if (before.size() != after.size()) return false;
  for (size_t i = 0; i < before.size(); ++i) {
    const SequenceModel& was = before.sequence(i);
    const SequenceModel& is = after.sequence(i);
    if (before.atoms(i) != after.atoms(i)) return false;
    if (!was.is_default() && was.is.match_type != is.is.match_type) return false;
    for (uint32_t type : kRouteTypes) {
      if (!was.is_default() && was.is.match_type != type) continue;
      if (unlike(was, is, type, directions)) return false;
    }
  }
  return true;
}

std::vector<Difference> differences(RouteSpace* space, const PolicyProof& before,
                                    const PolicyProof& after,
                                    const std::vector<uint32_t>& directions) {
  std::vector<Difference> found;
  RouteSet routes = in_question(space, before, after, directions);
  std::vector<PolicyProof::Part> parts = after.split(routes);
  for (auto& [i, part] : before.split(std::move(routes))) {
    for (const auto& [j, other] : parts) {
      for (uint32_t type : kRouteTypes) {
        const SequenceModel& was = before.sequence(i);
        const SequenceModel& is = after.sequence(j);
        if (!was.is_default() && was.is.match_type != type) continue;
        if (!is.is_default() && is.is.match_type != type) continue;
        auto answers = unlike(was, is, type, directions);
        if (!answers) continue;
        RouteSet both = part & other & space->type(type);
        if (both.empty()) continue;
        // The default actions decide routes of every type.
        Difference* last = found.empty() ? nullptr : &found.back();
        if (last != nullptr && last->before == i && last->after == j && last->was == answers->was &&
            last->is == answers->is && last->direction == answers->direction) {
          last->routes = last->routes | both;
          continue;
        }
        found.push_back({i, j, std::move(answers->was), std::move(answers->is), answers->direction,
                         std::move(both)});
      }
    }
  }
  return found;
}

}  // namespace polctl
