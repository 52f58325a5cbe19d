// SPDX-License-Identifier: Apache-2.0
#include "route/pol_candidates.h"

#include <algorithm>

#include "core/pol_context_internal.h"
#include "route/pol_exec_rules.h"

namespace pol {
namespace {

bool is_list(const IndexField& field) { return field.kind >= INDEX_VPN_LIST; }

bool known(uint32_t family) { return family == KEL_AF_INET || family == KEL_AF_INET6; }

const t_tloc_id* tloc_of(const t_pol_route_query& query, const t_pol_route_attr& attr) {
  if (query.match_type == POL_MATCH_TLOC) return &query.tloc;
  return (attr.present & POL_ATTR_TLOC) != 0 ? &attr.tloc : nullptr;
}

}  // namespace

bool candidates_usable(const PolicyIndex& index, const t_pol_route_query& query,
                       const t_pol_route_attr& attr) {
  if (!index.fresh) return false;
  constexpr uint32_t kOfTlocs = POL_MATCH_F_TLOC | POL_MATCH_F_TLOC_LIST;
  if ((index.clauses & kOfTlocs) != 0) {
    const t_tloc_id* tloc = tloc_of(query, attr);
    if (tloc != nullptr && !known(tloc->family)) return false;
  }
  return (index.clauses & POL_MATCH_F_ORIGINATOR) == 0 ||
         (attr.present & POL_ATTR_ORIGINATOR) == 0 || known(attr.originator.family);
}

void candidates_fetch(const PolicyIndex& index, const t_pol_route_query* queries, unsigned count) {
  const t_ipprefix* prefixes[PfxIndex::kFetched];
  for (unsigned i = 0; i < count; ++i) prefixes[i] = &queries[i].prefix;
  for (unsigned i = 0; i < index.field_count; ++i) {
    const IndexField& field = index.fields[i];
    if (field.kind == INDEX_TAG) {
      for (unsigned k = 0; k < count; ++k) {
        const t_pol_route_attr* attr = queries[k].attr;
        if (attr != nullptr) __builtin_prefetch(field.slots + (field.hash(attr->tag) & field.mask));
      }
    }
    if (field.kind != INDEX_PFX_LIST) continue;
    if (field.generation != 0) {
      const ListDirectory& directory = index.directories->pfx;
      pfx_fetch(directory.narrow.root(), directory.wide.root(), prefixes, count);
    } else {
      for (unsigned k = 0; k < field.list_count; ++k) {
        reinterpret_cast<const t_pfx_list*>(field.lists[k])->index.fetch(prefixes, count);
      }
    }
  }
}

Candidates::Candidates(const PolicyIndex& index, const t_pol_route_query& query,
                       const t_pol_route_attr& attr)
    : index_(index), query_(query), attr_(attr), tloc_(tloc_of(query, attr)) {
  const uint32_t type = query.match_type;
  const bool asked = type >= POL_MATCH_ROUTE && type <= POL_MATCH_SERVICE;
  if (!asked || (index.type != 0 && index.type != type)) {
    at_ = index.words;
    return;
  }
  while (set_count_ == 0 && ask_next_field()) {
  }
  seek();
}

void Candidates::add_value(const IndexField& field, uint64_t key) {
  const IndexWord* first = field.find(key);
  if (first == nullptr) return;
  Set& set = sets_[set_count_];
  cursors_[cursor_count_++] = {first->bits, first->at, first->next};
  ++set.count;
}

// False when the field rules nothing out.
bool Candidates::values_of(const IndexField& field) {
  const auto present = [this](uint32_t bit) { return (attr_.present & bit) != 0; };
  switch (field.kind) {
    case INDEX_TYPE:
      add_value(field, query_.match_type);
      return true;
    case INDEX_TAG:
      if (present(POL_ATTR_TAG)) add_value(field, attr_.tag);
      return true;
    case INDEX_PREFERENCE:
      if (present(POL_ATTR_PREF)) add_value(field, attr_.preference);
      return true;
    case INDEX_DOMAIN:
      if (present(POL_ATTR_DOMAIN)) add_value(field, attr_.domain);
      return true;
    case INDEX_VPN_ID:
      add_value(field, query_.vpn);
      return true;
    case INDEX_SITE:
      if (present(POL_ATTR_SITE)) add_value(field, attr_.site);
      return true;
    case INDEX_CARRIER:
      if (present(POL_ATTR_CARRIER)) add_value(field, attr_.carrier);
      return true;
    case INDEX_COLOR:
      if (tloc_ != nullptr) add_value(field, tloc_->color);
      return true;
    case INDEX_TLOC:
      if (tloc_ != nullptr) add_value(field, tloc_hash(*tloc_));
      return true;
    case INDEX_ORIGIN: {
      if (!present(POL_ATTR_ORIGIN)) return true;
      const uint8_t subtype = attr_.origin_subtype;
      if (attr_.origin_protocol != 4) {
        add_value(field, index_origin_key(attr_.origin_protocol, subtype));
        return true;
      }
      add_value(field, index_origin_key(subtype));
      // As match_origin pairs them: what asks for 4 takes 6, too, and what asks for 3 takes 5.
      if (subtype == 6) add_value(field, index_origin_key(4));
      if (subtype == 5) add_value(field, index_origin_key(3));
      return true;
    }
    case INDEX_ORIGINATOR:
      if (present(POL_ATTR_ORIGINATOR)) add_value(field, index_key(attr_.originator));
      return true;
    case INDEX_GROUP: {
      if (!present(POL_ATTR_GROUP)) return true;
      if (attr_.group_count > kMostValues) return false;
      for (uint32_t i = 0; i < attr_.group_count; ++i) add_value(field, attr_.group[i]);
      return true;
    }
    default:
      return lists_of(field);
  }
}

bool Candidates::add_lists(const IndexField& field, const NamedHead* const* lists, unsigned count) {
  if (count > kMostValues) return false;
  for (unsigned i = 0; i < count; ++i) add_value(field, reinterpret_cast<uintptr_t>(lists[i]));
  return true;
}

bool Candidates::lists_of(const IndexField& field) {
  const NamedHead* found[kMostValues];
  // Asks each of few lists, or the directory that has them.
  auto ask = [&](const ListDirectory& directory, const auto& value, auto holds) {
    if (field.list_count <= IndexField::kFewLists) {
      unsigned count = 0;
      for (unsigned i = 0; i < field.list_count; ++i) {
        if (holds(field.lists[i])) found[count++] = field.lists[i];
      }
      return add_lists(field, found, count);
    }
    if (directory.broken || field.generation != directory.generation) return false;
    return add_lists(field, found, directory_ask(directory, value, found, kMostValues));
  };
  const Directories& directories = *index_.directories;
  switch (field.kind) {
    case INDEX_VPN_LIST:
      // No list has larger ids.
      if (query_.vpn > UINT32_MAX) return true;
      return ask(directories.vpn, static_cast<uint32_t>(query_.vpn), [this](const NamedHead* list) {
        return match_vpn_list(reinterpret_cast<const t_vpn_list*>(list), query_.vpn);
      });
    case INDEX_SITE_LIST:
      return ask(directories.site, attr_.site, [this](const NamedHead* list) {
        return reinterpret_cast<const t_site_list*>(list)->entries.holds(attr_.site);
      });
    case INDEX_TLOC_LIST:
      if (tloc_ == nullptr) return true;
      return ask(directories.tloc, tloc_hash(*tloc_), [this](const NamedHead* list) {
        return match_tloc_list(reinterpret_cast<const t_tloc_list*>(list), *tloc_);
      });
    case INDEX_COLOR_LIST:
      if (tloc_ == nullptr) return true;
      return ask(directories.color, uint32_t{tloc_->color}, [this](const NamedHead* list) {
        return match_color_list(reinterpret_cast<const t_color_list*>(list), tloc_->color);
      });
    default:
      if (!known(query_.prefix.addr.family)) return false;
      return ask(directories.pfx, query_.prefix, [this](const NamedHead* list) {
        return match_pfx_list(reinterpret_cast<const t_pfx_list*>(list), query_.prefix);
      });
  }
}

// Adds the next field's set to those that rule out. False when there are no more fields.
bool Candidates::ask_next_field() {
  if (asked_ == index_.field_count) return false;
  const IndexField& field = index_.fields[asked_++];
  const unsigned cursors = cursor_count_;
  sets_[set_count_] = {&field, field.any, cursors_ + cursors, 0, kNone, 0, 0};
  const bool fits = cursors + kMostValues <= kMostCursors;
  if (!fits || !values_of(field)) {
    cursor_count_ = cursors;
    return true;
  }
  move_to(&sets_[set_count_], at_);
  // What leaves the fewest goes first.
  for (unsigned i = set_count_++; i > 0; --i) {
    if (sets_[i - 1].field->without <= sets_[i].field->without) break;
    std::swap(sets_[i - 1], sets_[i]);
  }
  return true;
}

void Candidates::move_to(Set* set, uint32_t at) const {
  set->at = at;
  set->bits = 0;
  set->next_at = kNone;
  for (uint32_t i = 0; i < set->count; ++i) {
    Cursor& cursor = set->cursors[i];
    while (cursor.at < at && cursor.next != 0) {
      const IndexWord& word = set->field->more[cursor.next - 1];
      cursor = {word.bits, word.at, word.next};
    }
    uint32_t beyond = cursor.at;
    if (cursor.at == at) {
      set->bits |= cursor.bits;
      beyond = cursor.next != 0 ? set->field->more[cursor.next - 1].at : at;
    }
    if (beyond > at) set->next_at = std::min(set->next_at, beyond);
  }
}

inline uint64_t Candidates::word_of(Set* set, uint32_t at) const {
  if (set->at != at) {
    if (set->next_at <= at) {
      move_to(set, at);
    } else {
      set->at = at;
      set->bits = 0;
    }
  }
  return set->any != nullptr ? set->any[at] | set->bits : set->bits;
}

// The first word beyond `at` in which the set has something; kNone when there is none.
uint32_t Candidates::word_after(const Set& set, uint32_t at) const {
  const uint32_t first = set.next_at;
  if (set.any == nullptr || first == at + 1 || at + 1 == index_.words) return first;
  const uint64_t* words = set.field->any_words;
  uint32_t group = (at + 1) / 64;
  uint64_t left = words[group] & ~uint64_t{0} << (at + 1) % 64;
  for (const uint32_t groups = (index_.words + 63) / 64; left == 0;) {
    if (++group == groups || group * 64 > first) return first;
    left = words[group];
  }
  return std::min(first, group * 64 + static_cast<uint32_t>(__builtin_ctzll(left)));
}

// Goes to the first word from `at_` on in which all sets have something. False when there is none.
bool Candidates::seek() {
  while (at_ < index_.words) {
    const uint32_t rest = index_.count - at_ * 64;
    word_ = rest < 64 ? (uint64_t{1} << rest) - 1 : ~uint64_t{0};
    unsigned i = 0;
    for (; i < set_count_ && word_ != 0; ++i) word_ &= word_of(&sets_[i], at_);
    if (word_ != 0) return true;
    at_ = std::min(word_after(sets_[i - 1], at_), index_.words);
  }
  return false;
}

const t_pol_entry* Candidates::next() {
  for (;;) {
    if (word_ == 0) {
      if (at_ >= index_.words) return nullptr;
      ++at_;
      if (!seek()) return nullptr;
    }
    if (asked_ < index_.field_count) {
      // Trying one or two is cheaper than asking for more lists, but not one after the other.
      const uint64_t more = word_ & (word_ - 1);
      const bool several = is_list(index_.fields[asked_]) ? (more & (more - 1)) != 0 : more != 0;
      if (several || given_ >= 3) {
        const unsigned sets = set_count_;
        ask_next_field();
        for (unsigned i = 0; set_count_ != sets && i < set_count_; ++i) {
          word_ &= word_of(&sets_[i], at_);
        }
        continue;
      }
    }
    ++given_;
    const auto place = at_ * 64 + static_cast<uint32_t>(__builtin_ctzll(word_));
    word_ &= word_ - 1;
    return index_.entries[place];
  }
}

}  // namespace pol
