// SPDX-License-Identifier: Apache-2.0
#include "policy_proof.h"

#include <algorithm>

namespace polctl {

namespace {

Atom number_atom(Field field, uint64_t number) {
  Atom atom;
  atom.field = field;
  atom.kind = Atom::Kind::kValue;
  atom.value.number = number;
  return atom;
}

Atom value_atom(Field field, const Value& value) {
  Atom atom;
  atom.field = field;
  atom.kind = Atom::Kind::kValue;
  atom.value = value;
  return atom;
}

Atom list_atom(Field field, const ListModel* list) {
  Atom atom;
  atom.field = field;
  atom.kind = Atom::Kind::kList;
  atom.list = list;
  return atom;
}

// The clauses of a sequence as questions about single fields. Flags of what only packets have are not
// looked at.
std::vector<Atom> atoms_of(const SequenceModel& sequence) {
  const t_pol_content_sequence& is = sequence.is;
  std::vector<Atom> atoms;
  auto add = [&](uint32_t flag, Atom atom) {
    if ((is.match_flags & flag) == 0) return;
    // Sequences for TLOCs look at the query's own.
    atom.own_tloc = atom.field == Field::kTloc && is.match_type == POL_MATCH_TLOC;
    atoms.push_back(atom);
  };
  Value origin;
  origin.number = is.origin_protocol;
  origin.length = is.origin_subtype;
  Atom color = number_atom(Field::kTloc, is.color);
  color.kind = Atom::Kind::kColor;
  add(POL_MATCH_F_TAG, number_atom(Field::kTag, is.tag));
  add(POL_MATCH_F_PREF, number_atom(Field::kPreference, is.preference));
  add(POL_MATCH_F_DOMAIN, number_atom(Field::kDomain, is.domain));
  add(POL_MATCH_F_GROUP, number_atom(Field::kGroup, is.group));
  add(POL_MATCH_F_VPN_ID, number_atom(Field::kVpn, is.vpn_id));
  add(POL_MATCH_F_VPN_LIST, list_atom(Field::kVpn, sequence.vpn_list));
  add(POL_MATCH_F_TLOC, value_atom(Field::kTloc, value_of(is.tloc)));
  add(POL_MATCH_F_TLOC_LIST, list_atom(Field::kTloc, sequence.tloc_list));
  add(POL_MATCH_F_SITE, number_atom(Field::kSite, is.site));
  add(POL_MATCH_F_SITE_LIST, list_atom(Field::kSite, sequence.site_list));
  add(POL_MATCH_F_PFX_LIST, list_atom(Field::kPrefix, sequence.pfx_list));
  add(POL_MATCH_F_ORIGIN, value_atom(Field::kOrigin, origin));
  add(POL_MATCH_F_ORIGINATOR, value_atom(Field::kOriginator, value_of(is.originator)));
  add(POL_MATCH_F_CARRIER, number_atom(Field::kCarrier, is.carrier));
  add(POL_MATCH_F_COLOR, color);
  add(POL_MATCH_F_COLOR_LIST, list_atom(Field::kTloc, sequence.color_list));
  return atoms;
}

bool asks_routes(const SequenceModel& sequence) {
  return sequence.is.match_type >= POL_MATCH_ROUTE && sequence.is.match_type <= POL_MATCH_SERVICE;
}

}  // namespace

PolicyProof::PolicyProof(RouteSpace* space, const PolicyModel& policy)
    : space_(space), policy_(policy), takes_(policy.sequences.size()) {
  for (const SequenceModel& sequence : policy.sequences) {
    std::vector<size_t> ids;
    if (!sequence.is_default()) {
      for (const Atom& atom : atoms_of(sequence)) ids.push_back(space->add(atom));
    }
    atoms_.push_back(std::move(ids));
  }
}

RouteSet PolicyProof::universe() const {
  return policy_.kind == POL_KIND_MEMBERSHIP ? space_->type(POL_MATCH_SERVICE) : RouteSet::all();
}

const RouteSet& PolicyProof::takes(size_t i) const {
  if (takes_[i].made) return takes_[i].set;
  RouteSet set;
  if (sequence(i).is_default()) {
    set = universe();
  } else if (asks_routes(sequence(i))) {
    set = space_->type(sequence(i).is.match_type) & universe();
    for (size_t atom : atoms_[i]) set = set & space_->atom(atom);
  }
  takes_[i] = {true, std::move(set)};
  return takes_[i].set;
}

const RouteSet& PolicyProof::decided(size_t i) const {
  if (decided_.empty()) rest_ = universe();
  while (decided_.size() <= i) {
    const RouteSet& taken = takes(decided_.size());
    RouteSet here = taken & rest_;
    rest_ = rest_ - taken;
    decided_.push_back(std::move(here));
  }
  return decided_[i];
}

std::vector<PolicyProof::Part> PolicyProof::split(RouteSet set, size_t first) const {
  std::vector<Part> parts;
  for (size_t i = first; i < size() && !set.empty(); ++i) {
    RouteSet here = set & takes(i);
    if (here.empty()) continue;
    set = set - here;
    parts.emplace_back(i, std::move(here));
  }
  return parts;
}

}  // namespace polctl
