// SPDX-License-Identifier: Apache-2.0
// Changing policy: loading and emptying lists and policies that somebody uses, so that every change
// is told; memory an element; many changes to a policy with many users.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <functional>

#include "support/elements.h"
#include "support/rig.h"

namespace bench {
namespace {

constexpr char kList[] = "load";
uint64_t told = 0;

void count_call(t_pol_user* /*user*/, uint64_t /*arg*/) { ++told; }

// A policy whose one sequence names the list, with a user that is called back.
class ListUser {
 public:
  enum Kind { kPrefixes, kSites };

  explicit ListUser(Kind kind) {
    t_pol_registration record = {};
    std::string("load").copy(record.user_name, POL_NAME_SIZE - 1);
    std::string("load").copy(record.policy_name, POL_NAME_SIZE - 1);
    record.kind = POL_KIND_ROUTE;
    record.direction = POL_DIR_IN;
    record.change = count_call;
    context();
    user_ = pol_register(&record);
    uint8_t changed = 0;
    t_pol_block* policy = pol_block_find(context(), "load", POL_KIND_ROUTE, nullptr);
    t_pol_entry* entry = pol_entry_find_or_create(context(), policy, 10, &changed);
    pol_entry_match_add(context(), policy, entry, POL_MATCH_ROUTE, &changed);
    if (kind == kPrefixes) pol_entry_match_pfx_list_add(context(), entry, kList, &changed);
    if (kind == kSites) pol_entry_match_site_list_add(context(), entry, kList, &changed);
    pol_user_chg_list_notify_all(context());
  }
  ListUser(const ListUser&) = delete;
  ListUser& operator=(const ListUser&) = delete;
  ~ListUser() {
    uint8_t changed = 0;
    pol_unregister(&user_);
    pol_block_find_and_delete(context(), "load", POL_KIND_ROUTE, &changed);
  }

 private:
  t_pol_user* user_;
};

struct Range {
  uint32_t low;
  uint32_t high;
};

std::vector<Range> make_ranges(size_t count) {
  Random random(5);
  std::vector<Range> ranges;
  for (size_t i = 0; i < count; ++i) {
    uint32_t low = random.below(4000000000);
    ranges.push_back({low, low + random.below(100)});
  }
  return ranges;
}

// Times the loading or the emptying of a list; the other half of the work goes untimed.
void timed(benchmark::State& state, bool loading, const std::function<void()>& load,
           const std::function<void()>& empty) {
  for (auto step : state) {
    double load_time = seconds(load);
    double empty_time = seconds(empty);
    state.SetIterationTime(loading ? load_time : empty_time);
  }
}

void prefixes(benchmark::State& state, size_t count, bool loading) {
  const auto elements = make_elements(count, Spread::kRandom, 6);
  ListUser user(ListUser::kPrefixes);
  timed(
      state, loading, [&] { add_to_list(kList, elements); },
      [&] {
        for (const auto& element : elements) pol_pfx_list_del_entry(context(), kList, &element);
      });
  pol_pfx_list_cfg_del(context(), kList);
}

void sites(benchmark::State& state, size_t count, bool loading) {
  const auto ranges = make_ranges(count);
  ListUser user(ListUser::kSites);
  timed(
      state, loading,
      [&] {
        for (Range range : ranges) {
          if (pol_site_list_add_entry(context(), kList, range.low, range.high) != POL_OK) abort();
        }
      },
      [&] {
        for (Range range : ranges) {
          pol_site_list_del_entry(context(), kList, range.low, range.high);
        }
      });
  pol_site_list_cfg_del(context(), kList);
}

void sequences(benchmark::State& state, size_t count, bool loading) {
  Rig rig("load-sequences");
  timed(
      state, loading,
      [&] {
        for (size_t i = 1; i <= count; ++i) {
          uint8_t changed = 0;
          t_pol_entry* entry = rig.add_sequence(static_cast<uint32_t>(i * 7919 % 100003));
          pol_entry_match_tag_add(context(), entry, static_cast<uint32_t>(i), &changed);
        }
        pol_user_chg_list_notify_all(context());
      },
      [&] {
        uint8_t changed = 0;
        for (size_t i = 1; i <= count; ++i) {
          pol_entry_find_and_delete(context(), rig.policy, static_cast<uint32_t>(i * 7919 % 100003),
                                    &changed);
        }
        pol_user_chg_list_notify_all(context());
      });
  pol_unregister(&rig.user);
}

// Heap bytes an element, all that the library keeps for it.
void bytes(benchmark::State& state, const std::function<void()>& load,
           const std::function<void()>& empty, size_t count) {
  double grown = 0;
  for (auto step : state) {
    size_t before = mallinfo2().uordblks;
    load();
    grown = static_cast<double>(mallinfo2().uordblks - before);
    empty();
  }
  state.counters["bytes"] = grown / static_cast<double>(count);
}

void prefix_bytes(benchmark::State& state, Spread spread) {
  const auto elements = make_elements(100000, spread, 6);
  bytes(
      state, [&] { add_to_list(kList, elements); }, [] { pol_pfx_list_cfg_del(context(), kList); },
      elements.size());
}

void country_bytes(benchmark::State& state) {
  const auto& lists = country_lists();
  const auto& largest = *std::max_element(lists.begin(), lists.end(), [](auto& a, auto& b) {
    return a.elements.size() < b.elements.size();
  });
  bytes(
      state, [&] { add_to_list(kList, largest.elements); },
      [] { pol_pfx_list_cfg_del(context(), kList); }, largest.elements.size());
}

void site_bytes(benchmark::State& state) {
  const auto ranges = make_ranges(100000);
  bytes(
      state,
      [&] {
        for (Range range : ranges) {
          pol_site_list_add_entry(context(), kList, range.low, range.high);
        }
      },
      [] { pol_site_list_cfg_del(context(), kList); }, ranges.size());
}

// A batch: changes to one policy that many use, told once at its end.
void batch(benchmark::State& state, size_t users, uint32_t changes) {
  Rig rig("batch");
  std::vector<t_pol_user*> registered;
  for (size_t i = 0; i < users; ++i) {
    t_pol_registration record = {};
    ("batch-" + std::to_string(i)).copy(record.user_name, POL_NAME_SIZE - 1);
    std::string("batch").copy(record.policy_name, POL_NAME_SIZE - 1);
    record.kind = POL_KIND_ROUTE;
    record.direction = POL_DIR_OUT;
    record.change = count_call;
    registered.push_back(pol_register(&record));
  }
  t_pol_entry* entry = rig.add_sequence(10);
  pol_user_chg_list_notify_all(context());
  uint32_t tag = 0;
  for (auto step : state) {
    uint64_t before = told;
    state.SetIterationTime(seconds([&] {
      uint8_t changed = 0;
      for (uint32_t i = 0; i < changes; ++i) {
        pol_entry_match_tag_add(context(), entry, ++tag, &changed);
      }
      pol_user_chg_list_notify_all(context());
    }));
    if (told - before != users) state.SkipWithError("not every user was told once");
  }
  for (t_pol_user*& user : registered) pol_unregister(&user);
  uint8_t changed = 0;
  pol_unregister(&rig.user);
  pol_block_find_and_delete(context(), "batch", POL_KIND_ROUTE, &changed);
}

template <class Work>
void register_load(const char* name, Work work, std::initializer_list<size_t> sizes) {
  for (size_t count : sizes) {
    for (bool loading : {true, false}) {
      std::string full = std::string("W4/") + name + (loading ? "/add/" : "/delete/");
      benchmark::RegisterBenchmark((full + std::to_string(count)).c_str(), work, count, loading)
          ->UseManualTime();
    }
  }
}

}  // namespace

void register_loads() {
  register_load("prefixes", prefixes, {1000, 10000, 100000});
  register_load("sites", sites, {1000, 10000, 100000});
  register_load("sequences", sequences, {10, 100, 1000});
  benchmark::RegisterBenchmark("W5/prefixes", prefix_bytes, Spread::kRandom)->Iterations(1);
  benchmark::RegisterBenchmark("W5/clustered", prefix_bytes, Spread::kClustered)->Iterations(1);
  benchmark::RegisterBenchmark("W5/country", country_bytes)->Iterations(1);
  benchmark::RegisterBenchmark("W5/sites", site_bytes)->Iterations(1);
  for (size_t users : {100u, 1000u, 10000u}) {
    benchmark::RegisterBenchmark(("W6/" + std::to_string(users)).c_str(), batch, users, 10000u)
        ->UseManualTime();
  }
}

}  // namespace bench
