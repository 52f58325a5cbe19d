// SPDX-License-Identifier: Apache-2.0
#include "config_findings.h"

#include <fmt/format.h>

#include <map>
#include <string_view>
#include <utility>

#include "address_text.h"
#include "config_mirror.h"
#include "policy/pol_types.h"
#include "policy/pol_util.h"
#include "yarrow/yarrow_schema.h"

namespace polctl {

namespace {

constexpr std::string_view kLists = "/policy/lists/";

struct Family {
  std::string_view name;
  uint32_t tag; /* of the leaves that name such a list */
  size_t bytes; /* of a name that count */
};

constexpr Family kFamilies[] = {
    {"site-list", 0x6d6fa00b, POL_LIST_NAME_SIZE - 1},
    {"vpn-list", 0x6aebf6e6, POL_LIST_NAME_SIZE - 1},
    {"tloc-list", 0x72d28bfe, POL_LIST_NAME_SIZE - 1},
    {"color-list", 0x3129eae5, POL_LIST_NAME_SIZE - 1},
    {"prefix-list", 0x5dc389d2, POL_LIST_NAME_SIZE - 1},
};

struct Sequence {
  std::string path;
  uint32_t match_type = 0;
  bool has_clauses = false;
};

struct Reader {
  std::map<std::pair<std::string_view, std::string>, uint64_t> members;  // by family and name
  struct Naming {
    std::string_view family;
    std::string list;
    std::string path;
  };
  std::vector<Naming> namings;
  std::map<std::string, std::map<uint16_t, Sequence>> policies;  // by the policy's path
  std::vector<ConfigFinding> findings;

  void take(const t_yarrow_change& change);
  void take_list(const t_yarrow_change& change);
  void take_sequence(const t_yarrow_change& change, bool membership);
  void take_names(const t_yarrow_change& change, const std::string& path);
  void check_length(const std::string& path, std::string_view name, size_t bytes);
  void finish();
  void judge_sequences(const std::map<uint16_t, Sequence>& sequences);
};

std::string text_of(const t_yarrow_value& value) {
  return {reinterpret_cast<const char*>(value.val.buf.ptr), value.val.buf.size};
}

// A key as the agent's paths write it.
std::string key_text(const std::string& name) {
  if (!name.empty() && name.find_first_of(" {}\"\\") == std::string::npos) return name;
  std::string quoted = "\"";
  for (char c : name) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

const t_yarrow_cs_node* child_with(const t_yarrow_cs_node* node, uint32_t tag) {
  const t_yarrow_cs_node* child = node != nullptr ? node->children : nullptr;
  while (child != nullptr && child->tag != tag) child = child->next;
  return child;
}

void Reader::check_length(const std::string& path, std::string_view name, size_t bytes) {
  if (name.size() <= bytes) return;
  findings.push_back({path, fmt::format("the name has {} bytes, of which the first {} count: names "
                                        "that begin alike become one",
                                        name.size(), bytes)});
}

void Reader::take(const t_yarrow_change& change) {
  std::string_view path = change.path;
  if (path.starts_with(kLists)) return take_list(change);
  bool control = path.starts_with("/policy/control-policy");
  bool membership = path.starts_with("/policy/membership-policy");
  if (!control && !membership) return;
  if (change.level > 1) return take_sequence(change, membership);
  std::string name = text_of(change.keys[0]);
  check_length(fmt::format("{}{{{}}}", path, key_text(name)), name, POL_NAME_SIZE - 1);
}

void Reader::take_list(const t_yarrow_change& change) {
  std::string_view below = std::string_view(change.path).substr(kLists.size());
  for (const Family& family : kFamilies) {
    if (!below.starts_with(family.name)) continue;
    std::string name = text_of(change.keys[0]);
    uint64_t& count = members[{family.name, name}];
    if (change.level > 1) {
      ++count;
    } else {
      check_length(fmt::format("{}{}{{{}}}", kLists, family.name, key_text(name)), name,
                   family.bytes);
    }
  }
}

void Reader::take_sequence(const t_yarrow_change& change, bool membership) {
  std::string policy = fmt::format("/policy/{}-policy{{{}}}", membership ? "membership" : "control",
                                   key_text(text_of(change.keys[0])));
  uint16_t number = change.keys[1].val.u16;
  Sequence& sequence = policies[policy][number];
  if (sequence.path.empty()) sequence.path = fmt::format("{}/sequence{{{}}}", policy, number);
  if (change.level == 2) {
    take_names(change, sequence.path);
    if (!membership) return;
    sequence.match_type = POL_MATCH_SERVICE;
    // The action is not in a container that clauses stand in.
    for_each_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value&) {
      const t_yarrow_cs_node* node = yarrow_cs_node_cd(nullptr, "%s", change.path);
      const t_yarrow_cs_node* around = scope.empty() ? nullptr : child_with(node, scope[0]);
      if (around != nullptr && std::string_view(around->name) == "match")
        sequence.has_clauses = true;
    });
    return;
  }
  uint32_t type = change.keys[2].val.enumvalue + 1;
  take_names(change, fmt::format("{}/match{{{}}}", sequence.path, pol_util_match_type_str(type)));
  if (sequence.match_type > type) return;  // the highest type is in force
  sequence.match_type = type;
  sequence.has_clauses = change.value_count > 0;
}

void Reader::take_names(const t_yarrow_change& change, const std::string& path) {
  for_each_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value& leaf) {
    for (const Family& family : kFamilies) {
      if (leaf.tag != family.tag || leaf.v.type != C_BUF) continue;
      std::string at = path;
      const t_yarrow_cs_node* node = yarrow_cs_node_cd(nullptr, "%s", change.path);
      for (uint32_t tag : scope) {
        node = child_with(node, tag);
        if (node != nullptr) at += fmt::format("/{}", node->name);
      }
      namings.push_back({family.name, text_of(leaf.v), fmt::format("{}/{}", at, family.name)});
    }
  });
}

void Reader::judge_sequences(const std::map<uint16_t, Sequence>& sequences) {
  std::map<uint32_t, uint16_t> taken;  // by match type, the sequence that takes all there is
  for (const auto& [number, sequence] : sequences) {
    if (sequence.match_type == 0) {
      findings.push_back({sequence.path, "never decides: it has no match"});
      continue;
    }
    auto earlier = taken.find(sequence.match_type);
    if (earlier != taken.end()) {
      findings.push_back({sequence.path, fmt::format("never reached: sequence {} takes everything",
                                                     earlier->second)});
    } else if (!sequence.has_clauses) {
      taken[sequence.match_type] = number;
    }
  }
}

void Reader::finish() {
  for (const auto& [key, count] : members) {
    if (count > 0) continue;
    findings.push_back({fmt::format("{}{}{{{}}}", kLists, key.first, key_text(key.second)),
                        fmt::format("{} {} is never filled", key.first, in_quotes(key.second))});
  }
  for (const Naming& naming : namings) {
    if (members.count({naming.family, naming.list}) != 0) continue;
    findings.push_back({naming.path, fmt::format("{} {} is named, but absent", naming.family,
                                                 in_quotes(naming.list))});
  }
  for (const auto& [path, sequences] : policies) judge_sequences(sequences);
}

}  // namespace

std::vector<ConfigFinding> findings_in(const t_yarrow_batch* batch) {
  Reader reader;
  for (uint32_t i = 0; i < yarrow_batch_count(batch); ++i)
    reader.take(*yarrow_batch_change(batch, i));
  reader.finish();
  return std::move(reader.findings);
}

}  // namespace polctl
