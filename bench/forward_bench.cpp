// SPDX-License-Identifier: Apache-2.0
// Forwarding policies: sequences that name five objects each, built and torn down as a host's reader
// does it, by path; a change of an object that every sequence names. Beside that the same
// bookkeeping in the standard library's containers, which is the floor.
#include <benchmark/benchmark.h>

#include <array>
#include <list>
#include <map>
#include <memory>

#include "support/rig.h"

namespace bench {
namespace {

constexpr char kPolicy[] = "forward";
constexpr char kVpns[] = "vpns";
constexpr uint32_t kRoles = 5;
constexpr uint32_t kObjects = 100;

using Update = void (*)(t_pol_ctx*, const char*, uint32_t, const char*, uint32_t, const char*);
constexpr Update kUpdates[kRoles] = {pol_fwd_entry_app_list_upd, pol_fwd_entry_src_pfx_upd,
                                     pol_fwd_entry_dst_pfx_upd, pol_fwd_entry_dst_pfx6_upd,
                                     pol_fwd_entry_app_id_upd};

// The first role's object is everybody's.
const std::string& object_name(uint32_t role, uint32_t sequence) {
  static const auto names = [] {
    std::array<std::array<std::string, kObjects>, kRoles> made;
    for (uint32_t r = 0; r < kRoles; ++r) {
      for (uint32_t i = 0; i < kObjects; ++i) {
        made[r][i] = "object-" + std::to_string(r) + "-" + std::to_string(i);
      }
    }
    return made;
  }();
  return names[role][role == 0 ? 0 : sequence * 31 % kObjects];
}

uint32_t sequence_number(uint32_t i) { return i * 7919 % 65521; }

void build(uint32_t count) {
  uint8_t changed = 0;
  pol_block_find_or_create(context(), kPolicy, POL_KIND_DATA, &changed);
  if (pol_fwd_vpn_find_or_create(context(), kPolicy, POL_KIND_DATA, kVpns) == nullptr) abort();
  for (uint32_t i = 1; i <= count; ++i) {
    const uint32_t number = sequence_number(i);
    pol_fwd_entry_find_or_create(context(), kPolicy, POL_KIND_DATA, kVpns,
                                 static_cast<int32_t>(number));
    for (uint32_t role = 0; role < kRoles; ++role) {
      kUpdates[role](context(), kPolicy, POL_KIND_DATA, kVpns, number,
                     object_name(role, i).c_str());
    }
  }
  pol_user_chg_list_notify_all(context());
}

void tear_down() {
  uint8_t changed = 0;
  pol_block_find_and_delete(context(), kPolicy, POL_KIND_DATA, &changed);
  pol_user_chg_list_notify_all(context());
}

// A policy's user, told of every batch.
class Told {
 public:
  Told() {
    t_pol_registration record = {};
    std::string("told").copy(record.user_name, POL_NAME_SIZE - 1);
    std::string(kPolicy).copy(record.policy_name, POL_NAME_SIZE - 1);
    record.kind = POL_KIND_DATA;
    record.change = [](t_pol_user*, uint64_t arg) { ++*reinterpret_cast<uint64_t*>(arg); };
    record.user_arg = reinterpret_cast<uint64_t>(&times);
    context();
    user_ = pol_register(&record);
  }
  Told(const Told&) = delete;
  Told& operator=(const Told&) = delete;
  ~Told() {
    pol_unregister(&user_);
    tear_down();
  }

  uint64_t times = 0;

 private:
  t_pol_user* user_;
};

void life(benchmark::State& state, uint32_t count, bool building) {
  Told told;
  for (auto step : state) {
    double build_time = seconds([count] { build(count); });
    double teardown_time = seconds(tear_down);
    state.SetIterationTime(building ? build_time : teardown_time);
  }
  if (told.times != 2 * static_cast<uint64_t>(state.iterations()))
    state.SkipWithError("not told once a batch");
}

void change(benchmark::State& state, uint32_t count) {
  Told told;
  build(count);
  told.times = 0;
  for (auto step : state) pol_app_list_entry_change(context(), object_name(0, 0).c_str());
  if (told.times != static_cast<uint64_t>(state.iterations()))
    state.SkipWithError("not told once a change");
}

// The floor. A sequence has as many bytes as one that the library keeps of it.
struct Record {
  std::array<std::list<Record*>::iterator, kRoles> places;
  std::array<std::list<Record*>*, kRoles> objects;
  bool* told;
  std::array<char, 1024> rest;
};

struct Plain {
  std::map<std::string, std::map<uint32_t, std::unique_ptr<Record>>> vpns;
  std::array<std::map<std::string, std::list<Record*>>, kRoles> objects;
  bool told = false;

  void build(uint32_t count) {
    for (uint32_t i = 1; i <= count; ++i) {
      auto& record = vpns[kVpns][sequence_number(i)];
      record = std::make_unique<Record>();
      record->told = &told;
      for (uint32_t role = 0; role < kRoles; ++role) {
        Record* found = vpns[kVpns][sequence_number(i)].get();  // each update goes by its path
        auto& users = objects[role][object_name(role, i)];
        found->objects[role] = &users;
        found->places[role] = users.insert(users.end(), found);
      }
    }
  }

  void tear_down() {
    for (auto& sequence : vpns[kVpns]) {
      Record& record = *sequence.second;
      for (uint32_t role = 0; role < kRoles; ++role) {
        record.objects[role]->erase(record.places[role]);
      }
      sequence.second.reset();
    }
    vpns.clear();
    for (auto& family : objects) family.clear();
  }
};

void plain_life(benchmark::State& state, uint32_t count, bool building) {
  Plain plain;
  for (auto step : state) {
    double build_time = seconds([&] { plain.build(count); });
    double teardown_time = seconds([&] { plain.tear_down(); });
    state.SetIterationTime(building ? build_time : teardown_time);
  }
}

void plain_change(benchmark::State& state, uint32_t count) {
  Plain plain;
  plain.build(count);
  for (auto step : state) {
    for (Record* record : plain.objects[0][object_name(0, 0)]) *record->told = true;
    benchmark::DoNotOptimize(plain.told);
    benchmark::ClobberMemory();
  }
}

}  // namespace

void register_forwarding() {
  for (uint32_t count : {1000u, 10000u}) {
    const std::string size = std::to_string(count);
    auto name = [&size](const char* work) { return "W8/" + (work + ("/" + size)); };
    for (bool building : {true, false}) {
      const std::string work = building ? "build" : "teardown";
      benchmark::RegisterBenchmark(name(work.c_str()).c_str(), life, count, building)
          ->UseManualTime();
      benchmark::RegisterBenchmark(name(("floor/" + work).c_str()).c_str(), plain_life, count,
                                   building)
          ->UseManualTime();
    }
    benchmark::RegisterBenchmark(name("change").c_str(), change, count);
    benchmark::RegisterBenchmark(name("floor/change").c_str(), plain_change, count);
  }
}

}  // namespace bench
