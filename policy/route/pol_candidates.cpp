// SPDX-License-Identifier: Apache-2.0
#include "route/pol_candidates.h"

#include <algorithm>
#include <bit>

#include "core/pol_context_internal.h"
#include "route/pol_exec_rules.h"

namespace pol {
namespace {

bool known(uint32_t family) { return family == KEL_AF_INET || family == KEL_AF_INET6; }

const t_tloc_id* tloc_of(const t_pol_route_query& query, const t_pol_route_attr& attr) {
  if (query.match_type == POL_MATCH_TLOC) return &query.tloc;
  return (attr.present & POL_ATTR_TLOC) != 0 ? &attr.tloc : nullptr;
}

}  // namespace

void candidates_fetch(const PolicyIndex& index, const t_pol_route_query* queries, unsigned count) {
  const t_ipprefix* prefixes[PfxIndex::kFetched];
  for (unsigned i = 0; i < count; ++i) prefixes[i] = &queries[i].prefix;
  for (const IndexLists& family : index.families) {
    if (family.clause != POL_MATCH_F_PFX_LIST) continue;
    if (family.generation != 0) {
      const ListDirectory& directory = index.directories->pfx;
      pfx_fetch(directory.narrow.root(), directory.wide.root(), prefixes, count);
      continue;
    }
    for (unsigned i = 0; i < family.count; ++i) {
      reinterpret_cast<const t_pfx_list*>(family.lists[i])->index.fetch(prefixes, count);
    }
  }
}

// Makes the keys of single values. False for a value that must not be compared.
bool Candidates::values() {
  tloc_ = tloc_of(query_, attr_);
  have_ = POL_MATCH_F_VPN_ID;
  auto give = [this](uint32_t clause, uint64_t value) {
    have_ |= clause;
    value_keys_[std::countr_zero(clause)] = index_key_of(clause, value);
  };
  const auto present = [this](uint32_t bit) { return (attr_.present & bit) != 0; };
  if (present(POL_ATTR_TAG)) give(POL_MATCH_F_TAG, attr_.tag);
  if (present(POL_ATTR_PREF)) give(POL_MATCH_F_PREF, attr_.preference);
  give(POL_MATCH_F_VPN_ID, query_.vpn);
  constexpr uint32_t kOthers =
      kIndexValues & ~(POL_MATCH_F_TAG | POL_MATCH_F_PREF | POL_MATCH_F_VPN_ID | POL_MATCH_F_TLOC);
  if ((index_.values & kOthers) != 0) {
    if (present(POL_ATTR_DOMAIN)) give(POL_MATCH_F_DOMAIN, attr_.domain);
    if (present(POL_ATTR_SITE)) give(POL_MATCH_F_SITE, attr_.site);
    if (present(POL_ATTR_CARRIER)) give(POL_MATCH_F_CARRIER, attr_.carrier);
    if (tloc_ != nullptr) give(POL_MATCH_F_COLOR, tloc_->color);
  }
  constexpr uint32_t kOfTlocs = POL_MATCH_F_TLOC | POL_MATCH_F_TLOC_LIST;
  if ((index_.clauses & kOfTlocs) != 0 && tloc_ != nullptr) {
    if (!known(tloc_->family)) return false;
    if ((index_.values & POL_MATCH_F_TLOC) != 0) give(POL_MATCH_F_TLOC, tloc_hash(*tloc_));
  }
  if ((index_.clauses & POL_MATCH_F_ORIGINATOR) != 0 && present(POL_ATTR_ORIGINATOR)) {
    if (!known(attr_.originator.family)) return false;
    give(POL_MATCH_F_ORIGINATOR, index_hash(attr_.originator));
  }
  return true;
}

// The keys of a clause of several values: their number, or more than kMostKeys.
unsigned Candidates::several_of(uint32_t clause, uint64_t* keys) const {
  if (clause == POL_MATCH_F_GROUP) {
    if ((attr_.present & POL_ATTR_GROUP) == 0) return 0;
    const unsigned count = std::min<uint32_t>(attr_.group_count, POL_MAX_GROUP);
    for (unsigned i = 0; i < count; ++i) keys[i] = index_key_of(clause, attr_.group[i]);
    return count;
  }
  if (clause != POL_MATCH_F_ORIGIN) return lists_of(clause, keys);
  if ((attr_.present & POL_ATTR_ORIGIN) == 0) return 0;
  const uint8_t subtype = attr_.origin_subtype;
  keys[0] = index_key_of(clause, subtype);
  if (attr_.origin_protocol != 4 || (subtype != 5 && subtype != 6)) return 1;
  // As match_origin pairs them: what asks for 4 takes 6, too, and what asks for 3 takes 5.
  keys[1] = index_key_of(clause, subtype - 2);
  return 2;
}

unsigned Candidates::lists_of(uint32_t clause, uint64_t* keys) const {
  const IndexLists* family = index_.families;
  while (family->clause != clause) ++family;
  const NamedHead* found[kMostKeys];
  unsigned count = 0;
  // Asks each of few lists, or the directory that has them.
  auto ask = [&](const ListDirectory& directory, const auto& value, auto holds) {
    if (family->generation == 0) {
      for (unsigned i = 0; i < family->count; ++i) {
        if (holds(family->lists[i])) found[count++] = family->lists[i];
      }
    } else if (directory.broken || family->generation != directory.generation) {
      count = kTooMany;
    } else {
      count = directory_ask(directory, value, found, kMostKeys);
    }
  };
  const Directories& directories = *index_.directories;
  switch (clause) {
    case POL_MATCH_F_VPN_LIST:
      // No list has larger ids.
      if (query_.vpn > UINT32_MAX) return 0;
      ask(directories.vpn, static_cast<uint32_t>(query_.vpn), [this](const NamedHead* list) {
        return match_vpn_list(reinterpret_cast<const t_vpn_list*>(list), query_.vpn);
      });
      break;
    case POL_MATCH_F_SITE_LIST:
      ask(directories.site, attr_.site, [this](const NamedHead* list) {
        return reinterpret_cast<const t_site_list*>(list)->entries.holds(attr_.site);
      });
      break;
    case POL_MATCH_F_TLOC_LIST:
      if (tloc_ == nullptr) return 0;
      ask(directories.tloc, tloc_hash(*tloc_), [this](const NamedHead* list) {
        return match_tloc_list(reinterpret_cast<const t_tloc_list*>(list), *tloc_);
      });
      break;
    case POL_MATCH_F_COLOR_LIST:
      if (tloc_ == nullptr) return 0;
      ask(directories.color, uint32_t{tloc_->color}, [this](const NamedHead* list) {
        return match_color_list(reinterpret_cast<const t_color_list*>(list), tloc_->color);
      });
      break;
    default:
      // What takes every family takes those without a trie, too.
      if (!known(query_.prefix.addr.family)) return kTooMany;
      ask(directories.pfx, query_.prefix, [this](const NamedHead* list) {
        return match_pfx_list(reinterpret_cast<const t_pfx_list*>(list), query_.prefix);
      });
  }
  for (unsigned i = 0; i < std::min(count, kMostKeys); ++i)
    keys[i] = index_key_of(clause, found[i]);
  return count;
}

inline void Candidates::add(uint64_t key) {
  const uint32_t head = index_.head_of(key);
  heads_[count_] = head;
  count_ += head != 0 ? 1 : 0;
  least_ = std::min(least_, head - 1);
}

bool Candidates::find() {
  if (!index_.fresh || !values()) return false;
  uint64_t keys[PolicyIndex::kMostShapes];
  const IndexShape* shape = index_.shapes;
  const IndexShape* end = shape + index_.shape_count;
  for (; shape != end && shape->several == 0; ++shape) {
    if ((shape->values & ~have_) == 0) add(key_of_values(*shape));
  }
  while (shape != end) {
    const uint32_t clause = shape->several;
    unsigned key_count = 0;
    for (; shape != end && shape->several == clause; ++shape) {
      if ((shape->values & ~have_) == 0) keys[key_count++] = key_of_values(*shape);
    }
    if (key_count == 0) continue;
    uint64_t several[kMostKeys];
    const unsigned several_count = several_of(clause, several);
    if (several_count > kMostKeys || count_ + key_count * several_count > kMostHeads) return false;
    for (unsigned i = 0; i < several_count; ++i) {
      for (unsigned k = 0; k < key_count; ++k) add(keys[k] + several[i]);
    }
  }
  return true;
}

uint64_t Candidates::key_of_values(const IndexShape& shape) const {
  uint64_t key = index_key_of_type(query_.match_type);
  for (uint32_t left = shape.values; left != 0; left &= left - 1) {
    key += value_keys_[std::countr_zero(left)];
  }
  return key;
}

const t_pol_entry* Candidates::next() {
  if (least_ == kNone) return nullptr;
  const IndexNode& node = index_.nodes[least_];
  uint32_t least = kNone;
  for (unsigned i = 0; i < count_; ++i) {
    if (heads_[i] == least_ + 1) heads_[i] = node.next;
    least = std::min(least, heads_[i] - 1);
  }
  least_ = least;
  return node.entry;
}

}  // namespace pol
