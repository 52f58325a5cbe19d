// SPDX-License-Identifier: Apache-2.0
// Readers of control (route) and membership policies.
//
// The leaves of a TLOC or service come one by one, each with what changed; they are gathered over
// the walk and then laid over what the sequence has. A reader keeps one changed flag and notifies
// once at its end.
#include "base/pol_log.h"
#include "core/pol_context_internal.h"
#include "intake/pol_config_internal.h"
#include "policy/pol_clause.h"

namespace {

constexpr uint32_t kTagAction = 0x0369ffb7;
constexpr uint32_t kTagTag = 0x0c2c7467;
constexpr uint32_t kTagPreference = 0x176ecfd3;
constexpr uint32_t kTagDomain = 0x1beabc63;
constexpr uint32_t kTagVpnList = 0x6aebf6e6;
constexpr uint32_t kTagSite = 0x59a72353;
constexpr uint32_t kTagSiteList = 0x6d6fa00b;
constexpr uint32_t kTagGroup = 0x7ce0369b;
constexpr uint32_t kTagColorList = 0x3129eae5;
constexpr uint32_t kTagOriginator = 0x470748d8;
constexpr uint32_t kTagCarrier = 0x4ef9605a;
constexpr uint32_t kTagPfxList = 0x5dc389d2;
constexpr uint32_t kTagTlocAction = 0x4a63a685;
constexpr uint32_t kTagOrigin = 0x775cf168;

constexpr uint32_t kFailed = 1;

constexpr uint8_t kLevelPolicy = 1;
constexpr uint8_t kLevelSequence = 2;
constexpr uint8_t kLevelMatch = 3;

uint32_t finish(t_pol_ctx* ctx, uint8_t changed) {
  if (changed != 0) pol_user_chg_list_notify_all(ctx);
  return 0;
}

// YANG's accept is 0 and reject 1; 0 for other numbers, which are ignored.
uint32_t action_of(uint32_t verdict) {
  return verdict == 0 ? uint32_t{POL_ACCEPT} : verdict == 1 ? uint32_t{POL_REJECT} : 0;
}

void set_action(t_pol_ctx* ctx, t_pol_entry* entry, const pol::Leaf& leaf, uint8_t* changed) {
  const uint32_t action = action_of(leaf.enumeration());
  if (action != 0) pol_entry_action_add(ctx, entry, action, changed);
}

void set_default_action(t_pol_ctx* ctx, t_pol_block* block, const pol::Leaf& leaf,
                        uint8_t* changed) {
  const uint32_t action = action_of(leaf.enumeration());
  if (action == 0 || block == nullptr || block->default_action.action == action) return;
  block->default_action.action = action;
  pol_block_users_add_to_chg_list(ctx, block);
  *changed = 1;
}

// The policy's own node, alike for both kinds.
uint32_t read_policy(t_pol_ctx* ctx, uint32_t op, const char* name, uint32_t kind, const char* what,
                     const pol::Leaves& leaves) {
  uint8_t changed = 0;
  t_pol_block* block = nullptr;
  switch (op) {
    case POL_CFG_CREATED:
      block = pol_block_find_or_create(ctx, name, kind, &changed);
      if (block == nullptr) {
        POL_LOG("Failed to create %s policy - pol: %s\n", what, name);
        return kFailed;
      }
      break;
    case POL_CFG_DELETED:
      pol_block_find_and_delete(ctx, name, kind, &changed);
      return finish(ctx, changed);
    default:
      block = pol_block_find(ctx, name, kind, nullptr);
      break;
  }
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    pol::log_leaf(i, leaves[i]);
    if (leaves[i].tag() == pol::kTagDefaultAction)
      set_default_action(ctx, block, leaves[i], &changed);
  }
  return finish(ctx, changed);
}

// The parts of a TLOC that a change gives. Encapsulations other than GRE and IPsec count as IPsec.
struct TlocParts {
  bool removed = false;
  bool address_given = false;
  bool color_given = false;
  bool encap_given = false;
  t_ipaddr address = {};
  uint8_t color = 0;
  uint8_t encap = 0;

  bool given() const { return address_given || color_given || encap_given; }

  void give_address(const t_ipaddr& value) { address_given = true, address = value; }
  void give_color(uint32_t value) { color_given = true, color = static_cast<uint8_t>(value); }
  void give_encap(const pol::Leaf& leaf) {
    encap_given = true;
    encap = leaf.removed() ? KEL_ENCAP_IPSEC : static_cast<uint8_t>(leaf.enumeration());
  }

  t_tloc_id over(t_tloc_id tloc) const {
    if (address_given) tloc = pol::tloc_of(address, tloc.color, tloc.encap);
    if (color_given) tloc.color = color;
    if (encap_given) tloc.encap = encap;
    if (tloc.encap != KEL_ENCAP_GRE && tloc.encap != KEL_ENCAP_IPSEC) tloc.encap = KEL_ENCAP_IPSEC;
    return tloc;
  }
};

// What the leaves of a sequence's action say, gathered.
class ActionLeaves {
 public:
  ActionLeaves(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed)
      : ctx_(ctx), entry_(entry), changed_(changed) {}

  void take(const pol::Leaf& leaf) {
    switch (leaf.tag()) {
      case pol::kTagService:
        if (leaf.type() == C_XMLBEGIN) in_service_ = true;
        if (leaf.type() == C_XMLEND) in_service_ = false;
        return;
      case pol::kTagTloc:
        // The TLOC inside a service is the service's.
        if (leaf.type() == C_XMLBEGIN && !in_service_) in_tloc_ = true;
        if (leaf.type() == C_XMLEND) in_tloc_ = false;
        return;
      case kTagAction:
        return set_action(ctx_, entry_, leaf, changed_);
      case kTagTag:
        return leaf.removed() ? pol_entry_set_tag_delete(ctx_, entry_, changed_)
                              : void(pol_entry_set_tag_add(ctx_, entry_, leaf.u32(), changed_));
      case kTagPreference:
        return leaf.removed()
                   ? pol_entry_set_preference_delete(ctx_, entry_, changed_)
                   : void(pol_entry_set_preference_add(ctx_, entry_, leaf.u32(), changed_));
      case kTagVpnList:
        return leaf.removed()
                   ? pol_entry_set_vpn_list_delete(ctx_, entry_, changed_)
                   : void(pol_entry_set_vpn_list_add(ctx_, entry_, leaf.text(), changed_));
      case pol::kTagTlocList:
        if (leaf.removed()) {
          tloc_list_removed_ = true;
        } else {
          tloc_list_ = leaf.text();
        }
        return;
      case kTagTlocAction:
        return take_tloc_action(leaf);
      case pol::kTagVpn:
        return take_vpn(leaf);
      case pol::kTagAddress:
      case pol::kTagColor:
      case pol::kTagEncap:
        if (in_service_) return take_service_tloc(leaf);
        if (in_tloc_) take_set_tloc(leaf);
        return;
      case pol::kTagServiceType:
        service_removed_ |= leaf.removed();
        if (leaf.removed()) return;
        type_given_ = true;
        type_ = static_cast<uint16_t>(leaf.enumeration());
        return;
      default:
        return;
    }
  }

  void apply() {
    if (entry_ == nullptr) return;
    if (tloc_list_removed_) pol_entry_set_tloc_list_delete(ctx_, entry_, changed_);
    if (tloc_list_ != nullptr) pol_entry_set_tloc_list_add(ctx_, entry_, tloc_list_, changed_);
    if (set_tloc_.removed) {
      pol_entry_set_tloc_delete(ctx_, entry_, changed_);
    } else if (set_tloc_.given()) {
      const t_tloc_id tloc = set_tloc_.over(entry_->set.tloc);
      pol_entry_set_tloc_add(ctx_, entry_, &tloc, changed_);
    }
    if (service_removed_) return pol_entry_set_service_delete(ctx_, entry_, changed_);
    if (!type_given_ && !vpn_given_ && !service_tloc_.given()) return;
    const t_pol_set& set = entry_->set;
    const t_tloc_id tloc = service_tloc_.over(set.service_tloc);
    const uint16_t type = type_given_ ? type_ : set.service;
    const uint64_t vpn = vpn_given_ ? vpn_ : set.service_vpn;
    pol_entry_set_service_add(ctx_, entry_, type, &tloc, vpn, changed_);
  }

 private:
  // On purpose: 3 and 4 trade places between the schema and what is kept, and every report of the
  // leaf counts as a change.
  void take_tloc_action(const pol::Leaf& leaf) {
    static constexpr uint8_t kModes[] = {0, 1, 2, 4, 3};
    const uint32_t code = leaf.removed() ? 0 : leaf.enumeration();
    if (entry_ == nullptr) return;
    entry_->set.ultimate_tloc = code < sizeof kModes ? kModes[code] : 0;
    pol_block_users_add_to_chg_list(ctx_, entry_->block);
    *changed_ = 1;
  }

  void take_vpn(const pol::Leaf& leaf) {
    if (in_service_) {
      vpn_given_ = true;
      vpn_ = leaf.removed() ? 0 : leaf.u32();
    } else if (leaf.removed()) {
      pol_entry_set_vpn_id_delete(ctx_, entry_, changed_);
    } else {
      pol_entry_set_vpn_id_add(ctx_, entry_, leaf.u32(), changed_);
    }
  }

  void take_set_tloc(const pol::Leaf& leaf) {
    if (leaf.tag() == pol::kTagEncap) return set_tloc_.give_encap(leaf);
    if (leaf.removed()) {
      set_tloc_.removed = true;
    } else if (leaf.tag() == pol::kTagAddress) {
      set_tloc_.give_address(leaf.address());
    } else {
      set_tloc_.give_color(leaf.enumeration());
    }
  }

  void take_service_tloc(const pol::Leaf& leaf) {
    if (leaf.tag() == pol::kTagEncap) return service_tloc_.give_encap(leaf);
    if (leaf.tag() == pol::kTagColor) {
      service_tloc_.give_color(leaf.removed() ? 0 : leaf.enumeration());
    } else {
      service_tloc_.give_address(leaf.removed() ? t_ipaddr{KEL_AF_INET, {0}} : leaf.address());
    }
  }

  t_pol_ctx* ctx_;
  t_pol_entry* entry_;
  uint8_t* changed_;
  bool in_service_ = false;
  bool in_tloc_ = false;
  const char* tloc_list_ = nullptr;
  bool tloc_list_removed_ = false;
  TlocParts set_tloc_;
  TlocParts service_tloc_;
  bool service_removed_ = false;
  bool type_given_ = false;
  bool vpn_given_ = false;
  uint16_t type_ = 0;
  uint64_t vpn_ = 0;
};

// What the leaves of a match say, gathered.
class MatchLeaves {
 public:
  MatchLeaves(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed)
      : ctx_(ctx), entry_(entry), changed_(changed) {}

  void take(const pol::Leaf& leaf) {
    switch (leaf.tag()) {
      case pol::kTagTloc:
        if (leaf.type() == C_XMLBEGIN) in_tloc_ = true;
        if (leaf.type() == C_XMLEND) in_tloc_ = false;
        return;
      case kTagTag:
        return number<pol_entry_match_tag_add, pol_entry_match_tag_delete>(leaf);
      case kTagPreference:
        return number<pol_entry_match_preference_add, pol_entry_match_preference_delete>(leaf);
      case kTagDomain:
        return number<pol_entry_match_domain_add, pol_entry_match_domain_delete>(leaf);
      case pol::kTagVpn:
        return number<pol_entry_match_vpn_id_add, pol_entry_match_vpn_id_delete>(leaf);
      case kTagSite:
        return number<pol_entry_match_site_add, pol_entry_match_site_delete>(leaf);
      case kTagGroup:
        return number<pol_entry_match_group_add, pol_entry_match_group_delete>(leaf);
      case kTagColorList:
        return list<pol_entry_match_color_list_add, pol_entry_match_color_list_delete>(leaf);
      case kTagPfxList:
        return list<pol_entry_match_pfx_list_add, pol_entry_match_pfx_list_delete>(leaf);
      case kTagVpnList:
        return list<pol_entry_match_vpn_list_add, pol_entry_match_vpn_list_delete>(leaf);
      case kTagSiteList:
        return list<pol_entry_match_site_list_add, pol_entry_match_site_list_delete>(leaf);
      case pol::kTagTlocList:
        return list<pol_entry_match_tloc_list_add, pol_entry_match_tloc_list_delete>(leaf);
      case kTagOrigin:
        if (leaf.removed()) return pol_entry_match_origin_delete(ctx_, entry_, changed_);
        pol_entry_match_origin_add(ctx_, entry_, leaf.enumeration(), changed_);
        return;
      case kTagCarrier:
        if (leaf.removed()) return pol_entry_match_carrier_delete(ctx_, entry_, changed_);
        pol_entry_match_carrier_add(ctx_, entry_, static_cast<uint8_t>(leaf.enumeration()),
                                    changed_);
        return;
      case kTagOriginator:
        return take_originator(leaf);
      case pol::kTagColor:
        return take_color(leaf);
      case pol::kTagAddress:
        tloc_.removed |= leaf.removed();
        if (!leaf.removed()) tloc_.give_address(leaf.address());
        return;
      case pol::kTagEncap:
        return tloc_.give_encap(leaf);
      default:
        return;
    }
  }

  void apply() {
    if (tloc_.removed) return pol_entry_match_tloc_delete(ctx_, entry_, changed_);
    if (!tloc_.given()) return;
    const t_tloc_id tloc = tloc_.over(entry_->match.tloc);
    pol_entry_match_tloc_add(ctx_, entry_, &tloc, changed_);
  }

 private:
  template <auto kAdd, auto kDelete>
  void number(const pol::Leaf& leaf) {
    if (leaf.removed()) return kDelete(ctx_, entry_, changed_);
    kAdd(ctx_, entry_, leaf.u32(), changed_);
  }

  template <auto kAdd, auto kDelete>
  void list(const pol::Leaf& leaf) {
    if (leaf.removed()) return kDelete(ctx_, entry_, changed_);
    kAdd(ctx_, entry_, leaf.text(), changed_);
  }

  void take_originator(const pol::Leaf& leaf) {
    if (leaf.removed()) return pol_entry_match_originator_delete(ctx_, entry_, changed_);
    const t_ipaddr address = leaf.address();
    pol_entry_match_originator_add(ctx_, entry_, &address, changed_);
  }

  void take_color(const pol::Leaf& leaf) {
    if (in_tloc_) {
      tloc_.removed |= leaf.removed();
      if (!leaf.removed()) tloc_.give_color(leaf.enumeration());
    } else if (leaf.removed()) {
      pol_entry_match_color_delete(ctx_, entry_, changed_);
    } else {
      pol_entry_match_color_add(ctx_, entry_, static_cast<uint16_t>(leaf.enumeration()), changed_);
    }
  }

  t_pol_ctx* ctx_;
  t_pol_entry* entry_;
  uint8_t* changed_;
  bool in_tloc_ = false;
  TlocParts tloc_;
};

// The schema's route and TLOC, and everything else as service.
uint32_t match_kind_of(uint32_t match_type) {
  return match_type == 0   ? uint32_t{POL_MATCH_ROUTE}
         : match_type == 1 ? uint32_t{POL_MATCH_TLOC}
                           : uint32_t{POL_MATCH_SERVICE};
}

}  // namespace

uint32_t pol_config_control_policy_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                        const pol_cfg_value* keys, uint32_t num,
                                        const pol_cfg_tag_value* values) {
  pol::check_level(level, kLevelPolicy);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Control Policy: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op), num & 0xffff);
  return read_policy(ctx, op, name, POL_KIND_ROUTE, "control", {values, num});
}

uint32_t pol_config_membership_policy_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                           uint8_t level, const pol_cfg_value* keys, uint32_t num,
                                           const pol_cfg_tag_value* values) {
  pol::check_level(level, kLevelPolicy);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Membership Policy: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op),
          num & 0xffff);
  return read_policy(ctx, op, name, POL_KIND_MEMBERSHIP, "membership", {values, num});
}

uint32_t pol_config_membership_policy_seq_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                               uint8_t level, const pol_cfg_value* keys,
                                               uint32_t num, const pol_cfg_tag_value* values) {
  pol::check_level(level, kLevelSequence);
  const char* name = pol::Keys(keys).text(0);
  const uint16_t sequence = pol::Keys(keys).sequence(1);
  const pol::Leaves leaves(values, num);
  t_pol_block* block = pol_block_find(ctx, name, POL_KIND_MEMBERSHIP, nullptr);
  POL_LOG("Membership Policy: %s, seq: %d oper:%d, num_values:%u\n", name, sequence,
          static_cast<int>(op), leaves.count());
  uint8_t changed = 0;
  if (op == POL_CFG_DELETED) {
    pol_entry_find_and_delete(ctx, block, sequence, &changed);
    return finish(ctx, changed);
  }
  t_pol_entry* entry = nullptr;
  if (op == POL_CFG_CREATED) {
    entry = pol_entry_find_or_create(ctx, block, sequence, &changed);
    if (entry == nullptr) {
      POL_LOG("Failed to create membership policy entry - pol: %s, seq: %d\n", name, sequence);
      return kFailed;
    }
    pol_entry_match_add(ctx, block, entry, POL_MATCH_SERVICE, &changed);
  } else {
    entry = pol_entry_find(ctx, block, sequence, nullptr);
  }
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    const pol::Leaf leaf = leaves[i];
    pol::log_leaf(i, leaf);
    switch (leaf.tag()) {
      case kTagVpnList:
        if (leaf.removed()) {
          pol_entry_match_vpn_list_delete(ctx, entry, &changed);
        } else {
          pol_entry_match_vpn_list_add(ctx, entry, leaf.text(), &changed);
        }
        break;
      case pol::kTagVpn:
        if (leaf.removed()) {
          pol_entry_match_vpn_id_delete(ctx, entry, &changed);
        } else {
          pol_entry_match_vpn_id_add(ctx, entry, leaf.u32(), &changed);
        }
        break;
      case kTagAction:
        set_action(ctx, entry, leaf, &changed);
        break;
      default:
        break;
    }
  }
  return finish(ctx, changed);
}

uint32_t pol_config_control_policy_seq_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                            uint8_t level, const pol_cfg_value* keys, uint32_t num,
                                            const pol_cfg_tag_value* values) {
  pol::check_level(level, kLevelSequence);
  const char* name = pol::Keys(keys).text(0);
  const uint16_t sequence = pol::Keys(keys).sequence(1);
  const pol::Leaves leaves(values, num);
  t_pol_block* block = pol_block_find(ctx, name, POL_KIND_ROUTE, nullptr);
  POL_LOG("Control Policy: %s, seq: %d oper:%d, num_values:%u\n", name, sequence,
          static_cast<int>(op), leaves.count());
  uint8_t changed = 0;
  if (op == POL_CFG_DELETED) {
    pol_entry_find_and_delete(ctx, block, sequence, &changed);
    return finish(ctx, changed);
  }
  t_pol_entry* entry = nullptr;
  if (op == POL_CFG_CREATED) {
    entry = pol_entry_find_or_create(ctx, block, sequence, &changed);
    if (entry == nullptr) {
      POL_LOG("Failed to create control policy entry - pol: %s, seq: %d\n", name, sequence);
      return kFailed;
    }
  } else {
    entry = pol_entry_find(ctx, block, sequence, nullptr);
  }
  ActionLeaves action(ctx, entry, &changed);
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    pol::log_leaf(i, leaves[i]);
    action.take(leaves[i]);
  }
  action.apply();
  return finish(ctx, changed);
}

uint32_t pol_config_control_policy_match_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                              uint8_t level, const pol_cfg_value* keys,
                                              uint32_t num, const pol_cfg_tag_value* values) {
  pol::check_level(level, kLevelMatch);
  const pol::Keys key(keys);
  const char* name = key.text(0);
  const uint16_t sequence = key.sequence(1);
  const uint32_t match_type = key.enumeration(2);
  const pol::Leaves leaves(values, num);
  POL_LOG("Control Policy: %s, seq: %d oper:%d, num_values:%u, match_type:%u\n", name, sequence,
          static_cast<int>(op), leaves.count(), match_type);
  t_pol_block* block = pol_block_find(ctx, name, POL_KIND_ROUTE, nullptr);
  t_pol_entry* entry = pol_entry_find(ctx, block, sequence, nullptr);
  if (block == nullptr || entry == nullptr) pol::crash();
  uint8_t changed = 0;
  if (op == POL_CFG_CREATED) {
    pol_entry_match_add(ctx, block, entry, match_kind_of(match_type), &changed);
  } else if (op == POL_CFG_DELETED) {
    // A match of another type may have taken this one's place before its deletion is told.
    if (match_type <= 1 && entry->match.type != match_kind_of(match_type)) return 0;
    pol_entry_match_delete(ctx, entry, &changed);
    return finish(ctx, changed);
  }
  MatchLeaves match(ctx, entry, &changed);
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    pol::log_leaf(i, leaves[i]);
    match.take(leaves[i]);
  }
  match.apply();
  return finish(ctx, changed);
}
