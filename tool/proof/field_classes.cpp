// SPDX-License-Identifier: Apache-2.0
#include "field_classes.h"

#include <algorithm>
#include <map>
#include <utility>

namespace polctl {

namespace {

constexpr uint32_t kPairedProtocol = 4;  // of origins: its sub-types pair up

uint64_t scrambled(uint64_t x) {
  x += 0x9e3779b97f4a7c15u;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
  return x ^ (x >> 31);
}

uint64_t highest_of(Field field) {
  if (field == Field::kVpn) return UINT64_MAX;
  if (field == Field::kCarrier) return UINT8_MAX;
  if (field == Field::kType) return POL_MATCH_SERVICE;
  if (field == Field::kGroup) return 1;
  return UINT32_MAX;
}

// The atoms that hold at the point that a sweep has come to.
class Holding {
 public:
  explicit Holding(size_t atoms) : counts_(atoms) {}

  void change(uint32_t atom, int by) {
    bool held = counts_[atom] > 0;
    counts_[atom] += by;
    if (held != (counts_[atom] > 0)) sum_.flip(atom);
  }
  const ClassMaker::Sum& sum() const { return sum_; }
  std::vector<uint32_t> atoms() const {
    std::vector<uint32_t> held;
    for (uint32_t atom = 0; atom < counts_.size(); ++atom) {
      if (counts_[atom] > 0) held.push_back(atom);
    }
    return held;
  }
  void point(const Value& member, ClassMaker* maker) const {
    maker->point(sum_, member, [this] { return atoms(); });
  }

 private:
  std::vector<int> counts_;
  ClassMaker::Sum sum_;
};

// Value classes of what is asked for by candidates: each value that an atom names, and one of the rest.
struct Candidate {
  Value value;
  std::vector<uint32_t> atoms;
};

void take_candidate(const Candidate& candidate, size_t atoms, ClassMaker* maker) {
  Holding holding(atoms);
  for (uint32_t atom : candidate.atoms) holding.change(atom, 1);
  holding.point(candidate.value, maker);
}

struct Event {
  Wide at;
  uint32_t atom;
  int by;
};

void add_range(uint64_t low, uint64_t high, uint32_t atom, std::vector<Event>* events) {
  if (low > high) return;
  events->push_back({low, atom, 1});
  events->push_back({Wide{high} + 1, atom, -1});
}

bool has_absence(Field field) { return field != Field::kType && field != Field::kVpn; }

// Fields that are numbers.
void cut_numbers(Field field, const std::vector<Atom>& atoms, ClassMaker* maker) {
  std::vector<Event> events;
  Holding absent(atoms.size());
  for (uint32_t i = 0; i < atoms.size(); ++i) {
    const Atom& atom = atoms[i];
    switch (atom.kind) {
      case Atom::Kind::kAbsent:
        absent.change(i, 1);
        break;
      case Atom::Kind::kNumbers:
        add_range(static_cast<uint64_t>(atom.value.number), atom.high, i, &events);
        break;
      case Atom::Kind::kList:
        if (atom.list == nullptr) break;
        for (const t_pol_content_element& each : atom.list->elements) {
          add_range(each.low, std::min(each.high, highest_of(field)), i, &events);
          // A route without a site counts as site 0 in lists.
          if (each.low == 0) absent.change(i, 1);
        }
        break;
      default:
        add_range(static_cast<uint64_t>(atom.value.number),
                  static_cast<uint64_t>(atom.value.number), i, &events);
    }
  }
  Value none;
  none.absent = true;
  if (has_absence(field)) absent.point(none, maker);
  std::sort(events.begin(), events.end(),
            [](const Event& a, const Event& b) { return a.at < b.at; });
  Holding holding(atoms.size());
  Wide at = field == Field::kType ? POL_MATCH_ROUTE : 0;
  for (size_t i = 0; at <= highest_of(field);) {
    for (; i < events.size() && events[i].at <= at; ++i) {
      holding.change(events[i].atom, events[i].by);
    }
    Value member;
    member.number = at;
    holding.point(member, maker);
    if (i == events.size()) break;
    at = events[i].at;
  }
}

void cut_groups(const std::vector<Atom>& atoms, ClassMaker* maker) {
  take_candidate({{.absent = true}, {}}, atoms.size(), maker);
  Candidate has = {atoms.front().value, {}};
  for (uint32_t i = 0; i < atoms.size(); ++i) has.atoms.push_back(i);
  take_candidate(has, atoms.size(), maker);
}

bool origin_holds(const Value& clause, uint8_t protocol, uint8_t subtype) {
  if (protocol != kPairedProtocol) return clause.number == protocol && clause.length == subtype;
  if (clause.length == 4) return subtype == 4 || subtype == 6;
  if (clause.length == 3) return subtype == 3 || subtype == 5;
  return subtype == clause.length;
}

void cut_origins(const std::vector<Atom>& atoms, ClassMaker* maker) {
  Candidate none = {{.absent = true}, {}};
  for (uint32_t i = 0; i < atoms.size(); ++i) {
    if (atoms[i].kind == Atom::Kind::kAbsent) none.atoms.push_back(i);
  }
  take_candidate(none, atoms.size(), maker);
  for (unsigned pair = 0; pair < 65536; ++pair) {
    auto protocol = static_cast<uint8_t>(pair >> 8);
    auto subtype = static_cast<uint8_t>(pair);
    ClassMaker::Sum sum;
    Candidate candidate;
    candidate.value.number = protocol;
    candidate.value.length = subtype;
    for (uint32_t i = 0; i < atoms.size(); ++i) {
      bool holds = atoms[i].kind == Atom::Kind::kExact
                       ? atoms[i].value == candidate.value
                       : atoms[i].kind == Atom::Kind::kValue &&
                             origin_holds(atoms[i].value, protocol, subtype);
      if (!holds) continue;
      sum.flip(i);
      candidate.atoms.push_back(i);
    }
    maker->point(sum, candidate.value, [&] { return candidate.atoms; });
  }
}

// An address that nothing names.
Value unnamed(const std::map<Value, std::vector<uint32_t>>& named, Value value) {
  value.family = 4;
  value.number = 1;
  while (named.count(value) != 0) ++value.number;
  return value;
}

void cut_originators(const std::vector<Atom>& atoms, ClassMaker* maker) {
  std::map<Value, std::vector<uint32_t>> named;
  Candidate none = {{.absent = true}, {}};
  for (uint32_t i = 0; i < atoms.size(); ++i) {
    if (atoms[i].kind == Atom::Kind::kAbsent) {
      none.atoms.push_back(i);
    } else if (atoms[i].value.family != 0) {
      named[atoms[i].value].push_back(i);
    }
  }
  take_candidate(none, atoms.size(), maker);
  for (const auto& [value, holds] : named) take_candidate({value, holds}, atoms.size(), maker);
  take_candidate({unnamed(named, {}), {}}, atoms.size(), maker);
}

// TLOCs: those that are named, and of each color one that is not.
void cut_tlocs(const std::vector<Atom>& atoms, ClassMaker* maker) {
  std::map<Value, std::vector<uint32_t>> named;
  std::vector<std::vector<uint32_t>> by_color(256);
  Candidate none = {{.absent = true}, {}};
  auto take_color = [&](uint64_t color, uint32_t i) {
    if (color > UINT8_MAX) return;
    auto& holds = by_color[color];
    if (holds.empty() || holds.back() != i) holds.push_back(i);
    if (color == 0 && atoms[i].own_tloc) none.atoms.push_back(i);
  };
  for (uint32_t i = 0; i < atoms.size(); ++i) {
    const Atom& atom = atoms[i];
    if (atom.kind == Atom::Kind::kAbsent) none.atoms.push_back(i);
    if (atom.kind == Atom::Kind::kValue && atom.value.family != 0) named[atom.value].push_back(i);
    if (atom.kind == Atom::Kind::kColor) take_color(static_cast<uint64_t>(atom.value.number), i);
    if (atom.kind != Atom::Kind::kList || atom.list == nullptr) continue;
    for (const t_pol_content_element& each : atom.list->elements) {
      if (atom.list->type == POL_GRAPH_COLOR_LIST) {
        take_color(each.color, i);
      } else {
        auto& holds = named[value_of(each.tloc)];
        if (holds.empty() || holds.back() != i) holds.push_back(i);
      }
    }
  }
  take_candidate(none, atoms.size(), maker);
  for (auto [value, holds] : named) {
    const auto& colored = by_color[value.color];
    holds.insert(holds.end(), colored.begin(), colored.end());
    take_candidate({value, holds}, atoms.size(), maker);
  }
  for (unsigned color = 0; color <= UINT8_MAX; ++color) {
    Value value;
    value.color = static_cast<uint8_t>(color);
    value.encap = KEL_ENCAP_IPSEC;
    take_candidate({unnamed(named, value), by_color[color]}, atoms.size(), maker);
  }
}

void cut_prefixes(const std::vector<Atom>& atoms, ClassMaker* maker) {
  Holding none(atoms.size());
  for (uint8_t family : {uint8_t{4}, uint8_t{6}, uint8_t{0}}) {
    std::vector<PrefixBox> boxes;
    for (uint32_t i = 0; i < atoms.size(); ++i) {
      const Atom& atom = atoms[i];
      if (atom.kind == Atom::Kind::kPrefixes && atom.prefixes.base.family == family) {
        const PrefixRange& range = atom.prefixes;
        unsigned width = family == 4 ? 32 : 128;
        Wide rest = range.base.length == 0 ? ~Wide{0} >> (128 - width)
                                           : (Wide{1} << (width - range.base.length)) - 1;
        boxes.push_back({range.base.number, range.base.number | rest, i, range.low, range.high});
      }
      if (atom.kind == Atom::Kind::kAbsent && family == 0) none.change(i, 1);
      if (atom.kind != Atom::Kind::kList || atom.list == nullptr) continue;
      for (const t_pol_content_element& each : atom.list->elements) {
        auto box = box_of(each.prefix, family, i);
        if (!box) continue;
        if (family == 0) {
          none.change(i, 1);
        } else {
          boxes.push_back(*box);
        }
      }
    }
    if (family != 0) sweep_prefixes(std::move(boxes), family, maker);
  }
  none.point({.absent = true}, maker);
}

}  // namespace

void ClassMaker::Sum::flip(uint32_t atom) {
  a ^= scrambled(uint64_t{atom} * 2);
  b ^= scrambled(uint64_t{atom} * 2 + 1);
}

Value value_of(const t_ipaddr& address) {
  Value value;
  if (address.family == KEL_AF_INET) {
    value.family = 4;
    value.number = address.addr.v4;
  } else if (address.family == KEL_AF_INET6) {
    value.family = 6;
    for (uint8_t byte : address.addr.v6) value.number = value.number << 8 | byte;
  }
  return value;
}

Value value_of(const t_tloc_id& tloc) {
  t_ipaddr address = {};
  address.family = tloc.family;
  if (tloc.family == KEL_AF_INET) {
    address.addr.v4 = tloc.addr.v4;
  } else {
    std::copy(std::begin(tloc.addr.v6), std::end(tloc.addr.v6), address.addr.v6);
  }
  Value value = value_of(address);
  value.color = tloc.color;
  value.encap = tloc.encap;
  return value;
}

FieldClasses classes_of(Field field, const std::vector<Atom>& atoms) {
  FieldClasses classes;
  ClassMaker maker(atoms.size(), &classes);
  switch (field) {
    case Field::kPrefix:
      cut_prefixes(atoms, &maker);
      break;
    case Field::kGroup:
      cut_groups(atoms, &maker);
      break;
    case Field::kTloc:
      cut_tlocs(atoms, &maker);
      break;
    case Field::kOrigin:
      cut_origins(atoms, &maker);
      break;
    case Field::kOriginator:
      cut_originators(atoms, &maker);
      break;
    default:
      cut_numbers(field, atoms, &maker);
  }
  return classes;
}

}  // namespace polctl
