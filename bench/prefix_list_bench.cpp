// SPDX-License-Identifier: Apache-2.0
// One prefix-list clause: the floor below every figure, lists made up of three sizes in two
// spreads, and the real country lists; each beside the plain walk over the same elements.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <memory>

#include "support/elements.h"
#include "support/naive.h"
#include "support/rig.h"

namespace bench {
namespace {

constexpr size_t kRoutes = 1u << 14;

struct ListWork {
  Rig rig;
  std::vector<t_pol_pfx_record> elements;
  std::vector<t_ipprefix> routes;
};

void match_list(Rig* rig, uint32_t sequence, const std::string& list) {
  uint8_t changed = 0;
  pol_entry_match_pfx_list_add(context(), rig->add_sequence(sequence), list.c_str(), &changed);
}

ListWork& list_work(Spread spread, size_t count) {
  static std::map<std::pair<Spread, size_t>, std::unique_ptr<ListWork>> works;
  auto& work = works[{spread, count}];
  if (work == nullptr) {
    std::string name = spread == Spread::kRandom ? "W1-" : "W1c-";
    name += std::to_string(count);
    work = std::make_unique<ListWork>(ListWork{Rig(name), make_elements(count, spread, 1), {}});
    work->routes = make_routes(work->elements, kRoutes, 2);
    add_to_list(name, work->elements);
    match_list(&work->rig, 10, name);
    work->rig.tell();
  }
  return *work;
}

void evaluate_all(benchmark::State& state, t_pol_user* user,
                  const std::vector<t_ipprefix>& routes) {
  const t_pol_route_attr attr = attributes();
  t_pol_route_query query = query_for(&attr);
  size_t at = 0;
  for (auto step : state) {
    query.prefix = routes[at++ % routes.size()];
    benchmark::DoNotOptimize(pol_execute(user, &query));
  }
}

void list(benchmark::State& state, Spread spread, size_t count) {
  ListWork& work = list_work(spread, count);
  evaluate_all(state, work.rig.user, work.routes);
}

void list_walked(benchmark::State& state, Spread spread, size_t count) {
  ListWork& work = list_work(spread, count);
  size_t at = 0;
  for (auto step : state) {
    benchmark::DoNotOptimize(walk_matches(work.elements, work.routes[at++ % work.routes.size()]));
  }
}

// What `count` elements are asked in arrays, one route for each: most memory is far from the
// processor where there are many.
struct ArrayWork {
  Rig rig;
  std::vector<t_ipprefix> routes;
};

const ArrayWork& array_work(size_t count) {
  static std::map<size_t, std::unique_ptr<ArrayWork>> works;
  auto& work = works[count];
  if (work == nullptr) {
    const std::string name = "batch-" + std::to_string(count);
    work = std::make_unique<ArrayWork>(ArrayWork{Rig(name), {}});
    const auto elements = make_elements(count, Spread::kRandom, 1);
    add_to_list(name, elements);
    match_list(&work->rig, 10, name);
    work->rig.tell();
    Random random(2);
    for (size_t i = 0; i < count; ++i) {
      const auto& element = elements[random.below(static_cast<uint32_t>(count))];
      work->routes.push_back(element.prefix);
      work->routes.back().len = std::max(element.prefix.len, element.min);
    }
  }
  return *work;
}

// One call for an array, or for each of its queries.
void list_array(benchmark::State& state, size_t count, bool batch) {
  const ArrayWork& work = array_work(count);
  constexpr uint32_t kBatch = 64;
  const t_pol_route_attr attr = attributes();
  std::vector<t_pol_route_query> queries(kBatch, query_for(&attr));
  uint32_t actions[kBatch];
  size_t at = 0;
  for (auto step : state) {
    for (t_pol_route_query& query : queries) query.prefix = work.routes[at++ % work.routes.size()];
    if (batch) {
      pol_execute_batch(work.rig.user, queries.data(), kBatch, actions);
    } else {
      for (uint32_t i = 0; i < kBatch; ++i) actions[i] = pol_execute(work.rig.user, &queries[i]);
    }
    benchmark::DoNotOptimize(actions[0]);
  }
  state.counters["each"] = kBatch;
}

void floor(benchmark::State& state) {
  static Rig empty("floor");
  evaluate_all(state, empty.user, {t_ipprefix{}});
}

// One policy a country, and one with a sequence a country: each real prefix asked, in an order
// without a pattern, of a country that has it and of another.
struct CountryWork {
  struct Question {
    t_ipprefix prefix;
    t_pol_user* user;
    const CountryList* list;
  };

  std::vector<Rig> rigs;
  Rig together{"W1r"};
  std::vector<Question> questions;
  std::vector<t_ipprefix> prefixes;
};

CountryWork& country_work() {
  static CountryWork* const work = [] {
    auto* made = new CountryWork;
    const auto& lists = country_lists();
    uint32_t sequence = 0;
    for (const CountryList& country : lists) {
      add_to_list(country.name, country.elements);
      match_list(&made->rigs.emplace_back("W1r-" + country.name), 10, country.name);
      match_list(&made->together, ++sequence, country.name);
    }
    made->together.tell();
    Random random(3);
    while (made->questions.size() < kRoutes * 2) {
      uint32_t home = random.below(static_cast<uint32_t>(lists.size()));
      const auto& elements = lists[home].elements;
      t_ipprefix prefix = elements[random.below(static_cast<uint32_t>(elements.size()))].prefix;
      uint32_t other = random.below(static_cast<uint32_t>(lists.size()));
      for (uint32_t asked : {home, other}) {
        made->questions.push_back({prefix, made->rigs[asked].user, &lists[asked]});
      }
      made->prefixes.push_back(prefix);
    }
    return made;
  }();
  return *work;
}

void countries(benchmark::State& state) {
  const CountryWork& work = country_work();
  const t_pol_route_attr attr = attributes();
  t_pol_route_query query = query_for(&attr);
  size_t at = 0;
  for (auto step : state) {
    const CountryWork::Question& question = work.questions[at++ % work.questions.size()];
    query.prefix = question.prefix;
    benchmark::DoNotOptimize(pol_execute(question.user, &query));
  }
}

void countries_walked(benchmark::State& state) {
  const CountryWork& work = country_work();
  size_t at = 0;
  for (auto step : state) {
    const CountryWork::Question& question = work.questions[at++ % work.questions.size()];
    benchmark::DoNotOptimize(walk_matches(question.list->elements, question.prefix));
  }
}

void countries_together(benchmark::State& state) {
  const CountryWork& work = country_work();
  evaluate_all(state, work.together.user, work.prefixes);
}

void countries_together_walked(benchmark::State& state) {
  const CountryWork& work = country_work();
  size_t at = 0;
  for (auto step : state) {
    const t_ipprefix& prefix = work.prefixes[at++ % work.prefixes.size()];
    for (const CountryList& country : country_lists()) {
      bool hit = walk_matches(country.elements, prefix);
      benchmark::DoNotOptimize(hit);
      if (hit) break;
    }
  }
}

}  // namespace

void register_prefix_lists() {
  benchmark::RegisterBenchmark("floor", floor);
  for (size_t count : {10u, 1000u, 100000u}) {
    for (Spread spread : {Spread::kRandom, Spread::kClustered}) {
      std::string name = spread == Spread::kRandom ? "W1/" : "W1c/";
      name += std::to_string(count);
      benchmark::RegisterBenchmark(name.c_str(), list, spread, count);
      name += "/walk";
      benchmark::RegisterBenchmark(name.c_str(), list_walked, spread, count);
    }
  }
  for (size_t count : {1000u, 100000u, 1000000u}) {
    const std::string name = "batch/" + std::to_string(count);
    benchmark::RegisterBenchmark(name.c_str(), list_array, count, true);
    benchmark::RegisterBenchmark((name + "/one").c_str(), list_array, count, false);
  }
  benchmark::RegisterBenchmark("W1r", countries);
  benchmark::RegisterBenchmark("W1r/walk", countries_walked);
  benchmark::RegisterBenchmark("W1r/together", countries_together);
  benchmark::RegisterBenchmark("W1r/together/walk", countries_together_walked);
}

}  // namespace bench
