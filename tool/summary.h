/* SPDX-License-Identifier: Apache-2.0
 *
 * summary.h - how many routes each sequence of a policy decided.
 */
#ifndef TOOL_SUMMARY_H
#define TOOL_SUMMARY_H

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "host/output.h"
#include "terminal.h"
#include "verdict_writer.h"

namespace polctl {

/* So many routes are shown each on a line, more as a summary. */
inline constexpr uint64_t kFewRoutes = 20;

class Summary {
 public:
  void count(const Verdict& verdict);
  /* What was counted of later routes. */
  void add(const Summary& later);

  /* A row a sequence and outcome, the default action last, and a note on the sequences of the
   * policy, `sequences`, that decided nothing. */
  void print(const std::vector<uint32_t>& sequences, Output* out, const Palette& palette) const;

 private:
  /* Is it the default action, sequence, action: a sequence that accepts has a second row when some
   * of its TLOCs did not resolve. */
  using Key = std::tuple<bool, uint32_t, uint32_t>;
  struct Row {
    uint64_t routes = 0;
    std::string example; /* the first route */
  };

  std::map<Key, Row> rows_;
  uint64_t total_ = 0;
};

}  // namespace polctl

#endif
