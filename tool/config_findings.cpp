// SPDX-License-Identifier: Apache-2.0
#include "config_findings.h"

#include <fmt/format.h>

#include <map>
#include <string_view>
#include <utility>

#include "host/address_text.h"
#include "host/config_mirror.h"
#include "policy/pol_config_tags.h"
#include "policy/pol_types.h"
#include "policy/pol_util.h"
#include "yarrow/yarrow_schema.h"

namespace polctl {

namespace {

constexpr size_t kNameBytes = POL_LIST_NAME_SIZE - 1; /* of an object's name that count */

/* Objects that policies name. */
struct Family {
  std::string_view name;
  std::string_view path;
  bool has_members;
};

constexpr Family kFamilies[] = {
    {"site-list", "/policy/lists/site-list", true},
    {"vpn-list", "/policy/lists/vpn-list", true},
    {"tloc-list", "/policy/lists/tloc-list", true},
    {"color-list", "/policy/lists/color-list", true},
    {"prefix-list", "/policy/lists/prefix-list", true},
    {"app-list", "/policy/lists/app-list", true},
    {"data-prefix-list", "/policy/lists/data-prefix-list", true},
    {"data-ipv6-prefix-list", "/policy/lists/data-ipv6-prefix-list", true},
    {"sla-class", "/policy/sla-class", false},
    {"policer", "/policy/policer", false},
};

/* Leaves of policies that name an object, by their tag. */
struct NamingLeaf {
  uint32_t tag;
  std::string_view family;
};

constexpr NamingLeaf kNamingLeaves[] = {
    {POL_TAG_SITE_LIST, "site-list"},
    {POL_TAG_VPN_LIST, "vpn-list"},
    {POL_TAG_TLOC_LIST, "tloc-list"},
    {POL_TAG_COLOR_LIST, "color-list"},
    {POL_TAG_PREFIX_LIST, "prefix-list"},
    {POL_TAG_APP_LIST, "app-list"},
    {POL_TAG_DNS_APP_LIST, "app-list"},
    {POL_TAG_SAAS_APP_LIST, "app-list"},
    {POL_TAG_SOURCE_DATA_PREFIX_LIST, "data-prefix-list"},
    {POL_TAG_DESTINATION_DATA_PREFIX_LIST, "data-prefix-list"},
    {POL_TAG_SOURCE_DATA_IPV6_PREFIX_LIST, "data-ipv6-prefix-list"},
    {POL_TAG_DESTINATION_DATA_IPV6_PREFIX_LIST, "data-ipv6-prefix-list"},
    {POL_TAG_SLA_CLASS, "sla-class"},
    {POL_TAG_POLICER, "policer"},
};

bool under(std::string_view path, std::string_view top) {
  return path.starts_with(top) && (path.size() == top.size() || path[top.size()] == '/');
}

struct Sequence {
  std::string path;
  uint32_t match_type = 0;
  bool has_clauses = false;
};

struct Reader {
  struct Object {
    const Family* family = nullptr;
    uint64_t members = 0;
  };
  std::map<std::pair<std::string_view, std::string>, Object> objects;  // by family and name
  struct Naming {
    std::string_view family;
    std::string name;
    std::string path;
  };
  std::vector<Naming> namings;
  std::map<std::string, std::map<uint16_t, Sequence>> policies;  // by the policy's path
  std::vector<ConfigFinding> findings;

  void take(const t_yarrow_change& change);
  void take_object(const Family& family, const t_yarrow_change& change);
  void take_forwarding(const char* kind, const t_yarrow_change& change);
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
  for (const Family& family : kFamilies) {
    if (under(path, family.path)) return take_object(family, change);
  }
  if (under(path, "/policy/data-policy")) return take_forwarding("data", change);
  if (under(path, "/policy/app-route-policy")) return take_forwarding("app-route", change);
  bool control = path.starts_with("/policy/control-policy");
  bool membership = path.starts_with("/policy/membership-policy");
  if (!control && !membership) return;
  if (change.level > 1) return take_sequence(change, membership);
  std::string name = text_of(change.keys[0]);
  check_length(fmt::format("{}{{{}}}", path, key_text(name)), name, POL_NAME_SIZE - 1);
}

void Reader::take_object(const Family& family, const t_yarrow_change& change) {
  std::string name = text_of(change.keys[0]);
  Object& object = objects[{family.name, name}];
  object.family = &family;
  if (change.level > 1) {
    ++object.members;
  } else {
    check_length(fmt::format("{}{{{}}}", family.path, key_text(name)), name, kNameBytes);
  }
}

// A policy, a VPN list of it or a sequence in that.
void Reader::take_forwarding(const char* kind, const t_yarrow_change& change) {
  std::string name = text_of(change.keys[0]);
  std::string path = fmt::format("/policy/{}-policy{{{}}}", kind, key_text(name));
  if (change.level == 1) return check_length(path, name, POL_NAME_SIZE - 1);
  std::string vpn_list = text_of(change.keys[1]);
  path += fmt::format("/vpn-list{{{}}}", key_text(vpn_list));
  if (change.level == 2) {
    namings.push_back({"vpn-list", vpn_list, path});
  } else {
    path += fmt::format("/sequence{{{}}}", change.keys[2].val.u16);
  }
  take_names(change, path);
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
    for (const NamingLeaf& naming : kNamingLeaves) {
      if (leaf.tag != naming.tag) continue;
      std::string at = path;
      const t_yarrow_cs_node* node = yarrow_cs_node_cd(nullptr, "%s", change.path);
      for (uint32_t tag : scope) {
        node = child_with(node, tag);
        if (node != nullptr) at += fmt::format("/{}", node->name);
      }
      node = child_with(node, leaf.tag);
      if (node != nullptr) at += fmt::format("/{}", node->name);
      if (leaf.v.type == C_BUF) namings.push_back({naming.family, text_of(leaf.v), at});
      for (uint32_t i = 0; leaf.v.type == C_LIST && i < leaf.v.val.list.size; ++i) {
        namings.push_back({naming.family, text_of(leaf.v.val.list.ptr[i]), at});
      }
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
  for (const auto& [key, object] : objects) {
    if (object.members > 0 || !object.family->has_members) continue;
    findings.push_back({fmt::format("{}{{{}}}", object.family->path, key_text(key.second)),
                        fmt::format("{} {} is never filled", key.first, in_quotes(key.second))});
  }
  for (const Naming& naming : namings) {
    if (objects.count({naming.family, naming.name}) != 0) continue;
    findings.push_back({naming.path, fmt::format("{} {} is named, but absent", naming.family,
                                                 in_quotes(naming.name))});
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
