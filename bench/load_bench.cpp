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

// IPv6 elements of 48 bits, a fifth of a million in eight allocations of 29 bits.
std::vector<t_pol_pfx_record> make_v6_elements(size_t count) {
  Random random(8);
  std::vector<t_pol_pfx_record> elements;
  for (size_t i = 0; i < count; ++i) {
    t_pol_pfx_record element = {POL_PFX_LE, {}, 0, 64};
    element.prefix.addr.family = KEL_AF_INET6;
    element.prefix.len = 48;
    uint8_t* bytes = element.prefix.addr.addr.v6;
    const uint32_t allocation = random.below(8);
    const uint32_t word = random.word();
    bytes[0] = 0x20 + static_cast<uint8_t>(allocation & 1);
    bytes[1] = static_cast<uint8_t>(allocation * 16);
    bytes[2] = static_cast<uint8_t>(allocation);
    bytes[3] = static_cast<uint8_t>(word & 7);
    bytes[4] = static_cast<uint8_t>(word >> 8);
    bytes[5] = static_cast<uint8_t>(word >> 16);
    elements.push_back(element);
  }
  return elements;
}

void v6_bytes(benchmark::State& state) {
  const auto elements = make_v6_elements(200000);
  bytes(
      state, [&] { add_to_list(kList, elements); }, [] { pol_pfx_list_cfg_del(context(), kList); },
      elements.size());
}

// In lists of a policy that has an index, so that the directory has them, too.
void listed_bytes(benchmark::State& state) {
  constexpr uint32_t kLists = 20;
  const auto elements = make_elements(100000, Spread::kRandom, 6);
  Rig rig("load-listed");
  for (uint32_t i = 1; i <= kLists; ++i) {
    uint8_t changed = 0;
    pol_entry_match_pfx_list_add(context(), rig.add_sequence(i),
                                 ("listed" + std::to_string(i)).c_str(), &changed);
  }
  rig.tell();
  const auto list = [](size_t i) { return "listed" + std::to_string(i % kLists + 1); };
  bytes(
      state,
      [&] {
        for (size_t i = 0; i < elements.size(); ++i) {
          if (pol_pfx_list_entry_add(context(), list(i).c_str(), &elements[i]) != POL_OK) abort();
        }
      },
      [&] {
        for (size_t i = 0; i < kLists; ++i) pol_pfx_list_cfg_del(context(), list(i).c_str());
      },
      elements.size());
  uint8_t changed = 0;
  pol_unregister(&rig.user);
  pol_block_find_and_delete(context(), "load-listed", POL_KIND_ROUTE, &changed);
}

// What an index costs a clause: a policy of tags, before and after it is told.
void index_bytes(benchmark::State& state) {
  constexpr uint32_t kSequences = 10000;
  Rig rig("load-index");
  for (uint32_t i = 1; i <= kSequences; ++i) {
    uint8_t changed = 0;
    pol_entry_match_tag_add(context(), rig.add_sequence(i), i, &changed);
  }
  uint8_t changed = 0;
  bytes(
      state, [&] { rig.tell(); },
      [&] { pol_block_find_and_delete(context(), "load-index", POL_KIND_ROUTE, &changed); },
      kSequences);
  pol_unregister(&rig.user);
}

// The largest sizes, loaded, used and torn down once: nothing may grow faster than they do. A
// size's figures are nanoseconds an element, and a use.
void scale(benchmark::State& state, size_t count, const std::function<void()>& load, size_t uses,
           const std::function<void()>& use, const std::function<void()>& tear_down) {
  double load_time = 0;
  double use_time = 0;
  double down_time = 0;
  for (auto step : state) {
    load_time = seconds(load);
    use_time = seconds(use);
    down_time = seconds(tear_down);
    state.SetIterationTime(load_time + use_time + down_time);
  }
  state.counters["load"] = load_time * 1e9 / static_cast<double>(count);
  state.counters["use"] = use_time * 1e9 / static_cast<double>(uses);
  state.counters["down"] = down_time * 1e9 / static_cast<double>(count);
}

constexpr size_t kUses = 10000;

void execute(t_pol_user* user, t_pol_route_query* query) {
  if (pol_execute(user, query) != POL_ACCEPT) abort();
  pol_post_execute(query);
}

// `number`-th of many names.
void name_user(t_pol_registration* record, const char* policy, size_t number) {
  *record = {};
  ("scale-" + std::to_string(number)).copy(record->user_name, POL_NAME_SIZE - 1);
  std::string(policy).copy(record->policy_name, POL_NAME_SIZE - 1);
  record->kind = POL_KIND_ROUTE;
  record->direction = POL_DIR_OUT;
}

t_pol_block* find_policy(const char* name) {
  return pol_block_find(context(), name, POL_KIND_ROUTE, nullptr);
}

void delete_policy(const char* name) {
  uint8_t changed = 0;
  pol_block_find_and_delete(context(), name, POL_KIND_ROUTE, &changed);
}

void scale_prefixes(benchmark::State& state, size_t count) {
  const auto elements = make_elements(count, Spread::kRandom, 6);
  Rig rig("scale");
  uint8_t changed = 0;
  pol_entry_match_pfx_list_add(context(), rig.add_sequence(1), kList, &changed);
  rig.tell();
  const t_pol_route_attr attr = attributes();
  t_pol_route_query query = query_for(&attr);
  scale(
      state, count, [&] { add_to_list(kList, elements); }, kUses,
      [&] {
        for (size_t i = 0; i < kUses; ++i) {
          const t_pol_pfx_record& element = elements[i * 7919 % count];
          query.prefix = element.prefix;
          query.prefix.len = std::max(query.prefix.len, element.min);
          execute(rig.user, &query);
        }
      },
      [&] {
        for (const auto& element : elements) pol_pfx_list_del_entry(context(), kList, &element);
        pol_pfx_list_cfg_del(context(), kList);
      });
  pol_unregister(&rig.user);
  delete_policy("scale");
}

void scale_sequences(benchmark::State& state, size_t count) {
  Rig rig("scale");
  t_pol_route_attr attr = attributes();
  t_pol_route_query query = query_for(&attr);
  scale(
      state, count,
      [&] {
        uint8_t changed = 0;
        for (uint32_t i = 1; i <= count; ++i) {
          pol_entry_match_tag_add(context(), rig.add_sequence(i), i, &changed);
        }
        rig.tell();
      },
      kUses,
      [&] {
        for (size_t i = 0; i < kUses; ++i) {
          attr.tag = static_cast<uint32_t>(i * 7919 % count + 1);
          execute(rig.user, &query);
        }
      },
      [&] { delete_policy("scale"); });
  pol_unregister(&rig.user);
}

// Each of ten sequences, with a user.
void scale_policies(benchmark::State& state, size_t count) {
  std::vector<t_pol_user*> users(count);
  const auto name = [](size_t i) { return "scale-" + std::to_string(i); };
  const t_pol_route_attr attr = attributes();
  t_pol_route_query query = query_for(&attr);
  scale(
      state, count,
      [&] {
        for (size_t i = 0; i < count; ++i) {
          const std::string policy_name = name(i);
          t_pol_registration record;
          name_user(&record, policy_name.c_str(), i);
          users[i] = pol_register(&record);
          t_pol_block* policy = find_policy(policy_name.c_str());
          uint8_t changed = 0;
          for (uint32_t number = 1; number <= 10; ++number) {
            t_pol_entry* entry = pol_entry_find_or_create(context(), policy, number, &changed);
            pol_entry_match_add(context(), policy, entry, POL_MATCH_ROUTE, &changed);
            pol_entry_action_add(context(), entry, POL_ACCEPT, &changed);
            pol_entry_match_tag_add(context(), entry, number, &changed);
          }
        }
        pol_user_chg_list_notify_all(context());
      },
      kUses,
      [&] {
        for (size_t i = 0; i < kUses; ++i) execute(users[i % count], &query);
      },
      [&] {
        for (t_pol_user*& user : users) pol_unregister(&user);
        for (size_t i = 0; i < count; ++i) delete_policy(name(i).c_str());
      });
}

// Of one policy. A use is one user told; where the callback changes the policy, all are queued
// again.
void scale_users(benchmark::State& state, size_t count, bool callback_changes) {
  std::vector<t_pol_user*> users(count);
  Rig rig("scale");
  t_pol_entry* entry = rig.add_sequence(1);
  uint32_t tag = 0;
  const auto change = [&] {
    uint8_t changed = 0;
    pol_entry_match_tag_add(context(), entry, ++tag, &changed);
  };
  const std::function<void()> again = change;
  scale(
      state, count,
      [&] {
        for (size_t i = 0; i < count; ++i) {
          t_pol_registration record;
          name_user(&record, "scale", i);
          record.change = count_call;
          if (callback_changes) {
            record.user_arg = reinterpret_cast<uint64_t>(&again);
            record.change = [](t_pol_user*, uint64_t arg) {
              ++told;
              (*reinterpret_cast<const std::function<void()>*>(arg))();
            };
          }
          users[i] = pol_register(&record);
        }
      },
      count,
      [&] {
        const uint64_t before = told;
        change();
        pol_user_chg_list_notify_all(context());
        if (told - before != count) state.SkipWithError("not every user was told once");
      },
      [&] {
        for (t_pol_user*& user : users) pol_unregister(&user);
        delete_policy("scale");
      });
  pol_unregister(&rig.user);
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
  benchmark::RegisterBenchmark("W5/ipv6", v6_bytes)->Iterations(1);
  benchmark::RegisterBenchmark("W5/listed", listed_bytes)->Iterations(1);
  benchmark::RegisterBenchmark("W5/index", index_bytes)->Iterations(1);
  const auto grows = [](const char* name, auto work, std::initializer_list<size_t> sizes) {
    for (size_t count : sizes) {
      benchmark::RegisterBenchmark((name + std::to_string(count)).c_str(), work, count)
          ->UseManualTime()
          ->Iterations(1)
          ->Repetitions(3);
    }
  };
  grows("scale/prefixes/", scale_prefixes, {10000, 100000, 1000000});
  grows("scale/sequences/", scale_sequences, {1000, 10000, 100000});
  grows("scale/policies/", scale_policies, {100, 1000, 10000});
  const auto quiet = [](benchmark::State& state, size_t count) {
    scale_users(state, count, false);
  };
  const auto busy = [](benchmark::State& state, size_t count) { scale_users(state, count, true); };
  grows("scale/users/", quiet, {1000, 10000, 100000});
  grows("scale/changers/", busy, {400, 4000, 40000});
  for (size_t users : {100u, 1000u, 10000u}) {
    benchmark::RegisterBenchmark(("W6/" + std::to_string(users)).c_str(), batch, users, 10000u)
        ->UseManualTime();
  }
}

}  // namespace bench
