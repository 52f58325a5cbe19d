/* SPDX-License-Identifier: Apache-2.0
 *
 * field_classes.h - the values of one field of a route, cut into classes: two values are alike when every
 * atom answers alike. Each class has a member to show.
 *
 * An atom is one question about one field: a clause's value, a list, a condition of a search. Ranges are
 * swept from end to end, and what holds at a point is told apart by a sum over its atoms of 128 bits each,
 * so that 100,000 elements cost little more than being sorted.
 */
#ifndef TOOL_PROOF_FIELD_CLASSES_H
#define TOOL_PROOF_FIELD_CLASSES_H

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "policy_model.h"

namespace polctl {

__extension__ using Wide = unsigned __int128;

enum class Field : uint8_t {
  kType,
  kPrefix,
  kVpn,
  kTag,
  kPreference,
  kDomain,
  kSite,
  kGroup, /* one of it for each group that is asked about: yes or no */
  kTloc,
  kOrigin,
  kOriginator,
  kCarrier
};
inline constexpr unsigned kFields = 12;

/* One value of a field; what the field has no use for is zero. */
struct Value {
  bool absent = false;
  uint8_t family = 0; /* of an address: 4 or 6 */
  uint8_t length = 0; /* of a prefix; of an origin: its sub-type */
  uint8_t color = 0;
  uint8_t encap = 0;
  Wide number = 0; /* an address: its bits as a number, without those beyond a prefix's length */

  // NOLINTNEXTLINE(modernize-use-nullptr): it looks into what the compiler writes
  auto operator<=>(const Value&) const = default;
};

Value value_of(const t_ipaddr& address);
Value value_of(const t_tloc_id& tloc);

/* A range of prefixes that a condition names: those within `base` of a length from `low` to `high`. */
struct PrefixRange {
  Value base;
  uint8_t low = 0;
  uint8_t high = 0;

  // NOLINTNEXTLINE(modernize-use-nullptr): it looks into what the compiler writes
  auto operator<=>(const PrefixRange&) const = default;
};

struct Atom {
  enum class Kind : uint8_t {
    kAbsent,
    kValue,    /* equal to `value`; of an origin by the rules of a match clause */
    kExact,    /* an origin that is this very pair */
    kNumbers,  /* a number from `value` to `high` */
    kPrefixes, /* in `prefixes` */
    kColor,    /* a TLOC of the color value.number */
    kList,     /* in `list`; a null one has nothing */
  };
  Field field = Field::kType;
  Kind kind = Kind::kAbsent;
  bool own_tloc =
      false; /* asked of a query's own TLOC, which counts as color 0 when it is absent */
  Value value;
  uint64_t high = 0;
  PrefixRange prefixes;
  const ListModel* list = nullptr;

  // NOLINTNEXTLINE(modernize-use-nullptr): it looks into what the compiler writes
  auto operator<=>(const Atom&) const = default;
};

struct FieldClasses {
  std::vector<Value> members; /* by class */
  std::vector<std::vector<uint32_t>>
      of_atoms; /* by atom, the classes in which it holds, ascending */
};

/* REQUIRES: atoms of this one field. */
FieldClasses classes_of(Field field, const std::vector<Atom>& atoms);

/* A prefix-list element as a box: the prefixes from `start` to `end`, of a length from `low` to `high`. */
struct PrefixBox {
  Wide start;
  Wide end;
  uint32_t atom;
  uint8_t low;
  uint8_t high;
};

/* The boxes of an element in one family (4, 6, or 0: no prefix at all, whose length is 0). */
std::optional<PrefixBox> box_of(const t_pol_pfx_record& element, uint8_t family, uint32_t atom);

/* Finds the class of what holds at a point, or makes it. */
class ClassMaker {
 public:
  struct Sum {
    uint64_t a = 0;
    uint64_t b = 0;
    void flip(uint32_t atom);
    bool operator==(const Sum&) const = default;
  };

  ClassMaker(size_t atoms, FieldClasses* classes) : classes_(*classes) {
    classes_.of_atoms.resize(atoms);
  }

  /* `holding` gives the atoms that hold there, each once; it is asked only for a new class. */
  template <class Holding>
  void point(const Sum& sum, const Value& member, Holding holding) {
    auto [found, made] = known_.try_emplace(sum, static_cast<uint32_t>(classes_.members.size()));
    if (!made) return;
    classes_.members.push_back(member);
    for (uint32_t atom : holding()) classes_.of_atoms[atom].push_back(found->second);
  }
  void reserve(size_t points) { known_.reserve(points); }

 private:
  struct Hash {
    size_t operator()(const Sum& sum) const { return sum.a; }
  };
  FieldClasses& classes_;
  std::unordered_map<Sum, uint32_t, Hash> known_;
};

/* The prefixes of one family, cut by boxes. */
void sweep_prefixes(std::vector<PrefixBox> boxes, uint8_t family, ClassMaker* maker);

}  // namespace polctl

#endif
