// SPDX-License-Identifier: Apache-2.0
#include "verdict_writer.h"

#include <fmt/format.h>

#include <algorithm>

#include "flag_words.h"
#include "host/address_text.h"
#include "json_line.h"
#include "policy/pol_util.h"

namespace polctl {

namespace {

constexpr uint32_t kShownInText = 4;  // TLOCs or VPN ranges in a line for people

void write_words(const std::vector<const char*>& words, Output* out) {
  const char* separator = "";
  for (const char* word : words) {
    out->print("{}\"{}\"", separator, word);
    separator = ",";
  }
}

// The sequence that decided, or null for the default action.
void write_sequence(const t_pol_explain_step& step, Output* out) {
  if (step.is_default != 0) {
    out->write("\"sequence\":null");
  } else {
    out->print("\"sequence\":{}", step.sequence);
  }
}

void write_tlocs(const t_pol_tloc_result& tlocs, Output* out) {
  for (uint32_t i = 0; i < tlocs.count; ++i) {
    const t_pol_tloc_result_entry& entry = tlocs.entry[i];
    out->print("{}{{\"address\":\"{}\",\"color\":{},\"encap\":{},\"label\":{},\"preference\":{}}}",
               i == 0 ? "" : ",", tloc_address_text(entry.tloc), unsigned{entry.tloc.color},
               unsigned{entry.tloc.encap}, entry.label, entry.preference);
  }
}

void write_steps(const std::vector<Step>& steps, Output* out) {
  const char* separator = "";
  for (const Step& each : steps) {
    out->print("{}{{", separator);
    separator = ",";
    write_sequence(each.step, out);
    out->print(",\"decided\":{}", each.step.decided != 0);
    if (each.step.decided != 0) {
      out->print(",\"action\":\"{}\"", pol_util_action_str(each.step.action));
    } else {
      out->print(",\"clause\":\"{}\"", clause_word(each.step.clause));
    }
    if (!each.reason.empty()) out->print(",\"reason\":{}", json_string(each.reason));
    out->write("}");
  }
}

// "a, b, c, d and 3 more"
template <typename TextOf>
std::string shortened(uint32_t count, uint32_t most, TextOf text_of) {
  std::string text;
  for (uint32_t i = 0; i < std::min(count, most); ++i) {
    text += fmt::format("{}{}", i == 0 ? "" : ", ", text_of(i));
  }
  if (count > most) text += fmt::format(" and {} more", count - most);
  return text;
}

std::string tlocs_shown(const t_pol_route_query& query, uint32_t most) {
  const t_pol_tloc_result& tlocs = *query.tlocs;
  return shortened(tlocs.count, most, [&](uint32_t i) { return tloc_text(tlocs.entry[i].tloc); });
}

std::string vpns_shown(const t_pol_route_query& query, uint32_t most) {
  return shortened(query.vpn_count, most, [&](uint32_t i) {
    const t_pol_vpn_range& range = query.vpn_array[i];
    return range.low == range.high ? fmt::format("{}", range.low)
                                   : fmt::format("{}-{}", range.low, range.high);
  });
}

std::string sets_text(const t_pol_route_query& query) {
  std::vector<std::string> parts;
  if ((query.applied & POL_APPLIED_TAG) != 0) {
    parts.push_back(fmt::format("tag {}", query.attr_copy.tag));
  }
  if ((query.applied & POL_APPLIED_PREF) != 0) {
    parts.push_back(fmt::format("preference {}", query.attr_copy.preference));
  }
  if (query.tlocs->count > 0) {
    parts.push_back(fmt::format("tloc {}", tlocs_shown(query, kShownInText)));
  }
  if (query.vpn_count > 0) {
    parts.push_back(fmt::format("vpn {}", vpns_shown(query, kShownInText)));
  }
  return joined(parts, ", ");
}

std::string decider_text(const t_pol_explain_step& decision) {
  return decision.is_default != 0 ? "default action"
                                  : fmt::format("sequence {}", decision.sequence);
}

}  // namespace

std::string route_text(const Verdict& verdict) {
  const t_pol_route_query& query = *verdict.query;
  std::string text;
  if (query.match_type != POL_MATCH_ROUTE) {
    text = fmt::format("{} ", pol_util_match_type_str(query.match_type));
  }
  if (query.prefix.addr.family != 0 && query.match_type != POL_MATCH_TLOC) {
    return text + prefix_text(query.prefix);
  }
  if (query.tloc.family != 0) return text + tloc_text(query.tloc);
  return text + fmt::format("#{}", verdict.index);
}

std::string tlocs_text(const t_pol_route_query& query) { return tlocs_shown(query, UINT32_MAX); }

std::string vpns_text(const t_pol_route_query& query) { return vpns_shown(query, UINT32_MAX); }

void write_json(const Verdict& verdict, Output* out) {
  const t_pol_route_query& query = *verdict.query;
  std::vector<const char*> words;
  out->print("{{\"index\":{},\"action\":\"{}\",", verdict.index,
             pol_util_action_str(verdict.action));
  write_sequence(verdict.decision, out);
  out->write(",\"matched\":[");
  matched_words(query.matched, &words);
  write_words(words, out);
  out->write("],\"applied\":[");
  applied_words(query.applied, &words);
  write_words(words, out);
  out->write("],\"set\":{");
  bool tag = (query.applied & POL_APPLIED_TAG) != 0;
  if (tag) out->print("\"tag\":{}", query.attr_copy.tag);
  if ((query.applied & POL_APPLIED_PREF) != 0) {
    out->print("{}\"preference\":{}", tag ? "," : "", query.attr_copy.preference);
  }
  out->write("},\"tlocs\":[");
  write_tlocs(*query.tlocs, out);
  out->write("],\"vpns\":[");
  for (uint32_t i = 0; i < query.vpn_count; ++i) {
    const t_pol_vpn_range& range = query.vpn_array[i];
    out->print("{}[{},{}]", i == 0 ? "" : ",", range.low, range.high);
  }
  out->write("]");
  if (!verdict.steps.empty()) {
    out->write(",\"steps\":[");
    write_steps(verdict.steps, out);
    out->write("]");
  }
  out->write("}\n");
}

std::vector<Table::Cell> verdict_heading() {
  return {{"route"}, {"action"}, {"decided by"}, {"sets"}};
}

std::vector<Table::Cell> verdict_row(const Verdict& verdict) {
  // Only a set TLOC that leads nowhere rejects once something was applied.
  bool unresolved = verdict.action == POL_REJECT && verdict.query->applied != 0;
  return {{route_text(verdict)},
          {pol_util_action_str(verdict.action), action_colour(verdict.action)},
          {decider_text(verdict.decision)},
          {unresolved ? "nothing: no TLOC that it sets resolves" : sets_text(*verdict.query)}};
}

void write_explanation(const Verdict& verdict, Output* out, const Palette& palette) {
  out->print("{}\n", palette.paint(Colour::Bold, route_text(verdict)));
  constexpr size_t kNameWidth = 16;
  for (const Step& each : verdict.steps) {
    std::string name = decider_text(each.step);
    out->print("  {:<{}}", name, kNameWidth);
    if (each.step.decided == 0) {
      out->print("no: {} ({})\n", printable(each.reason), clause_word(each.step.clause));
      continue;
    }
    out->print("{}", palette.paint(action_colour(each.step.action),
                                   pol_util_action_str(each.step.action)));
    std::string sets = sets_text(*verdict.query);
    if (!each.reason.empty()) {
      out->print(": {}", printable(each.reason));
    } else if (each.step.action == POL_ACCEPT && !sets.empty()) {
      out->print(", sets {}", sets);
    }
    out->write("\n");
  }
}

}  // namespace polctl
