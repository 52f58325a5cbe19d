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
                     const pol::Leaves& leaves, pol::Caller reader = pol::Caller::here()) {
  uint8_t changed = 0;
  t_pol_block* block = nullptr;
  switch (op) {
    case POL_CFG_CREATED:
      block = pol_block_find_or_create(ctx, name, kind, &changed);
      if (block == nullptr) {
        POL_LOG_FROM(reader, "Failed to create %s policy - pol: %s\n", what, name);
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
    pol::log_leaf(i, leaves[i], reader);
    if (leaves[i].tag() == POL_TAG_DEFAULT_ACTION)
      set_default_action(ctx, block, leaves[i], &changed);
  }
  return finish(ctx, changed);
}

// What the readers of both kinds do with a report of a sequence before they read its leaves.
struct SequenceReport {
  t_pol_entry* entry = nullptr;  // null when it is not there
  uint8_t changed = 0;
  bool done = false;  // the reader ends with `status`
  uint32_t status = 0;
};

struct SequenceKind {
  uint32_t kind;
  const char* title;
  const char* word;
};
constexpr SequenceKind kControl = {POL_KIND_ROUTE, "Control", "control"};
constexpr SequenceKind kMembership = {POL_KIND_MEMBERSHIP, "Membership", "membership"};

SequenceReport begin_sequence(t_pol_ctx* ctx, uint32_t op, const pol_cfg_value* keys,
                              const pol::Leaves& leaves, const SequenceKind& kind,
                              pol::Caller reader = pol::Caller::here()) {
  const char* name = pol::Keys(keys).text(0);
  const uint16_t sequence = pol::Keys(keys).sequence(1);
  t_pol_block* block = pol_block_find(ctx, name, kind.kind, nullptr);
  POL_LOG_FROM(reader, "%s Policy: %s, seq: %d oper:%d, num_values:%u\n", kind.title, name,
               sequence, static_cast<int>(op), leaves.count());
  SequenceReport report;
  if (op == POL_CFG_DELETED) {
    pol_entry_find_and_delete(ctx, block, sequence, &report.changed);
    report.done = true;
    report.status = finish(ctx, report.changed);
    return report;
  }
  if (op != POL_CFG_CREATED) {
    report.entry = pol_entry_find(ctx, block, sequence, nullptr);
    return report;
  }
  report.entry = pol_entry_find_or_create(ctx, block, sequence, &report.changed);
  if (report.entry != nullptr) return report;
  POL_LOG_FROM(reader, "Failed to create %s policy entry - pol: %s, seq: %d\n", kind.word, name,
               sequence);
  report.done = true;
  report.status = kFailed;
  return report;
}

// A clause that goes with its leaf, and one that names a list.
template <auto kAdd, auto kDelete>
void take_number(t_pol_ctx* ctx, t_pol_entry* entry, const pol::Leaf& leaf, uint8_t* changed) {
  if (leaf.removed()) return kDelete(ctx, entry, changed);
  kAdd(ctx, entry, leaf.u32(), changed);
}

template <auto kAdd, auto kDelete>
void take_list(t_pol_ctx* ctx, t_pol_entry* entry, const pol::Leaf& leaf, uint8_t* changed) {
  if (leaf.removed()) return kDelete(ctx, entry, changed);
  kAdd(ctx, entry, leaf.text(), changed);
}

// The parts of a TLOC that a change gives. Encapsulations other than GRE and IPsec count as IPsec.
struct RouteTlocParts {
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
class RouteActionLeaves {
 public:
  RouteActionLeaves(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed)
      : ctx_(ctx), entry_(entry), changed_(changed) {}

  void take(const pol::Leaf& leaf) {
    switch (leaf.tag()) {
      case POL_TAG_SERVICE:
        if (leaf.type() == C_XMLBEGIN) in_service_ = true;
        if (leaf.type() == C_XMLEND) in_service_ = false;
        return;
      case POL_TAG_TLOC:
        // The TLOC inside a service is the service's.
        if (leaf.type() == C_XMLBEGIN && !in_service_) in_tloc_ = true;
        if (leaf.type() == C_XMLEND) in_tloc_ = false;
        return;
      case POL_TAG_ACTION_VALUE:
        return set_action(ctx_, entry_, leaf, changed_);
      case POL_TAG_TAG:
        return take_number<pol_entry_set_tag_add, pol_entry_set_tag_delete>(ctx_, entry_, leaf,
                                                                            changed_);
      case POL_TAG_PREFERENCE:
        return take_number<pol_entry_set_preference_add, pol_entry_set_preference_delete>(
            ctx_, entry_, leaf, changed_);
      case POL_TAG_VPN_LIST:
        return take_list<pol_entry_set_vpn_list_add, pol_entry_set_vpn_list_delete>(ctx_, entry_,
                                                                                    leaf, changed_);
      case POL_TAG_TLOC_LIST:
        if (leaf.removed()) {
          tloc_list_removed_ = true;
        } else {
          tloc_list_ = leaf.text();
        }
        return;
      case POL_TAG_TLOC_ACTION:
        return take_tloc_action(leaf);
      case POL_TAG_VPN:
        return take_vpn(leaf);
      case POL_TAG_ADDRESS:
      case POL_TAG_COLOR:
      case POL_TAG_ENCAP:
        if (in_service_) return take_service_tloc(leaf);
        if (in_tloc_) take_set_tloc(leaf);
        return;
      case POL_TAG_TYPE:
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
    } else {
      take_number<pol_entry_set_vpn_id_add, pol_entry_set_vpn_id_delete>(ctx_, entry_, leaf,
                                                                         changed_);
    }
  }

  void take_set_tloc(const pol::Leaf& leaf) {
    if (leaf.tag() == POL_TAG_ENCAP) return set_tloc_.give_encap(leaf);
    if (leaf.removed()) {
      set_tloc_.removed = true;
    } else if (leaf.tag() == POL_TAG_ADDRESS) {
      set_tloc_.give_address(leaf.address());
    } else {
      set_tloc_.give_color(leaf.enumeration());
    }
  }

  void take_service_tloc(const pol::Leaf& leaf) {
    if (leaf.tag() == POL_TAG_ENCAP) return service_tloc_.give_encap(leaf);
    if (leaf.tag() == POL_TAG_COLOR) {
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
  RouteTlocParts set_tloc_;
  RouteTlocParts service_tloc_;
  bool service_removed_ = false;
  bool type_given_ = false;
  bool vpn_given_ = false;
  uint16_t type_ = 0;
  uint64_t vpn_ = 0;
};

// What the leaves of a match say, gathered.
class RouteMatchLeaves {
 public:
  RouteMatchLeaves(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed)
      : ctx_(ctx), entry_(entry), changed_(changed) {}

  void take(const pol::Leaf& leaf) {
    switch (leaf.tag()) {
      case POL_TAG_TLOC:
        if (leaf.type() == C_XMLBEGIN) in_tloc_ = true;
        if (leaf.type() == C_XMLEND) in_tloc_ = false;
        return;
      case POL_TAG_TAG:
        return number<pol_entry_match_tag_add, pol_entry_match_tag_delete>(leaf);
      case POL_TAG_PREFERENCE:
        return number<pol_entry_match_preference_add, pol_entry_match_preference_delete>(leaf);
      case POL_TAG_DOMAIN_ID:
        return number<pol_entry_match_domain_add, pol_entry_match_domain_delete>(leaf);
      case POL_TAG_VPN:
        return number<pol_entry_match_vpn_id_add, pol_entry_match_vpn_id_delete>(leaf);
      case POL_TAG_SITE_ID:
        return number<pol_entry_match_site_add, pol_entry_match_site_delete>(leaf);
      case POL_TAG_GROUP_ID:
        return number<pol_entry_match_group_add, pol_entry_match_group_delete>(leaf);
      case POL_TAG_COLOR_LIST:
        return list<pol_entry_match_color_list_add, pol_entry_match_color_list_delete>(leaf);
      case POL_TAG_PREFIX_LIST:
        return list<pol_entry_match_pfx_list_add, pol_entry_match_pfx_list_delete>(leaf);
      case POL_TAG_VPN_LIST:
        return list<pol_entry_match_vpn_list_add, pol_entry_match_vpn_list_delete>(leaf);
      case POL_TAG_SITE_LIST:
        return list<pol_entry_match_site_list_add, pol_entry_match_site_list_delete>(leaf);
      case POL_TAG_TLOC_LIST:
        return list<pol_entry_match_tloc_list_add, pol_entry_match_tloc_list_delete>(leaf);
      case POL_TAG_ORIGIN:
        if (leaf.removed()) return pol_entry_match_origin_delete(ctx_, entry_, changed_);
        pol_entry_match_origin_add(ctx_, entry_, leaf.enumeration(), changed_);
        return;
      case POL_TAG_CARRIER:
        if (leaf.removed()) return pol_entry_match_carrier_delete(ctx_, entry_, changed_);
        pol_entry_match_carrier_add(ctx_, entry_, static_cast<uint8_t>(leaf.enumeration()),
                                    changed_);
        return;
      case POL_TAG_ORIGINATOR:
        return take_originator(leaf);
      case POL_TAG_COLOR:
        return take_color(leaf);
      case POL_TAG_ADDRESS:
        tloc_.removed |= leaf.removed();
        if (!leaf.removed()) tloc_.give_address(leaf.address());
        return;
      case POL_TAG_ENCAP:
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
    take_number<kAdd, kDelete>(ctx_, entry_, leaf, changed_);
  }

  template <auto kAdd, auto kDelete>
  void list(const pol::Leaf& leaf) {
    take_list<kAdd, kDelete>(ctx_, entry_, leaf, changed_);
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
  RouteTlocParts tloc_;
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
  const pol::Leaves leaves(values, num);
  SequenceReport report = begin_sequence(ctx, op, keys, leaves, kMembership);
  if (report.done) return report.status;
  t_pol_entry* entry = report.entry;
  uint8_t* changed = &report.changed;
  if (op == POL_CFG_CREATED) {
    pol_entry_match_add(ctx, entry->block, entry, POL_MATCH_SERVICE, changed);
  }
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    const pol::Leaf leaf = leaves[i];
    pol::log_leaf(i, leaf);
    switch (leaf.tag()) {
      case POL_TAG_VPN_LIST:
        take_list<pol_entry_match_vpn_list_add, pol_entry_match_vpn_list_delete>(ctx, entry, leaf,
                                                                                 changed);
        break;
      case POL_TAG_VPN:
        take_number<pol_entry_match_vpn_id_add, pol_entry_match_vpn_id_delete>(ctx, entry, leaf,
                                                                               changed);
        break;
      case POL_TAG_ACTION_VALUE:
        set_action(ctx, entry, leaf, changed);
        break;
      default:
        break;
    }
  }
  return finish(ctx, report.changed);
}

uint32_t pol_config_control_policy_seq_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                            uint8_t level, const pol_cfg_value* keys, uint32_t num,
                                            const pol_cfg_tag_value* values) {
  pol::check_level(level, kLevelSequence);
  const pol::Leaves leaves(values, num);
  SequenceReport report = begin_sequence(ctx, op, keys, leaves, kControl);
  if (report.done) return report.status;
  RouteActionLeaves action(ctx, report.entry, &report.changed);
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    pol::log_leaf(i, leaves[i]);
    action.take(leaves[i]);
  }
  action.apply();
  return finish(ctx, report.changed);
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
  if (entry == nullptr) pol::crash("a match of a sequence that is not there");
  uint8_t changed = 0;
  if (op == POL_CFG_CREATED) {
    pol_entry_match_add(ctx, block, entry, match_kind_of(match_type), &changed);
  } else if (op == POL_CFG_DELETED) {
    // A match of another type may have taken this one's place before its deletion is told.
    if (match_type <= 1 && entry->match.type != match_kind_of(match_type)) return 0;
    pol_entry_match_delete(ctx, entry, &changed);
    return finish(ctx, changed);
  }
  RouteMatchLeaves match(ctx, entry, &changed);
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    pol::log_leaf(i, leaves[i]);
    match.take(leaves[i]);
  }
  match.apply();
  return finish(ctx, changed);
}
