// SPDX-License-Identifier: Apache-2.0
#include "test_result.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/address_text.h"
#include "host/output.h"
#include "policy/pol_util.h"
#include "tool/attribute_words.h"

namespace polctl {

namespace {

using namespace std::string_literals;

Shown shown(const char* what, const std::optional<uint32_t>& value) {
  if (value) return {std::to_string(*value), fmt::format("{} {}", what, *value)};
  return {"null", what == "sequence"s ? "default action" : what + " none"s};
}

Shown shown(uint32_t action) {
  const char* word = pol_util_action_str(action);
  return {fmt::format("\"{}\"", word), fmt::format("action {}", word)};
}

std::optional<uint32_t> applied(const Verdict& verdict, uint32_t bit, uint32_t value) {
  if ((verdict.query->applied & bit) == 0) return std::nullopt;
  return value;
}

void compare(const char* what, const ExpectedNumber& expected, std::optional<uint32_t> came,
             std::vector<Mismatch>* all) {
  if (!expected.looked_at || expected.value == came) return;
  all->push_back({what, shown(what, expected.value), shown(what, came)});
}

bool fits(const ExpectedTloc& expected, const t_pol_tloc_result_entry& came) {
  auto equal = [](const std::optional<uint32_t>& wanted, uint32_t is) {
    return !wanted || *wanted == is;
  };
  size_t bytes = came.tloc.family == KEL_AF_INET ? 4 : 16;
  return expected.tloc.family == came.tloc.family &&
         memcmp(&expected.tloc.addr, &came.tloc.addr, bytes) == 0 &&
         equal(expected.color, came.tloc.color) && equal(expected.encap, came.tloc.encap) &&
         equal(expected.label, came.label) && equal(expected.preference, came.preference);
}

// Whether each expected TLOC can have one of those that came to itself: a TLOC of which little is said
// may have to leave the one that it has to another. `takers` has for each that came who has it.
bool find_place(const std::vector<ExpectedTloc>& expected, const t_pol_tloc_result& came, size_t at,
                std::vector<size_t>* takers, std::vector<bool>* tried) {
  for (uint32_t i = 0; i < came.count; ++i) {
    if ((*tried)[i] || !fits(expected[at], came.entry[i])) continue;
    (*tried)[i] = true;
    size_t taker = (*takers)[i];
    if (taker != SIZE_MAX && !find_place(expected, came, taker, takers, tried)) continue;
    (*takers)[i] = at;
    return true;
  }
  return false;
}

bool same_tlocs(const std::vector<ExpectedTloc>& expected, const t_pol_tloc_result& came) {
  if (expected.size() != came.count) return false;
  std::vector<size_t> takers(came.count, SIZE_MAX);
  for (size_t i = 0; i < expected.size(); ++i) {
    std::vector<bool> tried(came.count, false);
    if (!find_place(expected, came, i, &takers, &tried)) return false;
  }
  return true;
}

Shown shown(const std::vector<ExpectedTloc>& tlocs) {
  std::vector<std::string> objects;
  std::vector<std::string> texts;
  for (const ExpectedTloc& each : tlocs) {
    std::string address = tloc_address_text(each.tloc);
    std::string object = fmt::format("{{\"address\":\"{}\"", address);
    std::string text = address;
    auto add_word = [&](const char* name, Vocabulary words, const std::optional<uint32_t>& value) {
      if (!value) return;
      object += fmt::format(",\"{}\":{}", name, json_word(words, *value));
      const char* word = word_of(words, *value);
      text += " " + (*word != '\0' ? word : std::to_string(*value));
    };
    auto add_number = [&](const char* name, const std::optional<uint32_t>& value) {
      if (!value) return;
      object += fmt::format(",\"{}\":{}", name, *value);
      text += fmt::format(" {} {}", name, *value);
    };
    add_word("color", Vocabulary::kColor, each.color);
    add_word("encap", Vocabulary::kEncap, each.encap);
    add_number("label", each.label);
    add_number("preference", each.preference);
    objects.push_back(object + "}");
    texts.push_back(text);
  }
  return {"[" + joined(objects, ",") + "]",
          texts.empty() ? "no TLOC" : "TLOCs " + joined(texts, ", ")};
}

// What came, with the members that were looked at.
Shown shown(const t_pol_tloc_result& came, const std::vector<ExpectedTloc>& wanted) {
  auto looked_at = [&wanted](std::optional<uint32_t> ExpectedTloc::*member) {
    return std::any_of(wanted.begin(), wanted.end(),
                       [member](const ExpectedTloc& each) { return (each.*member).has_value(); });
  };
  bool label = looked_at(&ExpectedTloc::label);
  bool preference = looked_at(&ExpectedTloc::preference);
  std::vector<ExpectedTloc> all;
  for (uint32_t i = 0; i < came.count; ++i) {
    const t_pol_tloc_result_entry& entry = came.entry[i];
    ExpectedTloc each = {entry.tloc, entry.tloc.color, entry.tloc.encap, {}, {}};
    if (label) each.label = entry.label;
    if (preference) each.preference = entry.preference;
    all.push_back(each);
  }
  return shown(all);
}

Shown shown(const VpnRanges& ranges) {
  std::vector<std::string> pairs;
  std::vector<std::string> texts;
  for (const auto& [low, high] : ranges) {
    pairs.push_back(fmt::format("[{},{}]", low, high));
    texts.push_back(low == high ? std::to_string(low) : fmt::format("{}-{}", low, high));
  }
  return {"[" + joined(pairs, ",") + "]", texts.empty() ? "no VPN" : "VPNs " + joined(texts, ", ")};
}

void compare_vpns(const VpnRanges& expected, const t_pol_route_query& query,
                  std::vector<Mismatch>* all) {
  VpnRanges came;
  for (uint32_t i = 0; i < query.vpn_count; ++i) {
    came.emplace_back(query.vpn_array[i].low, query.vpn_array[i].high);
  }
  if (came != expected) all->push_back({"vpns", shown(expected), shown(came)});
}

// Why the sequence that was expected did not decide.
std::string expected_text(uint32_t sequence, bool there, const Verdict& verdict) {
  if (!there) return fmt::format("the policy has no sequence {}", sequence);
  for (const Step& each : verdict.steps) {
    bool failed = each.step.decided == 0 && each.step.held == 0;
    if (failed && each.step.sequence == sequence) {
      return fmt::format("not sequence {}: {}", sequence, each.reason);
    }
  }
  return fmt::format("sequence {} was not reached", sequence);
}

}  // namespace

std::vector<Mismatch> mismatches_of(const Expected& expected, const Verdict& verdict) {
  std::vector<Mismatch> all;
  if (expected.action && *expected.action != verdict.action) {
    all.push_back({"action", shown(*expected.action), shown(verdict.action)});
  }
  std::optional<uint32_t> decider;
  if (verdict.decision.is_default == 0) decider = verdict.decision.sequence;
  compare("sequence", expected.sequence, decider, &all);
  const t_pol_route_query& query = *verdict.query;
  compare("tag", expected.tag, applied(verdict, POL_APPLIED_TAG, query.attr_copy.tag), &all);
  compare("preference", expected.preference,
          applied(verdict, POL_APPLIED_PREF, query.attr_copy.preference), &all);
  if (expected.tlocs && !same_tlocs(*expected.tlocs, *query.tlocs)) {
    all.push_back({"tlocs", shown(*expected.tlocs), shown(*query.tlocs, *expected.tlocs)});
  }
  if (expected.vpns) compare_vpns(*expected.vpns, query, &all);
  return all;
}

std::string reason_of(const Expected& expected, bool has_expected, const Verdict& verdict) {
  std::vector<std::string> parts;
  for (const Step& each : verdict.steps) {
    bool told = each.step.decided != 0 || each.step.held != 0;
    if (told && !each.reason.empty()) parts.push_back(each.reason);
  }
  if (verdict.decision.is_default != 0) parts.emplace_back("no sequence decided");
  if (parts.empty()) parts.emplace_back("the sequence takes everything");
  const std::optional<uint32_t>& wanted = expected.sequence.value;
  bool decided = verdict.decision.is_default == 0 && wanted == verdict.decision.sequence;
  if (wanted && !decided) parts.push_back(expected_text(*wanted, has_expected, verdict));
  for (const Idle& each : idle_sets(verdict)) {
    parts.push_back(fmt::format("{} not set: {}", each.word, each.why));
  }
  return joined(parts, "; ");
}

std::string failure_text(const TestResult& result) {
  std::vector<std::string> expected;
  std::vector<std::string> came;
  for (const Mismatch& each : result.mismatches) {
    expected.push_back(each.expected.text);
    came.push_back(each.came.text);
  }
  return fmt::format("expected {}; came {}: {}", joined(expected, ", "), joined(came, ", "),
                     result.reason);
}

}  // namespace polctl
