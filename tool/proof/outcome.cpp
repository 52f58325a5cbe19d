// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "host/address_text.h"
#include "host/output.h"
#include "kel/tloc.h"
#include "policy/pol_util.h"
#include "policy_proof.h"

namespace polctl {

namespace {

std::string vpns_of(const SequenceModel& sequence) {
  std::vector<std::string> ranges;
  auto add = [&](uint64_t low, uint64_t high) {
    if (ranges.size() == POL_MAX_VPN) return;
    ranges.push_back(low == high ? std::to_string(low) : fmt::format("{}-{}", low, high));
  };
  if ((sequence.is.set_flags & POL_SET_F_VPN_ID) != 0) {
    add(sequence.is.set_vpn_id, sequence.is.set_vpn_id);
  }
  if ((sequence.is.set_flags & POL_SET_F_VPN_LIST) != 0 && sequence.set_vpn_list != nullptr) {
    for (const auto& each : sequence.set_vpn_list->elements) add(each.low, each.high);
  }
  return ranges.empty() ? "none" : joined(ranges, ", ");
}

std::string tlocs_of(const ListModel* list) {
  std::vector<std::string> tlocs;
  if (list != nullptr) {
    for (const auto& each : list->elements) {
      if (tlocs.size() < POL_MAX_TLOC) tlocs.push_back(tloc_text(each.tloc));
    }
  }
  return tlocs.empty() ? "none" : joined(tlocs, ", ");
}

}  // namespace

bool Outcome::operator==(const Outcome& other) const {
  if (action != other.action || if_resolved != other.if_resolved ||
      sets.size() != other.sets.size()) {
    return false;
  }
  for (size_t i = 0; i < sets.size(); ++i) {
    if (std::string_view(sets[i].first) != other.sets[i].first) return false;
    if (sets[i].second != other.sets[i].second) return false;
  }
  return true;
}

Outcome outcome_of(const SequenceModel& sequence, uint32_t match_type, uint32_t direction) {
  const t_pol_content_sequence& is = sequence.is;
  Outcome outcome;
  outcome.action = is.action;
  if (is.action != POL_ACCEPT || match_type == POL_MATCH_SERVICE) return outcome;
  auto sets = [&](uint32_t flag) { return (is.set_flags & flag) != 0; };
  auto add = [&](const char* word, std::string value) {
    outcome.sets.emplace_back(word, std::move(value));
  };
  const bool route = match_type == POL_MATCH_ROUTE;
  const bool in = direction == POL_DIR_IN;
  const bool out = direction == POL_DIR_OUT;
  if (sets(POL_SET_F_TAG)) add("tag", std::to_string(is.set_tag));
  if (sets(POL_SET_F_PREF)) add("preference", std::to_string(is.set_preference));
  if (!route) return outcome;
  // The route's own TLOC stands in for one that does not resolve.
  const bool keeps = is.ultimate_tloc > 1;
  bool never = false;
  auto resolve = [&](const char* word, std::string value, bool any) {
    if (is.ultimate_tloc > 0) {
      value += fmt::format(", {}", kel_attr_ultimate_tloc_str(is.ultimate_tloc));
    }
    add(word, std::move(value));
    if (keeps) return;
    outcome.if_resolved = true;
    never = never || !any;
  };
  if (sets(POL_SET_F_TLOC)) resolve("tloc", tloc_text(is.set_tloc), true);
  if (in &&
      (sets(POL_SET_F_VPN_ID) || (sets(POL_SET_F_VPN_LIST) && sequence.set_vpn_list != nullptr))) {
    add("vpn", vpns_of(sequence));
  }
  // The VPN and the service that it is resolved for.
  if (out && sets(POL_SET_F_TLOC_LIST)) {
    std::string value = tlocs_of(sequence.set_tloc_list);
    if (is.set_vpn_id != 0) value += fmt::format(" in vpn {}", is.set_vpn_id);
    if (is.set_service != 0) value += fmt::format(" for {}", kel_util_svc_name(is.set_service));
    bool any = sequence.set_tloc_list != nullptr && !sequence.set_tloc_list->elements.empty();
    resolve("tloc-list", std::move(value), any);
  }
  if (out && sets(POL_SET_F_SERVICE)) {
    resolve("service",
            fmt::format("{} at {} in vpn {}", kel_util_svc_name(is.set_service),
                        tloc_text(is.set_service_tloc), is.set_service_vpn),
            true);
  }
  if (never) return {POL_REJECT, false, {}};
  return outcome;
}

std::string outcome_text(const Outcome& outcome) {
  std::string text = pol_util_action_str(outcome.action);
  if (outcome.if_resolved) text += " if it resolves";
  for (size_t i = 0; i < outcome.sets.size(); ++i) {
    text += fmt::format(", {}{} {}", i == 0 ? "set " : "", outcome.sets[i].first,
                        outcome.sets[i].second);
  }
  return text;
}

}  // namespace polctl
