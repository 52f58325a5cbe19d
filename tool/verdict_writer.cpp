// SPDX-License-Identifier: Apache-2.0
#include "verdict_writer.h"

#include <fmt/format.h>

#include <algorithm>

#include "attribute_words.h"
#include "flag_words.h"
#include "host/address_text.h"
#include "json_line.h"
#include "policy/pol_util.h"
#include "set_rules.h"

namespace polctl {

namespace {

constexpr uint32_t kShownInText = 4;  // TLOCs or VPN ranges in a line for people

void write_words(const std::vector<const char*>& words, Output* out) {
  const char* separator = "";
  for (const char* word : words) {
    out->put(separator, "\"", word, "\"");
    separator = ",";
  }
}

// The sequence that decided, or null for the default action.
void write_sequence(const t_pol_explain_step& step, Output* out) {
  if (step.is_default != 0) {
    out->write("\"sequence\":null");
  } else {
    out->put("\"sequence\":", step.sequence);
  }
}

void write_tlocs(const t_pol_tloc_result& tlocs, Output* out) {
  for (uint32_t i = 0; i < tlocs.count; ++i) {
    const t_pol_tloc_result_entry& entry = tlocs.entry[i];
    out->print("{}{{\"address\":\"{}\",\"color\":{},\"encap\":{},\"label\":{},\"preference\":{}}}",
               i == 0 ? "" : ",", tloc_address_text(entry.tloc),
               json_word(Vocabulary::kColor, entry.tloc.color),
               json_word(Vocabulary::kEncap, entry.tloc.encap), entry.label, entry.preference);
  }
}

void write_step(const Step& each, Output* out) {
  out->write("{");
  write_sequence(each.step, out);
  out->print(",\"decided\":{}", each.step.decided != 0);
  if (each.step.decided != 0) {
    out->print(",\"action\":\"{}\"", pol_util_action_str(each.step.action));
  } else {
    out->print(",\"held\":{},\"clause\":\"{}\"", each.step.held != 0,
               clause_word(each.step.clause));
  }
  if (!each.reason.empty()) out->print(",\"reason\":{}", json_string(each.reason));
  out->write("}");
}

void write_steps(const Verdict& verdict, Output* out) {
  const char* separator = "";
  for (const Step& each : verdict.steps) {
    out->write(separator);
    separator = ",";
    write_step(each, out);
  }
}

void write_idle(const Verdict& verdict, Output* out) {
  const char* separator = "";
  for (const Idle& each : idle_sets(verdict)) {
    out->print("{}{{\"clause\":\"{}\",\"reason\":\"{}\"}}", separator, each.word, each.why);
    separator = ",";
  }
}

void write_tloc(const t_tloc_id& tloc, Output* out) {
  out->put("{\"address\":\"", tloc_address_text(tloc),
           "\",\"color\":", json_word(Vocabulary::kColor, tloc.color),
           ",\"encap\":", json_word(Vocabulary::kEncap, tloc.encap), "}");
}

// The route in the form in which routes are read.
void write_route(const t_pol_route_query& query, Output* out) {
  const t_pol_route_attr& attr = *query.attr;
  auto has = [&attr](uint32_t bit) { return (attr.present & bit) != 0; };
  auto number = [&](uint32_t bit, const char* name, uint32_t value) {
    if (has(bit)) out->put(",\"", name, "\":", value);
  };
  out->put("{\"type\":\"", pol_util_match_type_str(query.match_type), "\"");
  if (query.prefix.addr.family != 0) {
    out->put(",\"prefix\":\"", prefix_text(query.prefix), "\"");
  }
  out->put(",\"vpn\":", query.vpn);
  number(POL_ATTR_TAG, "tag", attr.tag);
  number(POL_ATTR_PREF, "preference", attr.preference);
  number(POL_ATTR_DOMAIN, "domain", attr.domain);
  number(POL_ATTR_SITE, "site", attr.site);
  if (has(POL_ATTR_GROUP)) {
    out->write(",\"groups\":[");
    for (uint32_t i = 0; i < attr.group_count; ++i) {
      out->put(i > 0 ? "," : "", attr.group[i]);
    }
    out->write("]");
  }
  if (has(POL_ATTR_TLOC)) {
    out->write(",\"tloc\":");
    write_tloc(attr.tloc, out);
  }
  if (has(POL_ATTR_ORIGIN)) {
    const char* word = origin_word({attr.origin_protocol, attr.origin_subtype});
    if (*word != '\0') {
      out->put(",\"origin\":\"", word, "\"");
    } else {
      out->print(",\"origin\":[{},{}]", unsigned{attr.origin_protocol},
                 unsigned{attr.origin_subtype});
    }
  }
  if (has(POL_ATTR_ORIGINATOR)) {
    out->put(",\"originator\":\"", address_text(attr.originator), "\"");
  }
  if (has(POL_ATTR_CARRIER)) {
    out->put(",\"carrier\":", json_word(Vocabulary::kCarrier, attr.carrier));
  }
  out->write("}");
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

std::string route_text_in_full(const Verdict& verdict) {
  const t_pol_route_query& query = *verdict.query;
  std::string text = route_text(verdict);
  if (query.vpn != 0) text += fmt::format(" vpn {}", query.vpn);
  if ((query.attr->present & POL_ATTR_SITE) != 0) text += fmt::format(" site {}", query.attr->site);
  return text;
}

std::vector<Idle> idle_sets(const Verdict& verdict) {
  std::vector<Idle> idle;
  for (const SetRule& rule : set_rules()) {
    if ((verdict.decision.set_flags & rule.flag) == 0) continue;
    // An accept that became a reject has set what it set: its action says nothing here.
    bool rejected = verdict.decision.action == POL_REJECT && verdict.query->applied == 0;
    const char* why = why_idle(rule, rejected ? POL_REJECT : POL_ACCEPT, verdict.query->match_type,
                               verdict.direction);
    if (why != nullptr) idle.push_back({rule.word, why});
  }
  return idle;
}

std::string tlocs_text(const t_pol_route_query& query) { return tlocs_shown(query, UINT32_MAX); }

std::string vpns_text(const t_pol_route_query& query) { return vpns_shown(query, UINT32_MAX); }

void write_json(const Verdict& verdict, Output* out) {
  const t_pol_route_query& query = *verdict.query;
  std::vector<const char*> words;
  out->put("{\"index\":", verdict.index, ",\"route\":");
  write_route(query, out);
  out->put(",\"action\":\"", pol_util_action_str(verdict.action), "\",");
  write_sequence(verdict.decision, out);
  out->write(",\"matched\":[");
  matched_words(query.matched, &words);
  write_words(words, out);
  out->write("],\"applied\":[");
  applied_words(query.applied, &words);
  write_words(words, out);
  out->write("],\"set\":{");
  bool tag = (query.applied & POL_APPLIED_TAG) != 0;
  if (tag) out->put("\"tag\":", query.attr_copy.tag);
  if ((query.applied & POL_APPLIED_PREF) != 0) {
    out->put(tag ? "," : "", "\"preference\":", query.attr_copy.preference);
  }
  out->write("},\"tlocs\":[");
  write_tlocs(*query.tlocs, out);
  out->write("],\"vpns\":[");
  for (uint32_t i = 0; i < query.vpn_count; ++i) {
    const t_pol_vpn_range& range = query.vpn_array[i];
    out->put(i == 0 ? "[" : ",[", range.low, ",", range.high, "]");
  }
  out->write("],\"idle\":[");
  write_idle(verdict, out);
  out->write("]");
  if (!verdict.steps.empty()) {
    out->write(",\"steps\":[");
    write_steps(verdict, out);
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
  out->print("{}\n", palette.paint(Colour::Bold, printable(route_text_in_full(verdict))));
  constexpr size_t kNameWidth = 16;
  constexpr size_t kIndent = kNameWidth + 2;
  uint32_t named = 0;
  bool any_held = false;
  for (const Step& each : verdict.steps) {
    bool held = each.step.decided == 0 && each.step.held != 0;
    bool again = any_held && each.step.sequence == named && each.step.is_default == 0;
    std::string name = again ? "" : decider_text(each.step);
    any_held = held;
    named = each.step.sequence;
    out->print("  {:<{}}", name, kNameWidth);
    if (each.step.decided == 0) {
      const std::string why = fmt::format("{}: {} ({})", held ? "yes" : "no",
                                          printable(each.reason), clause_word(each.step.clause));
      out->print("{}\n", folded(why, palette.width(), kIndent));
      continue;
    }
    const std::string action = pol_util_action_str(each.step.action);
    std::string sets = sets_text(*verdict.query);
    std::string decision = action;
    if (!each.reason.empty()) {
      decision += ": " + printable(each.reason);
    } else if (each.step.action == POL_ACCEPT && !sets.empty()) {
      decision += ", sets " + sets;
    }
    out->print("{}{}\n", palette.paint(action_colour(each.step.action), action),
               folded(decision, palette.width(), kIndent).substr(action.size()));
    for (const Idle& idle : idle_sets(verdict)) {
      const std::string why = fmt::format("not set: {}: {}", idle.word, idle.why);
      out->print("{:{}}{}\n", "", kIndent, folded(why, palette.width(), kIndent));
    }
  }
}

}  // namespace polctl
