// SPDX-License-Identifier: Apache-2.0
#include "set_rules.h"

#include "host/address_text.h"
#include "host/output.h"
#include "policy/pol_types.h"

namespace polctl {

static_assert(kInboundSets == (POL_SET_F_VPN_ID | POL_SET_F_VPN_LIST));
static_assert(kOutboundSets == (POL_SET_F_TLOC_LIST | POL_SET_F_SERVICE));

const std::vector<SetRule>& set_rules() {
  static const std::vector<SetRule> rules = {
      {POL_SET_F_TAG, POL_APPLIED_TAG, "tag", true, POL_DIR_NONE},
      {POL_SET_F_PREF, POL_APPLIED_PREF, "preference", true, POL_DIR_NONE},
      {POL_SET_F_TLOC, POL_APPLIED_TLOC, "tloc", false, POL_DIR_NONE},
      {POL_SET_F_VPN_ID, POL_APPLIED_VPN, "vpn", false, POL_DIR_IN},
      {POL_SET_F_VPN_LIST, POL_APPLIED_VPN, "vpn-list", false, POL_DIR_IN},
      {POL_SET_F_TLOC_LIST, POL_APPLIED_TLOC_LIST, "tloc-list", false, POL_DIR_OUT},
      {POL_SET_F_SERVICE, POL_APPLIED_SERVICE, "service", false, POL_DIR_OUT},
  };
  return rules;
}

const char* why_idle(const SetRule& rule, uint32_t action, uint32_t match_type,
                     uint32_t direction) {
  if (action == POL_REJECT) return "nothing is set on a reject";
  if (match_type == POL_MATCH_SERVICE) return "nothing is set on a service";
  if (match_type == POL_MATCH_TLOC && !rule.on_tlocs) return "it is set on routes alone";
  bool other_way =
      direction != POL_DIR_NONE && rule.direction != POL_DIR_NONE && direction != rule.direction;
  if (!other_way) return nullptr;
  return rule.direction == POL_DIR_IN ? "it acts inbound alone" : "it acts outbound alone";
}

std::string direction_note(const std::string& policy, uint32_t flags) {
  uint32_t outbound = flags & kOutboundSets;
  uint32_t inbound = flags & kInboundSets;
  if (outbound + inbound == 0) return "";
  std::string ways;
  if (outbound != 0) ways = set_words(outbound) + " outbound alone";
  if (inbound != 0) ways += (ways.empty() ? "" : ", ") + set_words(inbound) + " inbound alone";
  return "note: asked inbound, for want of --direction; policy " + in_quotes(policy) + " sets " +
         ways + "\n";
}

std::string set_words(uint32_t flags) {
  std::vector<std::string> words;
  for (const SetRule& rule : set_rules()) {
    if ((flags & rule.flag) != 0) words.emplace_back(rule.word);
  }
  return joined(words, ", ");
}

}  // namespace polctl
