/* SPDX-License-Identifier: Apache-2.0
 *
 * route_space.h - all routes there can be, as far as some policies and conditions tell them apart.
 *
 * A route is what `eval --routes` takes: its type, a prefix or none, a VPN, and attributes each of which
 * it may lack. First every atom is added, then the space is cut; from then on each atom is a set of
 * routes. A class is a code in its field's bits; the codes beyond the last class count as the last, so
 * that every word of bits is a route. Fields with many classes come first, which keeps the sets of
 * policies whose lists hardly overlap small.
 *
 * One space at a time: it owns the table of decision diagrams (route_set.h).
 */
#ifndef TOOL_PROOF_ROUTE_SPACE_H
#define TOOL_PROOF_ROUTE_SPACE_H

#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "field_classes.h"
#include "route_set.h"

namespace polctl {

/* The types that a query is of. */
inline constexpr uint32_t kRouteTypes[] = {POL_MATCH_ROUTE, POL_MATCH_TLOC, POL_MATCH_SERVICE};

/* A route to show: what it lacks is absent. */
struct ShownRoute {
  std::array<Value, kFields> values; /* by Field; of groups those below */
  std::vector<uint32_t> groups;
  std::vector<std::string> matters; /* "prefix in list branch-lan", "tag 666" */
  std::vector<int8_t> bits;         /* of all routes that are alike in these */

  uint32_t type() const { return static_cast<uint32_t>(values[0].number); }
};

/* One line as RouteReader takes it. */
std::string route_json(const ShownRoute& route);

/* The name of a field in routes and conditions. */
const char* field_word(Field field);

class RouteSpace {
 public:
  explicit RouteSpace(const Bounds& bounds);

  /* The atom's id: equal ones have one, and so have lists with the same content. REQUIRES: not cut. */
  size_t add(Atom atom);
  /* Throws NotKnown, as all that follows. `numbers`: how many a RouteMap of the space is to tell apart. */
  void cut(size_t numbers = 0);
  BitField numbers() const { return numbers_; }

  const RouteSet& atom(size_t id);
  const RouteSet& type(uint32_t match_type) { return atom(types_[match_type - 1]); }

  /* A route of the set, which is not empty, in few words: of fields that do not matter it has as little
   * as can be. */
  ShownRoute show(const RouteSet& set) const;
  /* All routes of that set that are alike in what matters. */
  static RouteSet alike(const ShownRoute& route) { return RouteSet::agreeing(route.bits); }

  /* "prefix 317, tag 4": classes of the fields that are asked about. */
  std::string classes_text() const;
  size_t classes() const;

 private:
  struct Slot {
    Field field;
    Value group; /* of a slot for a group */
    std::vector<size_t> atoms;
    FieldClasses classes;
    BitField bits;
  };

  Slot& slot_of(const Atom& atom);
  const ListModel* canonical(const ListModel* list);
  std::string words(const Slot& slot, uint32_t code) const;
  std::string list_words(const Slot& slot, uint32_t code) const;
  bool holds(const Slot& slot, size_t at, uint32_t code) const;

  Bounds bounds_;
  std::vector<Atom> atoms_;
  std::map<Atom, size_t> ids_;
  std::multimap<std::pair<uint32_t, size_t>, const ListModel*> lists_; /* by type and size */
  std::vector<Slot> slots_;
  unsigned bits_ = 0; /* of a route */
  BitField numbers_;
  std::array<size_t, 3> types_ = {};
  std::unique_ptr<BddTable> table_;
  struct Made {
    size_t slot;
    size_t at; /* among the slot's atoms */
    bool made = false;
    RouteSet set;
  };
  std::vector<Made> sets_; /* by atom; goes before the table */
};

}  // namespace polctl

#endif
