// SPDX-License-Identifier: Apache-2.0
//
// Most changes go to their reader as they come. A difference alone does not say enough where a
// reader settles a whole from the leaves it is given, or where the library keeps one thing for
// several of the configuration:
//
// - a prefix member's operator follows from all its bounds, so it is given all of them;
// - two members of a site or VPN list may spell one range ("5" and "5-5"), which is deleted with the
//   last of them;
// - sequences of data policies keep copies of a TLOC list's members, which they lose with the members
//   but not with the list, so a list that goes loses its members first;
// - a TLOC that loses its color keeps its address, which the reader would drop; a service that loses
//   its TLOC has none, where the reader would keep 0.0.0.0; a sequence that names a TLOC list in two
//   places has one; a sequence has one match of its several, or none where the last was deleted.
//   Such a sequence is deleted and made anew.
#include "config_walk.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent_link.h"
#include "input_error.h"
#include "policy/pol_block.h"
#include "policy/pol_config_tags.h"

namespace polctl {

namespace {

// How a change reaches its reader.
enum class Way { kEntry, kRange, kTloc, kPrefix, kCollector, kSequence, kMatch };

}  // namespace

struct ConfigRow {
  std::string_view path;
  uint8_t level;
  Way way;
  t_pol_config_reader reader;
};

namespace {

constexpr ConfigRow kRows[] = {
    {"/policy/lists/site-list", 1, Way::kEntry, pol_config_policy_site_list_name},
    {"/policy/lists/site-list/site", 2, Way::kRange, pol_config_policy_site_list},
    {"/policy/lists/vpn-list", 1, Way::kEntry, pol_config_policy_vpn_list_name},
    {"/policy/lists/vpn-list/vpn", 2, Way::kRange, pol_config_policy_vpn_list},
    {"/policy/lists/tloc-list", 1, Way::kEntry, pol_config_policy_tloc_list_name},
    {"/policy/lists/tloc-list/tloc", 2, Way::kTloc, pol_config_policy_tloc_list},
    {"/policy/lists/color-list", 1, Way::kEntry, pol_config_policy_color_list_name},
    {"/policy/lists/color-list/color", 2, Way::kEntry, pol_config_policy_color_list},
    {"/policy/lists/prefix-list", 1, Way::kEntry, pol_config_policy_prefix_list_name},
    {"/policy/lists/prefix-list/prefix", 2, Way::kPrefix, pol_config_policy_prefix_list},
    {"/policy/lists/app-list", 1, Way::kEntry, pol_config_app_list_read},
    {"/policy/lists/app-list/app", 2, Way::kEntry, pol_config_app_list_app_read},
    {"/policy/lists/app-list/app-family", 2, Way::kEntry, pol_config_app_list_app_family_read},
    {"/policy/lists/data-prefix-list", 1, Way::kEntry, pol_config_fwd_pfx_list_read},
    {"/policy/lists/data-prefix-list/ip-prefix", 2, Way::kEntry, pol_config_fwd_pfx_list_ip_read},
    {"/policy/lists/data-ipv6-prefix-list", 1, Way::kEntry, pol_config_fwd_pfx6_list_read},
    {"/policy/lists/data-ipv6-prefix-list/ipv6-prefix", 2, Way::kEntry,
     pol_config_fwd_pfx6_list_ip_read},
    {"/policy/app-id", 1, Way::kEntry, pol_config_policy_app_id_read},
    {"/policy/sla-class", 1, Way::kEntry, pol_config_policy_sla_class_read},
    {"/policy/policer", 1, Way::kEntry, pol_config_fwd_policer_read},
    {"/policy/cflowd-template", 1, Way::kEntry, pol_config_cflowd_template_read},
    {"/policy/cflowd-template/collector", 2, Way::kCollector, pol_config_cflowd_collector_read},
    {"/policy/control-policy", 1, Way::kEntry, pol_config_control_policy_read},
    {"/policy/control-policy/sequence", 2, Way::kSequence, pol_config_control_policy_seq_read},
    {"/policy/control-policy/sequence/match", 3, Way::kMatch, pol_config_control_policy_match_read},
    {"/policy/membership-policy", 1, Way::kEntry, pol_config_membership_policy_read},
    {"/policy/membership-policy/sequence", 2, Way::kEntry, pol_config_membership_policy_seq_read},
};

const ConfigRow* row_of(const t_yarrow_change& change) {
  // A batch mostly stays with one path.
  thread_local const ConfigRow* last = &kRows[0];
  std::string_view path = change.path;
  if (last->path == path) return last;
  for (const ConfigRow& row : kRows) {
    if (row.path == path && row.level == change.level) return last = &row;
  }
  return nullptr;
}

const ConfigRow& row_of_match() {
  static const ConfigRow* row = std::find_if(std::begin(kRows), std::end(kRows),
                                             [](const auto& r) { return r.way == Way::kMatch; });
  return *row;
}

// A member's text as the readers take it: numbers cut to 32 bits, one number for both ends.
uint64_t range_of(const std::string& text) {
  char* end = nullptr;
  auto low = static_cast<uint32_t>(strtoull(text.c_str(), &end, 10));
  uint32_t high = *end == '-' ? static_cast<uint32_t>(strtoull(end + 1, nullptr, 10)) : low;
  return uint64_t{low} << 32 | high;
}

uint64_t prefix_of(const t_yarrow_value& key) {
  return uint64_t{key.val.ipv4prefix.ip} << 8 | key.val.ipv4prefix.len;
}

bool same_sequence(const t_yarrow_change& a, const t_yarrow_change& b) {
  return a.keys[1].val.u16 == b.keys[1].val.u16 && text_key(a, 0) == text_key(b, 0);
}

// Whether the difference of an entry with TLOCs leaves the reader with what is configured.
bool tlocs_told(const t_yarrow_change& change, const LeafMirror& now) {
  bool told = true;
  for_each_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value& leaf) {
    if (leaf.v.type != C_NOEXISTS || scope.empty() || scope.back() != POL_TAG_TLOC) return;
    bool of_service = scope.size() > 1 && scope[scope.size() - 2] == POL_TAG_SERVICE;
    if (of_service && leaf.tag == POL_TAG_ADDRESS) {
      Scope service(scope.begin(), scope.end() - 1);
      told = told && !now.has(service, POL_TAG_TYPE);
    } else if (!of_service && leaf.tag == POL_TAG_COLOR) {
      told = told && !now.has(scope, POL_TAG_ADDRESS);
    }
  });
  return told;
}

bool names_tloc_list(const t_yarrow_change& change) {
  bool found = false;
  for_each_leaf(change, [&](const Scope&, const t_yarrow_tag_value& leaf) {
    found = found || leaf.tag == POL_TAG_TLOC_LIST;
  });
  return found;
}

// An origin is told after its removal: a word without an effect would leave the old one in place.
std::vector<t_yarrow_tag_value> with_origin_removed(const t_yarrow_change& change) {
  std::vector<t_yarrow_tag_value> values;
  for (uint32_t i = 0; i < change.value_count; ++i) {
    const t_yarrow_tag_value& value = change.values[i];
    if (value.tag == POL_TAG_ORIGIN && value.v.type != C_NOEXISTS) {
      values.push_back(value);
      values.back().v = {};
      values.back().v.type = C_NOEXISTS;
    }
    values.push_back(value);
  }
  return values;
}

}  // namespace

void ConfigWalk::take(const t_yarrow_batch* batch) {
  bool tloc_lists = false;
  uint32_t count = yarrow_batch_count(batch);
  for (uint32_t at = 0; at < count;) {
    const t_yarrow_change& change = *yarrow_batch_change(batch, at);
    const ConfigRow* row = row_of(change);
    uint32_t next = at + 1;
    if (row == nullptr) {
      if (!forward_.take(change, &mirror_.names)) ++unread_;
    } else if (row->way == Way::kSequence) {
      next = take_sequence(*row, batch, at);
    } else {
      take_entry(*row, change);
      tloc_lists = tloc_lists || row->path.starts_with("/policy/lists/tloc-list");
    }
    at = next;
  }
  changes_ += count;
  if (tloc_lists) pol_config_update_tloc_list(nullptr, ctx_);
}

void ConfigWalk::take_entry(const ConfigRow& row, const t_yarrow_change& change) {
  if (row.level == 1) note_name(row.path, change, &mirror_.names);
  // Only something in it changed; a member's reader would take this for a member without leaves.
  if (change.op == YARROW_MODIFIED && change.value_count == 0) return;
  if (row.way == Way::kRange) return take_range(row, change);
  if (row.way == Way::kTloc) return take_tloc(row, change);
  if (row.way == Way::kPrefix) return take_prefix(row, change);
  if (row.way == Way::kCollector) return take_collector(row, change);
  if (change.op == YARROW_DELETED && row.level == 1) forget(row, change);
  hand(row, change);
}

void ConfigWalk::take_tloc(const ConfigRow& row, const t_yarrow_change& change) {
  auto& members = mirror_.tloc_lists[text_key(change, 0)];
  const t_yarrow_value& address = change.keys[1];
  size_t size = address.type == C_IPV4 ? sizeof address.val.ip : sizeof address.val.ip6;
  std::string key(reinterpret_cast<const char*>(&address.val), size);
  for (uint32_t i = 2; i < 4; ++i) key += std::to_string(change.keys[i].val.enumvalue) + ' ';
  if (change.op == YARROW_DELETED) {
    members.erase(key);
  } else {
    members[key] = {address, change.keys[2], change.keys[3]};
  }
  hand(row, change);
}

void ConfigWalk::empty_tloc_list(const t_yarrow_change& change) {
  const ConfigRow* row = std::find_if(std::begin(kRows), std::end(kRows),
                                      [](const auto& r) { return r.way == Way::kTloc; });
  for (const auto& [key, member] : mirror_.tloc_lists[text_key(change, 0)]) {
    t_yarrow_value keys[4] = {change.keys[0], member[0], member[1], member[2]};
    t_yarrow_change gone = with_values(change, YARROW_DELETED, {});
    gone.level = row->level;
    gone.keys = keys;
    gone.key_count = 4;
    hand(*row, gone);
  }
  mirror_.tloc_lists.erase(text_key(change, 0));
}

// The reader ends the process for a collector without its template.
void ConfigWalk::take_collector(const ConfigRow& row, const t_yarrow_change& change) {
  std::string name = text_key(change, 0);
  if (pol_block_find(ctx_, name.c_str(), POL_KIND_CFLOWD, nullptr) != nullptr) hand(row, change);
}

void ConfigWalk::forget(const ConfigRow& row, const t_yarrow_change& change) {
  std::string name = text_key(change, 0);
  if (row.reader == pol_config_policy_site_list_name) mirror_.site_lists.erase(name);
  if (row.reader == pol_config_policy_vpn_list_name) mirror_.vpn_lists.erase(name);
  if (row.reader == pol_config_policy_tloc_list_name) empty_tloc_list(change);
  if (row.reader == pol_config_policy_prefix_list_name) mirror_.prefix_lists.erase(name);
  if (row.reader == pol_config_control_policy_read) mirror_.control_policies.erase(name);
}

void ConfigWalk::take_range(const ConfigRow& row, const t_yarrow_change& change) {
  bool sites = row.reader == pol_config_policy_site_list;
  auto& spellings = (sites ? mirror_.site_lists : mirror_.vpn_lists)[text_key(change, 0)];
  uint64_t range = range_of(text_key(change, 1));
  if (change.op == YARROW_CREATED && ++spellings[range] > 1) return;
  if (change.op == YARROW_DELETED) {
    if (--spellings[range] > 0) return;
    spellings.erase(range);
  }
  hand(row, change);
}

void ConfigWalk::take_prefix(const ConfigRow& row, const t_yarrow_change& change) {
  auto& members = mirror_.prefix_lists[text_key(change, 0)];
  uint64_t prefix = prefix_of(change.keys[1]);
  if (change.op == YARROW_DELETED) {
    members.erase(prefix);
    return hand(row, change);
  }
  if (change.value_count == 0) return hand(row, change);
  BoundsMirror& bounds = members[prefix];
  struct Bound {
    uint32_t tag;
    int16_t* value;
  };
  const Bound all[] = {
      {POL_TAG_LENGTH, &bounds.length}, {POL_TAG_GE, &bounds.ge}, {POL_TAG_LE, &bounds.le}};
  for_each_leaf(change, [&](const Scope&, const t_yarrow_tag_value& leaf) {
    for (const Bound& bound : all) {
      if (leaf.tag != bound.tag) continue;
      *bound.value = leaf.v.type == C_NOEXISTS ? int16_t{-1} : int16_t{leaf.v.val.u8};
    }
  });
  std::vector<t_yarrow_tag_value> values;
  for (const Bound& bound : all) {
    if (*bound.value < 0) continue;
    t_yarrow_tag_value value = {};
    value.tag = bound.tag;
    value.v.type = C_UINT8;
    value.v.val.u8 = static_cast<uint8_t>(*bound.value);
    values.push_back(value);
  }
  if (values.empty()) members.erase(prefix);
  hand(row, with_values(change, change.op, values));
}

// Takes a sequence's change and those of its matches, which follow it. Returns the index after them.
uint32_t ConfigWalk::take_sequence(const ConfigRow& row, const t_yarrow_batch* batch, uint32_t at) {
  const t_yarrow_change& head = *yarrow_batch_change(batch, at);
  const ConfigRow& match_row = row_of_match();
  std::vector<const t_yarrow_change*> matches;
  for (uint32_t i = at + 1; i < yarrow_batch_count(batch); ++i) {
    const t_yarrow_change* change = yarrow_batch_change(batch, i);
    if (change->path != match_row.path || !same_sequence(*change, head)) break;
    matches.push_back(change);
  }
  uint32_t next = at + 1 + static_cast<uint32_t>(matches.size());
  ConfigMirror::Sequences& sequences = mirror_.control_policies[text_key(head, 0)];
  uint16_t number = head.keys[1].val.u16;
  if (head.op == YARROW_DELETED) {
    sequences.erase(number);
    hand(row, head);
    return next;
  }

  SequenceMirror& sequence = sequences[number];
  size_t matches_before = sequence.matches.size();
  size_t lists_before = sequence.leaves.count(POL_TAG_TLOC_LIST);
  sequence.leaves.merge(head);
  bool told = tlocs_told(head, sequence.leaves);
  size_t lists = std::max(lists_before, sequence.leaves.count(POL_TAG_TLOC_LIST));
  if (lists > 1 && names_tloc_list(head)) told = false;
  for (const t_yarrow_change* change : matches) {
    uint32_t type = change->keys[2].val.enumvalue;
    if (change->op == YARROW_DELETED) {
      sequence.matches.erase(type);
    } else {
      LeafMirror& match = sequence.matches[type];
      match.merge(*change);
      told = told && tlocs_told(*change, match);
    }
  }
  size_t matches_after = sequence.matches.size();
  bool lost = matches_before == 1 && matches_after == 0;
  if (!matches.empty() && (matches_before > 1 || matches_after > 1 || lost)) told = false;

  // Of several matches the one of the highest type is in force: the order is ours, not the agent's.
  std::stable_sort(matches.begin(), matches.end(), [](const auto* a, const auto* b) {
    auto rank = [](const t_yarrow_change& change) {
      return change.op == YARROW_DELETED ? 0 : 1 + uint64_t{change.keys[2].val.enumvalue};
    };
    return rank(*a) < rank(*b);
  });
  if (head.op == YARROW_MODIFIED && !told) {
    retell(head, sequence);
    return next;
  }
  if (head.op == YARROW_CREATED || head.value_count > 0) hand(row, head);
  for (const t_yarrow_change* change : matches) {
    std::vector<t_yarrow_tag_value> values = with_origin_removed(*change);
    hand(match_row, with_values(*change, change->op, values));
  }
  return next;
}

void ConfigWalk::retell(const t_yarrow_change& head, const SequenceMirror& sequence) {
  const ConfigRow& row = *row_of(head);
  hand(row, with_values(head, YARROW_DELETED, {}));
  std::vector<t_yarrow_tag_value> values = sequence.leaves.values();
  hand(row, with_values(head, YARROW_CREATED, values));
  for (const auto& [type, match] : sequence.matches) {
    t_yarrow_value keys[3] = {head.keys[0], head.keys[1], {}};
    keys[2].type = C_ENUM_VALUE;
    keys[2].val.enumvalue = type;
    values = match.values();
    t_yarrow_change made = with_values(head, YARROW_CREATED, values);
    made.level = row_of_match().level;
    made.keys = keys;
    made.key_count = 3;
    hand(row_of_match(), made);
  }
}

void ConfigWalk::hand(const ConfigRow& row, const t_yarrow_change& change) {
  // A reader's status tells of a range that the schema lets through and it cannot read, or of memory
  // that has run out; the rest of the batch stands either way.
  row.reader(nullptr, ctx_, change.op, row.level, change.keys, change.value_count, change.values);
}

ConfigFeed::ConfigFeed(uint16_t port) : sock_(agent_socket()) {
  sockaddr_in address = agent_address(port);
  if (yarrow_sub_connect(sock_, reinterpret_cast<const sockaddr*>(&address), sizeof address,
                         "/policy", YARROW_SUB_INITIAL) != YARROW_OK) {
    std::string problem = agent_problem();
    close(sock_);
    throw InputError(
        fmt::format("agent at port {}: error: {} (expected a running yarrowd)", port, problem));
  }
}

ConfigFeed::~ConfigFeed() { close(sock_); }

ConfigFeed::Batch ConfigFeed::read(int timeout_ms) {
  t_yarrow_batch* batch = nullptr;
  int status = yarrow_sub_read(sock_, timeout_ms, &batch);
  if (status == YARROW_ERR) {
    throw InputError(fmt::format("agent: error: {} (expected its changes)", agent_problem()));
  }
  return Batch(batch);
}

int64_t ConfigFeed::next(int timeout_ms, ConfigWalk* walk) {
  Batch batch = read(timeout_ms);
  if (!batch) return -1;
  walk->take(batch.get());
  return static_cast<int64_t>(yarrow_batch_count(batch.get()));
}

}  // namespace polctl
