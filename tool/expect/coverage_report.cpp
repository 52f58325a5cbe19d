// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>

#include "coverage.h"
#include "host/address_text.h"
#include "policy/pol_graph.h"
#include "policy/pol_types.h"
#include "tool/flag_words.h"
#include "tool/json_line.h"
#include "tool/terminal.h"

namespace polctl {

namespace {

constexpr size_t kElementsShown = 3;  // of a list's that were not reached

struct Share {
  uint64_t reached = 0;
  uint64_t all = 0;

  void add(bool is_reached) {
    ++all;
    if (is_reached) ++reached;
  }
  double part() const {
    return all == 0 ? 1.0 : static_cast<double>(reached) / static_cast<double>(all);
  }
};

struct Shares {
  Share sequences;
  Share clauses;
  Share elements;
};

Shares shares_of(const Coverage& coverage) {
  Shares shares;
  for (const PolicyCoverage& policy : coverage.policies()) {
    for (const SequenceCoverage& sequence : policy.sequences) {
      shares.sequences.add(sequence.decided > 0);
      for (const ClauseCoverage& clause : sequence.clauses) shares.clauses.add(clause.held > 0);
    }
  }
  for (const ListCoverage& list : coverage.lists()) {
    shares.elements.reached += list.reached;
    shares.elements.all += list.elements.size();
  }
  return shares;
}

std::string share_text(const char* what, const Share& share) {
  // Never 100% unless all are.
  double percent = share.part() * 100.0;
  if (share.reached < share.all) percent = std::min(percent, 99.9);
  return fmt::format("{} {} of {} ({:.1f}%)", what, grouped(share.reached), grouped(share.all),
                     percent);
}

const char* list_word(uint32_t type) {
  switch (type) {
    case POL_GRAPH_SITE_LIST:
      return "site-list";
    case POL_GRAPH_VPN_LIST:
      return "vpn-list";
    case POL_GRAPH_TLOC_LIST:
      return "tloc-list";
    case POL_GRAPH_COLOR_LIST:
      return "color-list";
    default:
      return "prefix-list";
  }
}

const char* kind_word(uint32_t kind) {
  return kind == POL_KIND_ROUTE ? "control-policy" : "membership-policy";
}

std::string missing_text(const SequenceCoverage& sequence) {
  std::vector<std::string> parts;
  if (sequence.decided == 0) parts.emplace_back("decided nothing");
  for (const ClauseCoverage& each : sequence.clauses) {
    if (each.held > 0) continue;
    parts.push_back(fmt::format("{} {}", clause_word(each.clause),
                                each.failed > 0 ? "never held" : "was never tested"));
  }
  return joined(parts, ", ");
}

std::vector<std::string> not_reached(const ListCoverage& list, size_t most) {
  std::vector<std::string> texts;
  for (const auto& [words, reached] : list.elements) {
    if (!reached && texts.size() < most) texts.push_back(words);
  }
  return texts;
}

std::string share_json(const Share& share) {
  return fmt::format("{{\"reached\":{},\"all\":{},\"share\":{:.4f}}}", share.reached, share.all,
                     share.part());
}

std::string sequence_json(const PolicyCoverage& policy, const SequenceCoverage& sequence) {
  std::vector<std::string> clauses;
  for (const ClauseCoverage& each : sequence.clauses) {
    clauses.push_back(fmt::format("{{\"clause\":\"{}\",\"held\":{},\"failed\":{}}}",
                                  clause_word(each.clause), each.held, each.failed));
  }
  return fmt::format(
      "{{\"policy\":{},\"kind\":\"{}\",\"sequence\":{},\"decided\":{},\"clauses\":[{}]}}",
      json_string(policy.name), policy.kind == POL_KIND_ROUTE ? "route" : "membership",
      sequence.is_default ? "null" : sequence.name(), sequence.decided, joined(clauses, ","));
}

std::string list_json(const ListCoverage& list) {
  std::vector<std::string> elements;
  for (const std::string& each : not_reached(list, SIZE_MAX)) elements.push_back(json_string(each));
  return fmt::format(
      "{{\"type\":\"{}\",\"name\":{},\"elements\":{},\"reached\":{},\"not-reached\":[{}]}}",
      list_word(list.type), json_string(list.name), list.elements.size(), list.reached,
      joined(elements, ","));
}

}  // namespace

void write_coverage_text(const Coverage& coverage, Output* out) {
  Palette palette(out->fd());
  Shares shares = shares_of(coverage);
  out->print("\nreached: {}, {}, {}\n", share_text("sequences", shares.sequences),
             share_text("clauses", shares.clauses), share_text("list elements", shares.elements));
  Table sequences("llrl", {{"policy"}, {"kind"}, {"sequence"}, {"not reached"}});
  bool any = false;
  for (const PolicyCoverage& policy : coverage.policies()) {
    for (const SequenceCoverage& each : policy.sequences) {
      std::string missing = missing_text(each);
      if (missing.empty()) continue;
      any = true;
      sequences.add({{printable(policy.name)}, {kind_word(policy.kind)}, {each.name()}, {missing}});
    }
  }
  if (any) out->write("\n");
  if (any) sequences.print(out, palette);
  Table lists("llrrl", {{"list"}, {"kind"}, {"elements"}, {"reached"}, {"not reached"}});
  any = false;
  for (const ListCoverage& each : coverage.lists()) {
    size_t missing = each.elements.size() - each.reached;
    if (missing == 0) continue;
    any = true;
    std::string shown = joined(not_reached(each, kElementsShown), ", ");
    if (missing > kElementsShown) {
      shown += fmt::format(" and {} more", grouped(missing - kElementsShown));
    }
    lists.add({{printable(each.name)},
               {list_word(each.type)},
               {grouped(each.elements.size())},
               {grouped(each.reached)},
               {shown}});
  }
  if (any) out->write("\n");
  if (any) lists.print(out, palette);
}

void write_coverage_json(const Coverage& coverage, Output* out) {
  Shares shares = shares_of(coverage);
  std::vector<std::string> sequences;
  for (const PolicyCoverage& policy : coverage.policies()) {
    for (const SequenceCoverage& each : policy.sequences) {
      sequences.push_back(sequence_json(policy, each));
    }
  }
  std::vector<std::string> lists;
  for (const ListCoverage& each : coverage.lists()) lists.push_back(list_json(each));
  out->print("{{\"coverage\":{{\"sequences\":{},\"clauses\":{},\"elements\":{}}},",
             share_json(shares.sequences), share_json(shares.clauses), share_json(shares.elements));
  out->print("\"sequences\":[{}],\"lists\":[{}]}}\n", joined(sequences, ","), joined(lists, ","));
}

}  // namespace polctl
