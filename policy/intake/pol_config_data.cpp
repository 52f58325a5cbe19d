// SPDX-License-Identifier: Apache-2.0
// Readers of data and app-route policies.
//
// Matches and the policer are handed on as their leaves come. What acts together (SLA class, VPN,
// TLOC, TLOC list, service) is gathered over the walk and then applied in a fixed order, because
// each decides what becomes of the next. A sequence has one VPN, one TLOC and one TLOC list: those
// of its service stand in the same places and, coming later in a report, go before the action's
// own.
#include "base/pol_log.h"
#include "core/pol_context_internal.h"
#include "forward/pol_fwd_block_internal.h"
#include "forward/pol_fwd_ref.h"
#include "intake/pol_config_internal.h"
#include "policy/pol_fwd_action.h"
#include "policy/pol_fwd_label.h"
#include "policy/pol_fwd_match.h"
#include "policy/pol_util.h"

namespace {

constexpr uint8_t kDataLevelPolicy = 1;
constexpr uint8_t kDataLevelVpnList = 2;
constexpr uint8_t kDataLevelSequence = 3;

// Where a report belongs.
struct Place {
  t_pol_ctx* ctx;
  const char* policy;
  uint32_t kind;
  const char* vpn_list;
  uint16_t sequence;
  pol::Caller reader = pol::Caller::here();
};

void check(uint32_t kind, uint8_t level, uint8_t own, pol::Caller from = pol::Caller::here()) {
  pol::check_level(level, own, from);
  if (!pol::is_forwarding(kind)) pol::crash("a kind without VPN lists", from);
}

t_pol_block* mark_for_fetch(const Place& at) {
  t_pol_block* block = pol_block_find(at.ctx, at.policy, at.kind, nullptr);
  if (block != nullptr) block->fetch_xml = 1;
  return block;
}

// Ends the process: a VPN list or sequence that is reported as new cannot be done without.
[[noreturn]] void fail_entry(const Place& at) {
  POL_LOG_FROM(at.reader, "Failed to create %s policy entry - pol: %s, vpn: %s seq: %d\n",
               pol_util_type_str(at.kind), at.policy, at.vpn_list, at.sequence);
  pol::crash("a reported sequence that cannot be made", at.reader);
}

// What the leaves of an SLA class say, gathered.
class SlaLeaves {
 public:
  // False for a leaf of something else.
  bool take(const pol::Leaf& leaf) {
    switch (leaf.tag()) {
      case POL_TAG_SLA_CLASS:
        removed_ |= leaf.removed();
        if (leaf.removed()) return true;
        name_ = leaf.text();
        seen_ = true;
        return true;
      case POL_TAG_STRICT:
        strict_ = !leaf.removed() && leaf.boolean();
        seen_ = true;
        return true;
      case POL_TAG_PREFERRED_COLOR:
        take_colors(leaf);
        seen_ = true;
        return true;
      default:
        return false;
    }
  }

  // On purpose for data policies as well, of which none may have them: the call ends the process.
  void apply(const Place& at) const {
    if (!seen_ && !removed_) return;
    pol_fwd_entry_sla_class_upd(at.ctx, at.policy, at.kind, at.vpn_list, at.sequence, name_,
                                static_cast<uint8_t>(strict_), colors_,
                                static_cast<uint8_t>(removed_));
  }

 private:
  // On purpose eight bits: colors above 7 pass and leave no mark.
  void take_colors(const pol::Leaf& leaf) {
    colors_ = 0;
    if (leaf.removed()) return;
    const uint32_t count = leaf.count();
    for (uint32_t i = 0; i < count; ++i) {
      colors_ |= static_cast<uint8_t>(pol_yang_enum_to_filter_mask(leaf.enumeration(i)));
    }
  }

  const char* name_ = nullptr;
  bool removed_ = false;
  bool seen_ = false;
  bool strict_ = false;
  uint8_t colors_ = 0;
};

// The parts of a TLOC that a report gives or takes away. It goes with its address. What is both
// given and taken away has changed its place.
struct FwdTlocParts {
  bool address_given = false;
  bool color_given = false;
  bool encap_given = false;
  bool address_removed = false;
  bool color_removed = false;
  bool encap_removed = false;
  t_ipaddr address = {};
  uint8_t color = 0;
  uint8_t encap = 0;

  bool removed() const { return address_removed && !address_given; }
  bool given() const {
    return !removed() && (address_given || color_given || encap_given || color_removed);
  }

  void take(const pol::Leaf& leaf) {
    if (leaf.removed()) return take_away(leaf.tag());
    switch (leaf.tag()) {
      case POL_TAG_ADDRESS:
        address_given = true;
        address = leaf.address();
        return;
      case POL_TAG_COLOR:
        color_given = true;
        color = static_cast<uint8_t>(leaf.enumeration());
        return;
      default:
        encap_given = true;
        encap_removed = false;
        encap = static_cast<uint8_t>(leaf.enumeration());
        return;
    }
  }

  t_tloc_id over(t_tloc_id tloc) const {
    if (address_given) tloc = pol::tloc_of(address, tloc.color, tloc.encap);
    if (color_given || color_removed) tloc.color = color;
    if (encap_given) tloc.encap = encap;
    return tloc;
  }

 private:
  void take_away(uint32_t tag) {
    address_removed |= tag == POL_TAG_ADDRESS;
    color_removed |= tag == POL_TAG_COLOR;
    if (tag != POL_TAG_ENCAP || encap_given) return;
    encap_given = true;
    encap_removed = true;
    encap = KEL_ENCAP_IPSEC;
  }
};

// What the leaves of an action say of its VPN, TLOC, TLOC list and service, gathered.
class FwdActionLeaves {
 public:
  explicit FwdActionLeaves(const Place& at) : at_(at) {}

  // False for a leaf of something else.
  bool take(const pol::Leaf& leaf) {
    switch (leaf.tag()) {
      case POL_TAG_SERVICE:
        if (leaf.type() == C_XMLBEGIN) in_service_ = true;
        if (leaf.type() == C_XMLEND) in_service_ = false;
        return true;
      case POL_TAG_TLOC:
        if (leaf.type() == C_XMLBEGIN) in_tloc_ = true;
        if (leaf.type() == C_XMLEND) in_tloc_ = false;
        return true;
      case POL_TAG_VPN:
        service_given_ |= in_service_;
        vpn_seen_ = true;
        if (!leaf.removed()) vpn_ = leaf.u32();
        return true;
      case POL_TAG_TLOC_LIST:
        tloc_list_seen_ = true;
        if (!leaf.removed()) tloc_list_ = leaf.text();
        return true;
      case POL_TAG_ADDRESS:
      case POL_TAG_COLOR:
      case POL_TAG_ENCAP:
        if (in_service_ || in_tloc_) tloc_.take(leaf);
        return true;
      case POL_TAG_TYPE:
        service_removed_ = leaf.removed();
        service_given_ |= !leaf.removed();
        type_given_ = !leaf.removed();
        if (!leaf.removed()) service_ = static_cast<uint16_t>(leaf.enumeration());
        return true;
      case POL_TAG_LOCAL:
        service_given_ |= in_service_;
        (in_service_ ? service_local_seen_ : tloc_local_seen_) = true;
        (in_service_ ? service_local_ : tloc_local_) = !leaf.removed();
        return true;
      default:
        return false;
    }
  }

  void apply() const {
    if (vpn_seen_) {
      pol_fwd_entry_vpn_upd(at_.ctx, at_.policy, at_.kind, at_.vpn_list, at_.sequence, vpn_);
    }
    bool tlocs = apply_tloc();
    if (tloc_list_seen_) {
      pol_fwd_entry_tloc_list_upd(at_.ctx, at_.policy, at_.kind, at_.vpn_list, at_.sequence,
                                  tloc_list_);
      tlocs = true;
    }
    if (apply_service(tlocs) || vpn_seen_) {
      pol_fwd_upd_label(at_.ctx, at_.policy, at_.kind, at_.vpn_list, at_.sequence);
    } else if (tloc_local_seen_) {
      pol_fwd_entry_seq_mod(at_.ctx, at_.policy, at_.kind, at_.vpn_list, at_.sequence);
    }
  }

 private:
  t_pol_entry* entry() const {
    return pol::fwd_find(at_.ctx, at_.policy, at_.kind, at_.vpn_list, at_.sequence).entry;
  }

  // What the sequence has now; zero for one that is not there.
  t_pol_fwd_clauses current() const {
    const t_pol_entry* found = entry();
    return found != nullptr ? found->fwd : t_pol_fwd_clauses{};
  }

  // What a later report takes for granted.
  void remember_encap(t_pol_fwd_clauses* clauses) const {
    auto note = [clauses](bool seen, bool set, uint8_t by) {
      if (seen) clauses->encap_binds &= static_cast<uint8_t>(~by);
      if (seen && set) clauses->encap_binds |= by;
    };
    note(tloc_local_seen_, tloc_local_, POL_ENCAP_BY_TLOC);
    note(service_local_seen_ || service_removed_, service_local_, POL_ENCAP_BY_SERVICE);
    // With the TLOC goes the encapsulation; alone it becomes the usual one.
    const bool gone = tloc_.encap_removed && tloc_.removed();
    if (tloc_.encap_given) clauses->encap_told = gone ? uint8_t{0} : tloc_.encap;
  }

  // Also when only what makes its encapsulation binding was told.
  bool apply_tloc() const {
    t_pol_entry* found = entry();
    if (found == nullptr) return tloc_.given() || tloc_.removed();
    const bool was_binding = found->fwd.encap_binds != 0;
    remember_encap(&found->fwd);
    if (tloc_.removed()) {
      update_tloc(false, nullptr);
      return true;
    }
    const bool has_tloc = (found->set_flags & POL_FWD_SET_F_TLOC) != 0;
    const bool told = tloc_local_seen_ || service_local_seen_;
    if (!tloc_.given() && (!told || !has_tloc)) return false;
    t_tloc_id tloc = tloc_.over(found->fwd.tloc);
    tloc.encap = found->fwd.encap_told;
    const bool binding = found->fwd.encap_binds != 0;
    // A color, or an encapsulation that was binding, is taken away only with the TLOC, so that what
    // remains of it is set anew.
    if (tloc_.color_removed || (was_binding && !binding)) update_tloc(false, nullptr);
    update_tloc(binding, &tloc);
    return true;
  }

  void update_tloc(bool flag, const t_tloc_id* tloc) const {
    pol_fwd_entry_tloc_upd(at_.ctx, at_.policy, at_.kind, at_.vpn_list, at_.sequence,
                           static_cast<uint8_t>(flag), tloc);
  }

  // Whether the service was set, deleted or resolved again. A change of its VPN or flag alone is
  // one of the service that the sequence has; one of the TLOCs only has that resolved again.
  bool apply_service(bool tlocs_changed) const {
    if (!service_removed_ && !service_given_ && !tlocs_changed) return false;
    const t_pol_fwd_clauses now = current();
    uint16_t service = 0;
    if (service_given_ && !service_removed_) service = type_given_ ? service_ : now.service;
    const bool local = service_local_seen_ ? service_local_ : now.service_local != 0;
    pol_fwd_entry_svc_upd(at_.ctx, at_.policy, at_.kind, at_.vpn_list, at_.sequence, service,
                          static_cast<uint8_t>(local), static_cast<uint8_t>(service_removed_));
    return true;
  }

  const Place& at_;
  bool in_service_ = false;
  bool in_tloc_ = false;
  bool vpn_seen_ = false;
  uint32_t vpn_ = 0;
  FwdTlocParts tloc_;
  bool tloc_local_seen_ = false;
  bool tloc_local_ = false;
  bool tloc_list_seen_ = false;
  const char* tloc_list_ = nullptr;
  bool service_removed_ = false;
  bool service_given_ = false;
  bool type_given_ = false;
  bool service_local_seen_ = false;
  bool service_local_ = false;
  uint16_t service_ = 0;
};

// What a sequence names by one name alone; null for a leaf of something else.
auto by_name(uint32_t tag) -> decltype(&pol_fwd_entry_app_list_upd) {
  switch (tag) {
    case POL_TAG_APP_LIST:
      return pol_fwd_entry_app_list_upd;
    case POL_TAG_DNS_APP_LIST:
      return pol_fwd_entry_dns_app_list_upd;
    case POL_TAG_SOURCE_DATA_PREFIX_LIST:
      return pol_fwd_entry_src_pfx_upd;
    case POL_TAG_DESTINATION_DATA_PREFIX_LIST:
      return pol_fwd_entry_dst_pfx_upd;
    case POL_TAG_SOURCE_DATA_IPV6_PREFIX_LIST:
      return pol_fwd_entry_src_pfx6_upd;
    case POL_TAG_DESTINATION_DATA_IPV6_PREFIX_LIST:
      return pol_fwd_entry_dst_pfx6_upd;
    case POL_TAG_POLICER:
      return pol_fwd_entry_policer_upd;
    default:
      return nullptr;
  }
}

// A sequence has one SaaS application list: of several names the last stays.
void take_saas(const Place& at, const pol::Leaf& leaf) {
  const uint32_t count = leaf.removed() ? 0 : leaf.count();
  if (count == 0) {
    pol_fwd_entry_saas_app_list_upd(at.ctx, at.policy, at.kind, at.vpn_list, at.sequence, nullptr);
  }
  for (uint32_t i = 0; i < count; ++i) {
    pol_fwd_entry_saas_app_list_upd(at.ctx, at.policy, at.kind, at.vpn_list, at.sequence,
                                    leaf.text(i));
  }
}

void read_sequence(const Place& at, const pol::Leaves& leaves) {
  SlaLeaves sla;
  FwdActionLeaves action(at);
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    const pol::Leaf leaf = leaves[i];
    pol::log_leaf(i, leaf, at.reader);
    if (auto update = by_name(leaf.tag())) {
      update(at.ctx, at.policy, at.kind, at.vpn_list, at.sequence,
             leaf.removed() ? nullptr : leaf.text());
    } else if (leaf.tag() == POL_TAG_SAAS_APP_LIST) {
      take_saas(at, leaf);
    } else if (!sla.take(leaf) && !action.take(leaf)) {
      pol_fwd_entry_seq_mod(at.ctx, at.policy, at.kind, at.vpn_list, at.sequence);
    }
  }
  sla.apply(at);
  action.apply();
}

void read_vpn_list(const Place& at, t_pol_block* block, const pol::Leaves& leaves) {
  SlaLeaves sla;
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    pol::log_leaf(i, leaves[i], at.reader);
    if (leaves[i].tag() == POL_TAG_DEFAULT_ACTION && block != nullptr) {
      pol_block_users_add_to_chg_list(at.ctx, block);
    }
    // On purpose after every leaf from the first of the class on: each time all that came so far.
    sla.take(leaves[i]);
    sla.apply(at);
  }
}

}  // namespace

uint32_t pol_config_fwd_read(uint32_t type, void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                             uint8_t level, const pol_cfg_value* keys, uint16_t num,
                             const pol_cfg_tag_value* /*values*/) {
  check(type, level, kDataLevelPolicy);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Fwd Policy: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op), unsigned{num});
  uint8_t changed = 0;
  if (op == POL_CFG_CREATED) {
    t_pol_block* block = pol_block_find_or_create(ctx, name, type, &changed);
    if (block == nullptr) {
      POL_LOG("Failed to create %s policy - pol: %s\n", pol_util_type_str(type), name);
      pol::crash("a reported policy that cannot be made");
    }
    block->fetch_xml = 1;
    if (changed != 0) pol_user_chg_list_notify_all(ctx);
  } else if (op == POL_CFG_DELETED) {
    // On purpose nobody is notified: the users stay queued for the next batch.
    pol_block_find_and_delete(ctx, name, type, &changed);
  }
  return 0;
}

uint32_t pol_config_fwd_vpn_list_read(uint32_t type, void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                      uint8_t level, const pol_cfg_value* keys, uint16_t num,
                                      const pol_cfg_tag_value* values) {
  check(type, level, kDataLevelVpnList);
  const pol::Keys key(keys);
  const Place at = {ctx, key.text(0), type, key.text(1), 0};
  POL_LOG("%s Policy: %s, vpn-list: %s oper:%d, num_values:%u\n", pol_util_type_str(type),
          at.policy, at.vpn_list, static_cast<int>(op), unsigned{num});
  t_pol_block* block = mark_for_fetch(at);
  if (op == POL_CFG_CREATED) {
    if (pol_fwd_vpn_find_or_create(ctx, at.policy, type, at.vpn_list) == nullptr) {
      POL_LOG("Failed to create %s policy - pol: %s, vpn: %s\n", pol_util_type_str(type), at.policy,
              at.vpn_list);
      pol::crash("a reported VPN list that cannot be made");
    }
    // Sequence 0 has the VPN list's own settings.
    if (pol_fwd_entry_find_or_create(ctx, at.policy, type, at.vpn_list, 0) == nullptr) {
      fail_entry(at);
    }
  } else if (op == POL_CFG_DELETED) {
    pol_fwd_entry_find_and_delete(ctx, at.policy, type, at.vpn_list, 0);
    pol_fwd_vpn_find_and_delete(ctx, at.policy, type, at.vpn_list);
  }
  read_vpn_list(at, block, {values, num});
  pol_user_chg_list_notify_all(ctx);
  return 0;
}

uint32_t pol_config_fwd_seq_read(uint32_t type, void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                 uint8_t level, const pol_cfg_value* keys, uint16_t num,
                                 const pol_cfg_tag_value* values) {
  check(type, level, kDataLevelSequence);
  const pol::Keys key(keys);
  const Place at = {ctx, key.text(0), type, key.text(1), key.sequence(2)};
  POL_LOG("%s policy: %s, vpn: %s seq: %d oper:%d, num_values:%u\n", pol_util_type_str(type),
          at.policy, at.vpn_list, at.sequence, static_cast<int>(op), unsigned{num});
  mark_for_fetch(at);
  if (op == POL_CFG_CREATED) {
    if (pol_fwd_entry_find_or_create(ctx, at.policy, type, at.vpn_list, at.sequence) == nullptr) {
      fail_entry(at);
    }
  } else if (op == POL_CFG_DELETED) {
    pol_fwd_entry_find_and_delete(ctx, at.policy, type, at.vpn_list, at.sequence);
  }
  read_sequence(at, {values, num});
  pol_user_chg_list_notify_all(ctx);
  return 0;
}
