// SPDX-License-Identifier: Apache-2.0
#include "support/mixed_policy.h"

#include <map>
#include <string>
#include <tuple>

#include "support/elements.h"

namespace bench {
namespace {

constexpr uint32_t kElements = 50;
constexpr uint32_t kTags = 50;
constexpr uint32_t kSites = 1000;
constexpr size_t kQuestions = 8192;

t_tloc_id tloc_of(uint32_t number) {
  t_tloc_id tloc = {};
  tloc.family = KEL_AF_INET;
  tloc.addr.v4 = 0x0a000000 + number;
  tloc.color = static_cast<uint8_t>(1 + number % 3);
  tloc.encap = 1;
  return tloc;
}

void check(bool done) {
  if (!done) abort();
}

// A tag; list and tag; list; preference and tag; then also site, VPN and TLOC lists.
void add_clauses(t_pol_entry* entry, uint32_t number, const std::string& list) {
  uint8_t changed = 0;
  const uint32_t kind = number % 7;
  if (kind == 1 || kind == 2 || kind >= 4) {
    pol_entry_match_pfx_list_add(context(), entry, list.c_str(), &changed);
  }
  if (kind <= 1 || kind == 3) {
    pol_entry_match_tag_add(context(), entry, number % kTags, &changed);
  }
  if (kind == 3) pol_entry_match_preference_add(context(), entry, number % 11, &changed);
  const std::string other = list + "-o";
  if (kind == 4) {
    check(pol_site_list_add_entry(context(), other.c_str(), number % kSites, number % kSites + 5) ==
          POL_OK);
    pol_entry_match_site_list_add(context(), entry, other.c_str(), &changed);
  } else if (kind == 5) {
    check(pol_vpn_list_add_entry(context(), other.c_str(), number % 20, number % 20) == POL_OK);
    pol_entry_match_vpn_list_add(context(), entry, other.c_str(), &changed);
  } else if (kind == 6) {
    const t_tloc_id tloc = tloc_of(number);
    check(pol_tloc_list_add_entry(context(), other.c_str(), &tloc, 0) == POL_OK);
    pol_entry_match_tloc_list_add(context(), entry, other.c_str(), &changed);
  }
}

size_t uneven_size(uint32_t number) {
  const uint32_t at = number % 100;
  if (at == 50) return 100'000;
  if (at % 25 == 4) return 10'000;
  return at % 20 < 3 ? 1000 : kElements;
}

std::unique_ptr<MixedPolicy> make(uint32_t sequences, bool mixed, bool uneven) {
  const std::string name =
      (mixed ? "W2m-" : "W2p-") + std::string(uneven ? "u" : "") + std::to_string(sequences);
  auto policy = std::make_unique<MixedPolicy>(name);
  std::vector<std::vector<t_ipprefix>> hits;
  for (uint32_t number = 0; number < sequences; ++number) {
    const std::string list = name + "-" + std::to_string(number);
    const size_t count = uneven ? uneven_size(number) : kElements;
    const auto elements = make_elements(count, Spread::kRandom, 10000 + number);
    add_to_list(list, elements);
    t_pol_entry* entry = policy->rig.add_sequence(number + 1);
    uint8_t changed = 0;
    if (mixed) {
      add_clauses(entry, number, list);
    } else {
      pol_entry_match_pfx_list_add(context(), entry, list.c_str(), &changed);
    }
    hits.push_back(make_routes(elements, 16, 20000 + number));
  }
  policy->rig.tell();
  Random random(7);
  for (size_t i = 0; i < kQuestions; ++i) {
    const uint32_t number = random.below(sequences);
    MixedPolicy::Question question = {};
    // Three of four lie in a list.
    question.prefix = hits[number][random.below(8) * 2 + (i % 4 == 3 ? 1 : 0)];
    question.vpn = number % 20;
    // A tag that no sequence asks for alone, so that those with more clauses have their turn.
    const bool tagged = number % 7 == 0 || number % 7 == 1 || number % 7 == 3;
    question.tag = tagged ? number % kTags : kTags + number;
    question.preference = number % 11;
    question.site = number % kSites;
    question.tloc = tloc_of(number);
    policy->questions.push_back(question);
  }
  return policy;
}

template <class Evaluate>
void each_question(benchmark::State& state, const MixedPolicy& policy, Evaluate evaluate) {
  t_pol_route_attr attr = {};
  attr.present = POL_ATTR_TAG | POL_ATTR_PREF | POL_ATTR_SITE | POL_ATTR_TLOC;
  t_pol_route_query query = query_for(&attr);
  size_t at = 0;
  for (auto step : state) {
    const MixedPolicy::Question& question = policy.questions[at++ % policy.questions.size()];
    attr.tag = question.tag;
    attr.preference = question.preference;
    attr.site = question.site;
    attr.tloc = question.tloc;
    query.prefix = question.prefix;
    query.vpn = question.vpn;
    benchmark::DoNotOptimize(evaluate(&query));
  }
}

}  // namespace

MixedPolicy& MixedPolicy::get(uint32_t sequences, bool mixed, bool uneven) {
  static std::map<std::tuple<uint32_t, bool, bool>, std::unique_ptr<MixedPolicy>> policies;
  auto& policy = policies[{sequences, mixed, uneven}];
  if (policy == nullptr) policy = make(sequences, mixed, uneven);
  return *policy;
}

void evaluate(benchmark::State& state, const MixedPolicy& policy) {
  each_question(state, policy,
                [&](t_pol_route_query* query) { return pol_execute(policy.rig.user, query); });
}

void evaluate_walking(benchmark::State& state, const MixedPolicy& policy) {
  // An entry that changes leaves the policy to a walk until the change is told.
  uint8_t changed = 0;
  t_pol_entry* last = pol_entry_find_or_create(context(), policy.rig.policy, UINT32_MAX, &changed);
  each_question(state, policy,
                [&](t_pol_route_query* query) { return pol_execute(policy.rig.user, query); });
  check(last != nullptr);
  pol_entry_find_and_delete(context(), policy.rig.policy, UINT32_MAX, &changed);
  policy.rig.tell();
}

}  // namespace bench
