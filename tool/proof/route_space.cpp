// SPDX-License-Identifier: Apache-2.0
#include "route_space.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <numeric>
#include <set>

#include "host/address_text.h"
#include "host/output.h"
#include "policy/pol_util.h"
#include "tool/attribute_words.h"

namespace polctl {

namespace {

// Fields that a shown route had better not need come first.
constexpr Field kDispensable[] = {Field::kGroup,      Field::kCarrier, Field::kOrigin,
                                  Field::kOriginator, Field::kTloc,    Field::kDomain,
                                  Field::kSite,       Field::kVpn,     Field::kPreference,
                                  Field::kTag,        Field::kPrefix};

t_ipaddr address_of(const Value& value) {
  t_ipaddr address = {};
  address.family = value.family == 4 ? KEL_AF_INET : KEL_AF_INET6;
  Wide number = value.number;
  if (value.family == 4) {
    address.addr.v4 = static_cast<uint32_t>(number);
    return address;
  }
  for (size_t i = sizeof address.addr.v6; i-- > 0; number >>= 8) {
    address.addr.v6[i] = static_cast<uint8_t>(number);
  }
  return address;
}

t_tloc_id tloc_of(const Value& value) {
  const t_ipaddr address = address_of(value);
  t_tloc_id tloc = {};
  tloc.family = address.family;
  std::copy(std::begin(address.addr.v6), std::end(address.addr.v6), tloc.addr.v6);
  tloc.color = value.color;
  tloc.encap = value.encap;
  return tloc;
}

std::string value_text(Field field, const Value& value) {
  switch (field) {
    case Field::kPrefix:
      return fmt::format("{}/{}", address_text(address_of(value)), value.length);
    case Field::kTloc:
      return tloc_text(tloc_of(value));
    case Field::kOriginator:
      return address_text(address_of(value));
    case Field::kOrigin: {
      const char* word = origin_word({static_cast<uint8_t>(value.number), value.length});
      return word != nullptr && *word != 0
                 ? word
                 : fmt::format("{},{}", static_cast<unsigned>(value.number), value.length);
    }
    case Field::kCarrier: {
      const char* word = word_of(Vocabulary::kCarrier, static_cast<uint32_t>(value.number));
      return *word != 0 ? word : std::to_string(static_cast<uint32_t>(value.number));
    }
    case Field::kType:
      return pol_util_match_type_str(static_cast<uint32_t>(value.number));
    default:
      return std::to_string(static_cast<uint64_t>(value.number));
  }
}

unsigned bits_for(size_t classes) {
  return classes < 2 ? 0 : static_cast<unsigned>(std::bit_width(classes - 1));
}

}  // namespace

const char* field_word(Field field) {
  static constexpr const char* kWords[kFields] = {"type",       "prefix", "vpn",        "tag",
                                                  "preference", "domain", "site",       "group",
                                                  "tloc",       "origin", "originator", "carrier"};
  return kWords[static_cast<size_t>(field)];
}

std::string route_json(const ShownRoute& route) {
  std::string line = fmt::format("{{\"type\":\"{}\"", value_text(Field::kType, route.values[0]));
  for (unsigned i = 1; i < kFields; ++i) {
    auto field = static_cast<Field>(i);
    const Value& value = route.values[i];
    std::string text = value.absent ? "" : value_text(field, value);
    switch (field) {
      case Field::kGroup:
        if (!route.groups.empty()) {
          line += fmt::format(",\"groups\":[{}]", fmt::join(route.groups, ","));
        }
        break;
      case Field::kTloc:
        if (value.absent) break;
        line +=
            fmt::format(",\"tloc\":{{\"address\":\"{}\",\"color\":{},\"encap\":{}}}",
                        address_text(address_of(value)), json_word(Vocabulary::kColor, value.color),
                        json_word(Vocabulary::kEncap, value.encap));
        break;
      case Field::kPrefix:
      case Field::kOriginator:
        if (!value.absent) line += fmt::format(",\"{}\":\"{}\"", field_word(field), text);
        break;
      case Field::kOrigin:
        if (value.absent) break;
        line += text.find(',') == std::string::npos ? fmt::format(",\"origin\":\"{}\"", text)
                                                    : fmt::format(",\"origin\":[{}]", text);
        break;
      case Field::kCarrier:
        if (value.absent) break;
        line +=
            ",\"carrier\":" + json_word(Vocabulary::kCarrier, static_cast<uint32_t>(value.number));
        break;
      default:
        // The VPN is always there, and 0 unless it is named; of a service it has to be.
        if (value.absent) break;
        if (field == Field::kVpn && value.number == 0 && route.type() != POL_MATCH_SERVICE) break;
        line += fmt::format(",\"{}\":{}", field_word(field), text);
    }
  }
  return line + "}";
}

RouteSpace::RouteSpace(const Bounds& bounds) : bounds_(bounds) {
  for (uint32_t type = POL_MATCH_ROUTE; type <= POL_MATCH_SERVICE; ++type) {
    Atom atom;
    atom.kind = Atom::Kind::kValue;
    atom.value.number = type;
    types_[type - 1] = add(atom);
  }
}

RouteSpace::Slot& RouteSpace::slot_of(const Atom& atom) {
  Value group;
  if (atom.field == Field::kGroup) group = atom.value;
  auto slot = std::find_if(slots_.begin(), slots_.end(), [&](const Slot& each) {
    return each.field == atom.field && each.group == group;
  });
  if (slot != slots_.end()) return *slot;
  slots_.push_back({atom.field, group, {}, {}, {}});
  return slots_.back();
}

const ListModel* RouteSpace::canonical(const ListModel* list) {
  if (list == nullptr) return nullptr;
  auto [first, last] = lists_.equal_range({list->type, list->elements.size()});
  for (; first != last; ++first) {
    if (first->second == list || first->second->same_content(*list)) return first->second;
  }
  lists_.insert({{list->type, list->elements.size()}, list});
  return list;
}

size_t RouteSpace::add(Atom atom) {
  atom.list = canonical(atom.list);
  auto [found, made] = ids_.try_emplace(atom, atoms_.size());
  if (made) {
    atoms_.push_back(atom);
    slot_of(atom).atoms.push_back(found->second);
  }
  return found->second;
}

void RouteSpace::cut(size_t numbers) {
  std::vector<Slot*> order;
  for (Slot& slot : slots_) {
    std::vector<Atom> asked;
    asked.reserve(slot.atoms.size());
    for (size_t id : slot.atoms) asked.push_back(atoms_[id]);
    slot.classes = classes_of(slot.field, asked);
    order.push_back(&slot);
  }
  // The type is in every sequence.
  std::stable_sort(order.begin() + 1, order.end(), [](const Slot* a, const Slot* b) {
    return a->classes.members.size() > b->classes.members.size();
  });
  sets_.resize(atoms_.size());
  for (Slot* slot : order) {
    slot->bits = {bits_, bits_for(slot->classes.members.size())};
    bits_ += slot->bits.count;
  }
  for (size_t i = 0; i < slots_.size(); ++i) {
    for (size_t at = 0; at < slots_[i].atoms.size(); ++at) {
      sets_[slots_[i].atoms[at]] = {i, at, false, {}};
    }
  }
  if (numbers > 0) numbers_ = {bits_, std::max(bits_for(numbers), 1u)};
  table_ = std::make_unique<BddTable>(bits_ + numbers_.count, bounds_);
}

const RouteSet& RouteSpace::atom(size_t id) {
  Made& made = sets_[id];
  if (made.made) return made.set;
  const Slot& slot = slots_[made.slot];
  const auto last = static_cast<uint32_t>(slot.classes.members.size() - 1);
  const auto beyond = static_cast<uint32_t>((uint64_t{1} << slot.bits.count) - 1);
  std::vector<CodeRange> ranges;
  for (uint32_t code : slot.classes.of_atoms[made.at]) {
    uint32_t high = code == last ? beyond : code;
    if (!ranges.empty() && ranges.back().high + 1 == code) {
      ranges.back().high = high;
    } else {
      ranges.push_back({code, high});
    }
  }
  made.set = RouteSet::with(slot.bits, ranges);
  made.made = true;
  return made.set;
}

bool RouteSpace::holds(const Slot& slot, size_t at, uint32_t code) const {
  const std::vector<uint32_t>& classes = slot.classes.of_atoms[at];
  return std::binary_search(classes.begin(), classes.end(), code);
}

// The lists that hold a class. Of a name with two contents, those of an old and a new policy, it says
// which.
std::string RouteSpace::list_words(const Slot& slot, uint32_t code) const {
  std::map<std::string, std::vector<bool>> names;
  std::set<const ListModel*> seen;
  for (size_t at = 0; at < slot.atoms.size(); ++at) {
    const Atom& atom = atoms_[slot.atoms[at]];
    if (atom.kind != Atom::Kind::kList || atom.list == nullptr || !seen.insert(atom.list).second) {
      continue;
    }
    names[atom.list->name].push_back(holds(slot, at, code));
  }
  std::vector<std::string> texts;
  for (const auto& [name, held] : names) {
    auto count = std::count(held.begin(), held.end(), true);
    if (count == 0) continue;
    bool all = count == static_cast<ptrdiff_t>(held.size());
    texts.push_back(name + (all ? "" : held.front() ? " as it was" : " as it is"));
  }
  constexpr size_t kShown = 3;
  size_t more = texts.size() > kShown ? texts.size() - kShown : 0;
  texts.resize(texts.size() - more);
  if (texts.empty()) return "";
  std::string text = (texts.size() > 1 ? "lists " : "list ") + joined(texts, ", ");
  return more > 0 ? text + fmt::format(" and {} more", more) : text;
}

std::string RouteSpace::words(const Slot& slot, uint32_t code) const {
  const Value& value = slot.classes.members[code];
  const char* word = field_word(slot.field);
  if (slot.field == Field::kGroup) {
    return fmt::format("{}group {}", value.absent ? "not " : "",
                       static_cast<uint64_t>(slot.group.number));
  }
  std::string lists = list_words(slot, code);
  if (value.absent) {
    return fmt::format("no {}{}", word, lists.empty() ? "" : ", which counts as 0 in " + lists);
  }
  for (size_t at = 0; at < slot.atoms.size(); ++at) {
    const Atom& atom = atoms_[slot.atoms[at]];
    if (atom.kind == Atom::Kind::kValue && holds(slot, at, code)) {
      return fmt::format("{} {}", word, value_text(slot.field, value));
    }
  }
  if (!lists.empty()) return fmt::format("{} in {}", word, lists);
  for (size_t at = 0; at < slot.atoms.size(); ++at) {
    const Atom& atom = atoms_[slot.atoms[at]];
    bool named = atom.kind == Atom::Kind::kColor || atom.kind == Atom::Kind::kPrefixes ||
                 atom.kind == Atom::Kind::kNumbers;
    if (named && holds(slot, at, code)) {
      return fmt::format("{} {}", word, value_text(slot.field, value));
    }
  }
  bool any_list = std::any_of(slot.atoms.begin(), slot.atoms.end(),
                              [&](size_t id) { return atoms_[id].kind == Atom::Kind::kList; });
  return any_list ? fmt::format("{} in no list", word) : fmt::format("another {}", word);
}

ShownRoute RouteSpace::show(const RouteSet& set) const {
  std::vector<int8_t> bits = set.lowest(bits_);
  for (Field field : kDispensable) {
    for (const Slot& slot : slots_) {
      if (slot.field != field) continue;
      std::vector<int8_t> fewer = bits;
      std::fill_n(fewer.begin() + slot.bits.first, slot.bits.count, int8_t{-1});
      if (fewer != bits && set.holds_all(fewer)) bits = std::move(fewer);
    }
  }
  ShownRoute route;
  for (unsigned i = 0; i < kFields; ++i) {
    auto field = static_cast<Field>(i);
    route.values[i].absent = field != Field::kType && field != Field::kVpn;
  }
  route.values[0].number = POL_MATCH_ROUTE;
  for (const Slot& slot : slots_) {
    uint32_t code = 0;
    bool matters = false;
    for (unsigned i = 0; i < slot.bits.count; ++i) {
      int8_t bit = bits[slot.bits.first + i];
      code = code << 1 | static_cast<uint32_t>(bit == 1);
      matters = matters || bit != -1;
    }
    code = std::min(code, static_cast<uint32_t>(slot.classes.members.size() - 1));
    const Value& value = slot.classes.members[code];
    if (slot.field == Field::kType) {
      route.values[0] = value;
    } else if (!matters) {
      continue;
    } else if (slot.field != Field::kGroup) {
      route.values[static_cast<size_t>(slot.field)] = value;
    } else if (!value.absent) {
      route.groups.push_back(static_cast<uint32_t>(value.number));
    }
    if (matters && slot.field != Field::kType) route.matters.push_back(words(slot, code));
  }
  route.bits = std::move(bits);
  if (route.groups.size() > POL_MAX_GROUP) {
    throw NotKnown(fmt::format("it would take a route with {} groups, and one has at most {}",
                               route.groups.size(), POL_MAX_GROUP));
  }
  return route;
}

std::string RouteSpace::classes_text() const {
  std::vector<std::string> texts;
  for (const Slot& slot : slots_) {
    if (slot.field == Field::kType || slot.field == Field::kGroup) continue;
    texts.push_back(fmt::format("{} {}", field_word(slot.field), slot.classes.members.size()));
  }
  return joined(texts, ", ");
}

size_t RouteSpace::classes() const {
  return std::accumulate(slots_.begin(), slots_.end(), size_t{0}, [](size_t sum, const Slot& slot) {
    return sum + slot.classes.members.size();
  });
}

}  // namespace polctl
