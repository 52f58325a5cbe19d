// SPDX-License-Identifier: Apache-2.0
#include "support/operator_policy.h"

#include "support/elements.h"

namespace bench {
namespace {

constexpr uint32_t kSequences = 20;
constexpr uint32_t kTags = 4;
constexpr uint32_t kPreferences = 3;

// Prefix list and tag, prefix list and preference, or all three.
void add_clauses(t_pol_entry* entry, uint32_t number, const std::string& list) {
  uint8_t changed = 0;
  pol_entry_match_pfx_list_add(context(), entry, list.c_str(), &changed);
  if (number % 3 != 1) pol_entry_match_tag_add(context(), entry, number % kTags, &changed);
  if (number % 3 != 0) {
    pol_entry_match_preference_add(context(), entry, number % kPreferences, &changed);
  }
  pol_entry_set_add(context(), entry);
  pol_entry_set_preference_add(context(), entry, 100 + number, &changed);
  pol_entry_set_tag_add(context(), entry, 1000 + number, &changed);
}

OperatorPolicy* make() {
  auto* policy = new OperatorPolicy;
  Random random(4);
  std::vector<std::vector<t_ipprefix>> hits;
  for (uint32_t number = 0; number < kSequences; ++number) {
    std::string list = "W3-" + std::to_string(number);
    std::vector<t_pol_pfx_record> elements = make_elements(50, Spread::kRandom, 100 + number);
    add_to_list(list, elements);
    add_clauses(policy->rig.add_sequence(10 + number * 10), number, list);
    hits.push_back(make_routes(elements, 512, 200 + number));
  }
  policy->rig.tell();
  for (size_t i = 0; i < 8192; ++i) {
    uint32_t number = random.below(kSequences);
    const auto& prefixes = hits[number];
    Route route = {prefixes[random.below(static_cast<uint32_t>(prefixes.size())) & ~1u],
                   number % kTags, number % kPreferences};
    if (i % 2 == 1) {
      route.prefix.addr.addr.v4 = random.word();
      route.tag = random.below(kTags);
      route.preference = random.below(kPreferences);
    }
    policy->routes.push_back(route);
  }
  return policy;
}

}  // namespace

OperatorPolicy& OperatorPolicy::get() {
  static OperatorPolicy* const policy = make();
  return *policy;
}

void evaluate(benchmark::State& state, const OperatorPolicy& policy) {
  t_pol_route_attr attr = attributes();
  t_pol_route_query query = query_for(&attr);
  size_t at = static_cast<size_t>(state.thread_index()) * 97;
  for (auto step : state) {
    const Route& route = policy.routes[at++ % policy.routes.size()];
    query.prefix = route.prefix;
    attr.tag = route.tag;
    attr.preference = route.preference;
    benchmark::DoNotOptimize(pol_execute(policy.rig.user, &query));
  }
}

}  // namespace bench
