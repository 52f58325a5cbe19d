/* SPDX-License-Identifier: Apache-2.0
 *
 * sequence_findings.h - sequences of control and membership policies that never decide, and clauses of
 * theirs that never act.
 */
#ifndef TOOL_SEQUENCE_FINDINGS_H
#define TOOL_SEQUENCE_FINDINGS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config_findings.h"

namespace polctl {

class SequenceFindings {
 public:
  explicit SequenceFindings(uint32_t direction) : direction_(direction) {}

  /* A change of a sequence or its match. */
  void take(const t_yarrow_change& change, bool membership);
  void finish(ConfigFindings* findings);

 private:
  struct Match {
    std::string path;
    bool has_clauses = false;
    std::string idle_origin; /* path of an origin that no route has */
  };
  struct Sequence {
    std::string path;
    bool accepts = false;
    std::map<uint32_t, Match> matches;    /* by type */
    std::map<uint32_t, std::string> sets; /* paths by POL_SET_F_* */
    std::string tloc_action;              /* its path */
  };
  using Sequences = std::map<uint16_t, Sequence>;

  void take_match(const t_yarrow_change& change, Sequence* sequence, uint32_t type,
                  const std::string& path);
  void take_action(const t_yarrow_change& change, Sequence* sequence);
  void judge_reach(const Sequences& sequences, ConfigFindings* findings) const;
  void judge_sets(const Sequence& sequence, ConfigFindings* findings) const;
  void judge_both_ways(const std::string& policy, const Sequences& sequences,
                       ConfigFindings* findings) const;

  uint32_t direction_;
  std::map<std::string, Sequences> policies_; /* by the policy's path */
};

}  // namespace polctl

#endif
