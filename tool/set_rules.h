/* SPDX-License-Identifier: Apache-2.0
 *
 * set_rules.h - when a set clause acts. The library passes over one that does not without a word.
 *
 *   clause             acts on          when the policy is applied
 *   tag, preference    route, tloc      in or out
 *   tloc               route            in or out
 *   vpn, vpn-list      route            in
 *   tloc-list, service route            out
 *
 * and always on an accept only.
 */
#ifndef TOOL_SET_RULES_H
#define TOOL_SET_RULES_H

#include <cstdint>
#include <string>
#include <vector>

namespace polctl {

struct SetRule {
  uint32_t flag;      /* POL_SET_F_* */
  uint32_t applied;   /* POL_APPLIED_* that tells of it */
  const char* word;   /* as in configuration */
  bool on_tlocs;      /* else on routes alone; never on services */
  uint32_t direction; /* in which alone it acts, or POL_DIR_NONE */
};

/* All of them, in the order in which they are applied. */
const std::vector<SetRule>& set_rules();

/* Why a clause of a sequence does not act, in words; null when it does, or may: what is not known
 * is 0. */
const char* why_idle(const SetRule& rule, uint32_t action, uint32_t match_type, uint32_t direction);

/* "tloc-list, service" */
std::string set_words(uint32_t flags);

/* What a reader is told who gave no direction: "" where that makes no difference to a policy that sets
 * `flags`. */
std::string direction_note(const std::string& policy, uint32_t flags);

/* Set clauses that one direction alone takes. */
inline constexpr uint32_t kInboundSets = 0x18;  /* VPN-ID, VPN-LIST */
inline constexpr uint32_t kOutboundSets = 0x60; /* TLOC-LIST, SERVICE */

}  // namespace polctl

#endif
