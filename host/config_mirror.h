/* SPDX-License-Identifier: Apache-2.0
 *
 * config_mirror.h - what the agent has told so far, as far as a later change cannot be read without
 * it.
 *
 * A change carries only the leaves that changed, and a list only knows its ranges, not how often
 * they are spelled. Where a reader has to be given more than the change, it comes from here: the
 * state after a batch depends on the batches alone, and never on what the agent holds by now.
 */
#ifndef HOST_CONFIG_MIRROR_H
#define HOST_CONFIG_MIRROR_H

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "yarrow/yarrow_changes.h"

namespace polctl {

/* The tags of a container around a leaf, outermost first. */
using Scope = std::vector<uint32_t>;

/* The leaves of one entry as they now are. */
class LeafMirror {
 public:
  void merge(const t_yarrow_change& change);

  bool has(const Scope& scope, uint32_t tag) const { return leaves_.count({scope, tag}) != 0; }
  bool empty() const { return leaves_.empty(); }
  /* How many leaves of that tag there are, in whatever scope. */
  size_t count(uint32_t tag) const;
  /* How many leaves there are in containers of that tag. */
  size_t count_in(uint32_t container) const;

  /* All of it, as a change that creates the entry would carry it; valid until the next merge. */
  std::vector<t_yarrow_tag_value> values() const;

 private:
  struct Leaf {
    t_yarrow_tag_value value;
    std::vector<t_yarrow_value> elements; /* of a C_LIST */
    std::vector<std::string> texts;       /* of a C_BUF one, of a C_LIST of them one an element */
  };
  std::map<std::pair<Scope, uint32_t>, Leaf> leaves_;
};

/* Calls visit(scope, value) for each leaf of the change. */
template <typename Visit>
void for_each_leaf(const t_yarrow_change& change, Visit visit) {
  Scope scope;
  for (uint32_t i = 0; i < change.value_count; ++i) {
    const t_yarrow_tag_value& value = change.values[i];
    if (value.v.type == C_XMLBEGIN) {
      scope.push_back(value.tag);
    } else if (value.v.type == C_XMLEND) {
      if (!scope.empty()) scope.pop_back();
    } else {
      visit(scope, value);
    }
  }
}

/* One sequence of a control policy. */
struct SequenceMirror {
  LeafMirror leaves;
  std::map<uint32_t, LeafMirror> matches; /* by match type */
};

/* The bound leaves of a prefix-list member; negative: not there. */
struct BoundsMirror {
  int16_t length = -1;
  int16_t ge = -1;
  int16_t le = -1;
};

/* The names of what is configured, by the path of its list; of lists and policies alone, not of what
 * they hold. */
using ConfiguredNames = std::map<std::string_view, std::set<std::string>>;

struct ConfigMirror {
  using Sequences = std::map<uint16_t, SequenceMirror>;
  using Spellings =
      std::unordered_map<uint64_t, uint32_t>; /* low and high to members that say so */
  using Bounds = std::unordered_map<uint64_t, BoundsMirror>; /* by address and length; if any */

  /* By their keys, which they are. */
  using TlocMembers = std::map<std::string, std::array<t_yarrow_value, 3>>;

  std::map<std::string, Sequences> control_policies;
  std::map<std::string, Spellings> site_lists;
  std::map<std::string, Spellings> vpn_lists;
  std::map<std::string, TlocMembers> tloc_lists;
  std::map<std::string, Bounds> prefix_lists;
  ConfiguredNames names;
};

/* Notes that an entry of the list at `path` is there, or is gone; its name is key 0. */
void note_name(std::string_view path, const t_yarrow_change& change, ConfiguredNames* names);

/* A key that is a text. */
std::string text_key(const t_yarrow_change& change, uint32_t at);

/* The change with another operation and other values, which must live as long. */
t_yarrow_change with_values(const t_yarrow_change& change, uint32_t op,
                            const std::vector<t_yarrow_tag_value>& values);

}  // namespace polctl

#endif
