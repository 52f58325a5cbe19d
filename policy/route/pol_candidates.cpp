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
    if (!family.few()) {
      const ListDirectory* directory = family.directory();
      if (directory == nullptr) return;
      pfx_fetch(directory->arena, directory->narrow.root(), directory->wide.root(), prefixes,
                count);
      return;
    }
    for (unsigned i = 0; i < family.count; ++i) {
      reinterpret_cast<const t_pfx_list*>(family.lists[i])->index.fetch(prefixes, count);
    }
  }
}

// Makes the keys of single values. False for a value that must not be compared.
inline bool Candidates::values() {
  const uint32_t asked = index_.values;
  auto give = [this, asked](uint32_t clause, bool there, uint64_t value) {
    if ((asked & clause) == 0) return;
    have_ |= there ? clause : 0;
    value_keys_[std::countr_zero(clause)] = index_key_of(clause, value);
  };
  const auto present = [this](uint32_t bit) { return (attr_.present & bit) != 0; };
  give(POL_MATCH_F_TAG, present(POL_ATTR_TAG), attr_.tag);
  give(POL_MATCH_F_PREF, present(POL_ATTR_PREF), attr_.preference);
  constexpr uint32_t kPlain = POL_MATCH_F_TAG | POL_MATCH_F_PREF | POL_MATCH_F_PFX_LIST |
                              POL_MATCH_F_SITE_LIST | POL_MATCH_F_VPN_LIST;
  if ((index_.clauses & ~kPlain) == 0) return true;
  tloc_ = tloc_of(query_, attr_);
  give(POL_MATCH_F_DOMAIN, present(POL_ATTR_DOMAIN), attr_.domain);
  give(POL_MATCH_F_VPN_ID, true, query_.vpn);
  give(POL_MATCH_F_SITE, present(POL_ATTR_SITE), attr_.site);
  give(POL_MATCH_F_CARRIER, present(POL_ATTR_CARRIER), attr_.carrier);
  constexpr uint32_t kOfTlocs = POL_MATCH_F_TLOC | POL_MATCH_F_TLOC_LIST;
  if (tloc_ != nullptr) {
    give(POL_MATCH_F_COLOR, true, tloc_->color);
    if ((index_.clauses & kOfTlocs) != 0 && !known(tloc_->family)) return false;
    if ((asked & POL_MATCH_F_TLOC) != 0) give(POL_MATCH_F_TLOC, true, tloc_hash(*tloc_));
  }
  if ((index_.clauses & POL_MATCH_F_ORIGINATOR) != 0 && present(POL_ATTR_ORIGINATOR)) {
    if (!known(attr_.originator.family)) return false;
    give(POL_MATCH_F_ORIGINATOR, true, index_hash(attr_.originator));
  }
  return true;
}

inline void Candidates::add(uint64_t key) {
  const uint32_t head = index_.head_of(key);
  heads_[count_] = head;
  count_ += head != 0 ? 1 : 0;
  least_ = std::min(least_, head - 1);
}

// Looks up every key with every value. False when that is too much.
template <class Value>
[[gnu::always_inline]] inline bool Candidates::add_each(const Keys& keys, const Value* values,
                                                        unsigned count) {
  if (count > kMostValues || count_ + keys.count * count > kMostHeads) return false;
  for (unsigned i = 0; i < count; ++i) {
    const uint64_t of_value = index_key_of(keys.clause, values[i]);
    for (unsigned k = 0; k < keys.count; ++k) add(keys.keys[k] + of_value);
  }
  return true;
}

// The same with every list of a family that may hold the route's value. Asks each of few lists, or the
// directory that has them.
template <class Ask, class Holds>
[[gnu::always_inline]] inline bool Candidates::add_lists(const Keys& keys, Ask ask, Holds holds) {
  const IndexLists* family = index_.families;
  while (family->clause != keys.clause) ++family;
  const NamedHead* found[kMostValues];
  unsigned count = 0;
  if (family->few()) {
    for (unsigned i = 0; i < family->count; ++i) {
      found[count] = family->lists[i];
      count += holds(family->lists[i]) ? 1 : 0;
    }
  } else {
    const ListDirectory* directory = family->directory();
    if (directory == nullptr) return false;
    count = ask(*directory, found);
  }
  return add_each(keys, found, count);
}

template <class Count>
[[gnu::always_inline]] inline bool Candidates::add_prefix_lists(const Keys& keys) {
  const t_ipprefix& prefix = query_.prefix;
  // What takes every family takes those without a trie, too.
  if (!known(prefix.addr.family)) return false;
  return add_lists(
      keys,
      [&prefix](const ListDirectory& directory, const NamedHead** found) {
        unsigned count = 0;
        if (prefix.addr.family == KEL_AF_INET) [[likely]] {
          count = directory_ask<Count>(directory.narrow, pfx_bits_v4(prefix.addr), prefix.len,
                                       found, kMostValues);
        } else {
          count = directory_ask<Count>(directory.wide, pfx_bits_v6(prefix.addr), prefix.len, found,
                                       kMostValues);
        }
        // The rules are likely to ask it next.
        for (unsigned i = 0; i < std::min(count, kMostValues); ++i) {
          __builtin_prefetch(&reinterpret_cast<const t_pfx_list*>(found[i])->index);
        }
        return count;
      },
      [&prefix](const NamedHead* list) {
        return match_pfx_list(reinterpret_cast<const t_pfx_list*>(list), prefix);
      });
}

// The same with lists of ids.
template <class Count, class Holds>
[[gnu::always_inline]] inline bool Candidates::add_id_lists(const Keys& keys, uint32_t id,
                                                            Holds holds) {
  return add_lists(
      keys,
      [id](const ListDirectory& directory, const NamedHead** found) {
        return directory_ask<Count>(directory.narrow, directory_id_key(id), kDirectoryIdBits, found,
                                    kMostValues);
      },
      holds);
}

// False where the index cannot tell.
template <class Count>
bool Candidates::add_several(const Keys& keys) {
  switch (keys.clause) {
    case POL_MATCH_F_VPN_LIST:
      // No list has larger ids.
      if (query_.vpn > UINT32_MAX) return true;
      return add_id_lists<Count>(
          keys, static_cast<uint32_t>(query_.vpn), [this](const NamedHead* list) {
            return match_vpn_list(reinterpret_cast<const t_vpn_list*>(list), query_.vpn);
          });
    case POL_MATCH_F_SITE_LIST:
      return add_id_lists<Count>(keys, attr_.site, [this](const NamedHead* list) {
        return reinterpret_cast<const t_site_list*>(list)->entries.holds(attr_.site);
      });
    case POL_MATCH_F_TLOC_LIST:
      if (tloc_ == nullptr) return true;
      return add_id_lists<Count>(keys, tloc_hash(*tloc_), [this](const NamedHead* list) {
        return match_tloc_list(reinterpret_cast<const t_tloc_list*>(list), *tloc_);
      });
    case POL_MATCH_F_COLOR_LIST:
      if (tloc_ == nullptr) return true;
      return add_id_lists<Count>(keys, tloc_->color, [this](const NamedHead* list) {
        return match_color_list(reinterpret_cast<const t_color_list*>(list), tloc_->color);
      });
    case POL_MATCH_F_GROUP:
      if ((attr_.present & POL_ATTR_GROUP) == 0) return true;
      return add_each(keys, attr_.group, std::min<uint32_t>(attr_.group_count, POL_MAX_GROUP));
    default: {
      if ((attr_.present & POL_ATTR_ORIGIN) == 0) return true;
      const uint8_t subtype = attr_.origin_subtype;
      // As match_origin pairs them: what asks for 4 takes 6, too, and what asks for 3 takes 5.
      const uint8_t subtypes[] = {subtype, static_cast<uint8_t>(subtype - 2)};
      const bool paired = attr_.origin_protocol == 4 && (subtype == 5 || subtype == 6);
      return add_each(keys, subtypes, paired ? 2 : 1);
    }
  }
}

template <class Count>
[[gnu::always_inline]] inline bool Candidates::find_by() {
  if (!index_.fresh || !values()) return false;
  const IndexShape* shape = index_.shapes;
  const IndexShape* end = shape + index_.shape_count;
  for (; shape != end && shape->several == 0; ++shape) {
    if ((shape->values & ~have_) == 0) add(key_of_values(*shape));
  }
  while (shape != end) {
    Keys keys;
    keys.clause = shape->several;
    keys.count = 0;
    for (; shape != end && shape->several == keys.clause; ++shape) {
      if ((shape->values & ~have_) == 0) keys.keys[keys.count++] = key_of_values(*shape);
    }
    if (keys.count == 0) continue;
    const bool prefixes = keys.clause == POL_MATCH_F_PFX_LIST;
    if (!(prefixes ? add_prefix_lists<Count>(keys) : add_several<Count>(keys))) return false;
  }
  return true;
}

bool Candidates::find() {
  return g_cpu_counts ? find_by<CountByInstruction>() : find_by<CountByTricks>();
}

inline uint64_t Candidates::key_of_values(const IndexShape& shape) const {
  uint64_t key = index_key_of_type(query_.match_type);
  for (uint32_t left = shape.values; left != 0; left &= left - 1) {
    key += value_keys_[std::countr_zero(left)];
  }
  return key;
}

void Candidates::advance() {
  const uint32_t next = index_.nodes[least_].next;
  uint32_t least = kNone;
  for (unsigned i = 0; i < count_; ++i) {
    if (heads_[i] == least_ + 1) heads_[i] = next;
    least = std::min(least, heads_[i] - 1);
  }
  least_ = least;
}

}  // namespace pol
