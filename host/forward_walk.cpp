// SPDX-License-Identifier: Apache-2.0
//
// Most changes go to their reader as they come. Where a difference says too little, or does too
// little, more is handed over:
//
// - A sequence that goes leaves its DNS and SaaS application lists registered for good. So both are
//   first taken out of it.
// - A TLOC and that of a service stand in one place of the library, and a TLOC that loses its
//   address or encapsulation keeps them there; the reader takes SLA settings for all there are; and it
//   resolves a service when that is told, but not when the VPN or the TLOC list changes that it depends
//   on. A sequence in which one of these changes is deleted and made anew.
// - A VPN list's own settings and its sequence 0 are one sequence. Both are made anew when either
//   changes and the other may be touched by that.
// - A VPN list is told as modified also when only a sequence of it changed: its reader has the
//   policy's text fetched again.
#include "forward_walk.h"

#include <algorithm>

#include "policy/pol_config.h"
#include "policy/pol_config_tags.h"

namespace polctl {

namespace {

constexpr std::string_view kDataPolicy = "/policy/data-policy";
constexpr std::string_view kAppRoutePolicy = "/policy/app-route-policy";

constexpr uint8_t kPolicyLevel = 1;
constexpr uint8_t kVpnListLevel = 2;
constexpr uint8_t kSequenceLevel = 3;

bool is_sla(uint32_t tag) {
  return tag == POL_TAG_SLA_CLASS || tag == POL_TAG_STRICT || tag == POL_TAG_PREFERRED_COLOR;
}

template <typename Test>
bool any_leaf(const t_yarrow_change& change, Test test) {
  bool found = false;
  for_each_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value& leaf) {
    found = found || test(scope, leaf);
  });
  return found;
}

// Whether a sequence with these leaves, the change merged in, is what its reader makes of the change.
bool told(const t_yarrow_change& change, const LeafMirror& leaves) {
  const bool service = leaves.count_in(POL_TAG_SERVICE) > 0;
  const bool address = leaves.count(POL_TAG_ADDRESS) > 0;
  auto inside = [](const Scope& scope, uint32_t container) {
    return std::find(scope.begin(), scope.end(), container) != scope.end();
  };
  return !any_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value& leaf) {
    if (inside(scope, POL_TAG_SERVICE) || is_sla(leaf.tag)) return true;
    if (inside(scope, POL_TAG_TLOC)) {
      return service || !address || (leaf.tag == POL_TAG_ENCAP && leaf.v.type == C_NOEXISTS);
    }
    return service && (leaf.tag == POL_TAG_VPN || leaf.tag == POL_TAG_TLOC_LIST);
  });
}

t_yarrow_value text_value(const std::string& text) {
  t_yarrow_value value = {};
  value.type = C_BUF;
  value.val.buf.size = static_cast<uint32_t>(text.size());
  value.val.buf.ptr = const_cast<uint8_t*>(reinterpret_cast<const uint8_t*>(text.c_str()));
  return value;
}

}  // namespace

bool ForwardWalk::take(const t_yarrow_change& change, ConfiguredNames* names) {
  std::string_view path = change.path;
  bool data = path.starts_with(kDataPolicy);
  std::string_view top = data ? kDataPolicy : kAppRoutePolicy;
  if (!path.starts_with(top)) return false;
  std::string_view rest = path.substr(top.size());
  Place at = {data ? POL_KIND_DATA : POL_KIND_PERF_ROUTE, text_key(change, 0), {}, 0};
  if (rest.empty()) {
    note_name(top, change, names);
    take_policy(at, change);
  } else if (rest == "/vpn-list") {
    at.vpn_list = text_key(change, 1);
    take_vpn_list(at, change);
  } else if (rest == "/vpn-list/sequence") {
    at.vpn_list = text_key(change, 1);
    at.sequence = change.keys[2].val.u16;
    take_sequence(at, change);
  } else {
    return false;
  }
  return true;
}

void ForwardWalk::take_policy(const Place& at, const t_yarrow_change& change) {
  if (change.op == YARROW_DELETED) {
    release(at, policies(at.kind)[at.policy]);
    policies(at.kind).erase(at.policy);
  }
  hand(at, kPolicyLevel, change.op, {});
}

void ForwardWalk::take_vpn_list(const Place& at, const t_yarrow_change& change) {
  VpnList& list = vpn_list(at);
  if (change.op == YARROW_DELETED) {
    release(at, list);
    policies(at.kind)[at.policy].erase(at.vpn_list);
    return hand(at, kVpnListLevel, change.op, {});
  }
  list.leaves.merge(change);
  std::vector<t_yarrow_tag_value> values(change.values, change.values + change.value_count);
  if (any_leaf(change, [](const Scope&, const auto& leaf) { return is_sla(leaf.tag); })) {
    if (list.sequences.count(0) != 0) return make_anew(at);
    if (list.leaves.count(POL_TAG_SLA_CLASS) != 0) values = list.leaves.values();
  }
  hand(at, kVpnListLevel, change.op, values);
}

void ForwardWalk::take_sequence(const Place& at, const t_yarrow_change& change) {
  VpnList& list = vpn_list(at);
  LeafMirror& leaves = list.sequences[at.sequence];
  if (change.op == YARROW_DELETED) {
    release(at);
    list.sequences.erase(at.sequence);
    if (at.sequence == 0) return make_anew(at);
    return hand(at, kSequenceLevel, change.op, {});
  }
  leaves.merge(change);
  if (change.op == YARROW_MODIFIED && !told(change, leaves)) return make_anew(at);
  // Only a label in it changed, and those the library has from itself.
  if (change.op == YARROW_MODIFIED && change.value_count == 0) return;
  hand(at, kSequenceLevel, change.op, {change.values, change.values + change.value_count});
}

void ForwardWalk::make_anew(const Place& at) {
  VpnList& list = vpn_list(at);
  release(at);
  hand(at, kSequenceLevel, YARROW_DELETED, {});
  if (at.sequence == 0) {
    hand(at, kVpnListLevel, YARROW_CREATED, list.leaves.values());
  }
  auto sequence = list.sequences.find(at.sequence);
  if (sequence == list.sequences.end()) return;
  hand(at, kSequenceLevel, YARROW_CREATED, sequence->second.values());
}

void ForwardWalk::release(const Place& at) {
  t_yarrow_tag_value gone[2] = {};
  gone[0].tag = POL_TAG_DNS_APP_LIST;
  gone[1].tag = POL_TAG_SAAS_APP_LIST;
  for (t_yarrow_tag_value& value : gone) value.v.type = C_NOEXISTS;
  hand(at, kSequenceLevel, YARROW_MODIFIED, {gone, gone + 2});
}

void ForwardWalk::release(const Place& at, const VpnList& list) {
  Place within = at;
  for (const auto& [number, leaves] : list.sequences) {
    if (leaves.count(POL_TAG_DNS_APP_LIST) + leaves.count(POL_TAG_SAAS_APP_LIST) == 0) continue;
    within.sequence = number;
    release(within);
  }
}

void ForwardWalk::release(const Place& at, const Policy& policy) {
  Place within = at;
  for (const auto& [name, list] : policy) {
    within.vpn_list = name;
    release(within, list);
  }
}

void ForwardWalk::release_all() {
  for (uint32_t kind : {POL_KIND_DATA, POL_KIND_PERF_ROUTE}) {
    for (const auto& [name, policy] : policies(kind)) release({kind, name, {}, 0}, policy);
    policies(kind).clear();
  }
}

void ForwardWalk::hand(const Place& at, uint8_t level, uint32_t op,
                       const std::vector<t_yarrow_tag_value>& values) {
  t_yarrow_value keys[3] = {text_value(at.policy), text_value(at.vpn_list), {}};
  keys[2].type = C_UINT16;
  keys[2].val.u16 = at.sequence;
  auto reader = level == kPolicyLevel    ? pol_config_fwd_read
                : level == kVpnListLevel ? pol_config_fwd_vpn_list_read
                                         : pol_config_fwd_seq_read;
  reader(at.kind, nullptr, ctx_, op, level, keys, static_cast<uint16_t>(values.size()),
         values.data());
}

}  // namespace polctl
