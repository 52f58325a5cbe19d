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

// The largest sizes, made and unmade once: nothing may grow faster than they do.
void scale(benchmark::State& state, const std::function<void()>& make,
           const std::function<void()>& unmake) {
  for (auto step : state) {
    state.SetIterationTime(seconds([&] {
      make();
      unmake();
    }));
  }
}

void scale_prefixes(benchmark::State& state, size_t count) {
  const auto elements = make_elements(count, Spread::kRandom, 6);
  scale(
      state, [&] { add_to_list(kList, elements); },
      [&] {
        for (const auto& element : elements) pol_pfx_list_del_entry(context(), kList, &element);
        pol_pfx_list_cfg_del(context(), kList);
      });
}

void scale_sequences(benchmark::State& state, size_t count) {
  Rig rig("scale");
  uint8_t changed = 0;
  scale(
      state,
      [&] {
        for (uint32_t i = 1; i <= count; ++i) {
          pol_entry_match_tag_add(context(), rig.add_sequence(i), i, &changed);
        }
        rig.tell();
      },
      [&] { pol_block_find_and_delete(context(), "scale", POL_KIND_ROUTE, &changed); });
  pol_unregister(&rig.user);
}

void scale_policies(benchmark::State& state, size_t count) {
  uint8_t changed = 0;
  const auto name = [](size_t i) { return "scale-" + std::to_string(i); };
  scale(
      state,
      [&] {
        for (size_t i = 0; i < count; ++i) {
          t_pol_block* policy =
              pol_block_find_or_create(context(), name(i).c_str(), POL_KIND_ROUTE, &changed);
          for (uint32_t number = 1; number <= 10; ++number) {
            t_pol_entry* entry = pol_entry_find_or_create(context(), policy, number, &changed);
            pol_entry_match_tag_add(context(), entry, number, &changed);
          }
        }
        pol_user_chg_list_notify_all(context());
      },
      [&] {
        for (size_t i = 0; i < count; ++i) {
          pol_block_find_and_delete(context(), name(i).c_str(), POL_KIND_ROUTE, &changed);
        }
      });
}

void scale_users(benchmark::State& state, size_t count) {
  std::vector<t_pol_user*> users(count);
  uint8_t changed = 0;
  scale(
      state,
      [&] {
        for (size_t i = 0; i < count; ++i) {
          t_pol_registration record = {};
          ("scale-" + std::to_string(i)).copy(record.user_name, POL_NAME_SIZE - 1);
          std::string("scale").copy(record.policy_name, POL_NAME_SIZE - 1);
          record.kind = POL_KIND_ROUTE;
          record.direction = POL_DIR_OUT;
          users[i] = pol_register(&record);
        }
        t_pol_block* policy = pol_block_find(context(), "scale", POL_KIND_ROUTE, nullptr);
        pol_entry_find_or_create(context(), policy, 1, &changed);
        pol_user_chg_list_notify_all(context());
      },
      [&] {
        for (t_pol_user*& user : users) pol_unregister(&user);
        pol_block_find_and_delete(context(), "scale", POL_KIND_ROUTE, &changed);
      });
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
          ->Iterations(1);
    }
  };
  grows("scale/prefixes/", scale_prefixes, {10000, 100000, 1000000});
  grows("scale/sequences/", scale_sequences, {1000, 10000, 100000});
  grows("scale/policies/", scale_policies, {100, 1000, 10000});
  grows("scale/users/", scale_users, {1000, 10000, 100000});
  for (size_t users : {100u, 1000u, 10000u}) {
    benchmark::RegisterBenchmark(("W6/" + std::to_string(users)).c_str(), batch, users, 10000u)
        ->UseManualTime();
  }
}

}  // namespace bench
