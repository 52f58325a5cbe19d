// SPDX-License-Identifier: Apache-2.0
//
// What is asked of all routes: sets of routes built, policies searched, checked and compared, and how many
// classes and nodes that takes as lists and policies grow. Each workload is a process of its own, so that
// memory is its own too.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "support/elements.h"
#include "support/mixed_policy.h"
#include "support/rig.h"
#include "tool/proof/difference.h"
#include "tool/proof/proof_diff.h"
#include "tool/proof/proof_findings.h"

namespace {

using namespace polctl;

t_pol_ctx* ctx() { return bench::context(); }

double megabytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

// `classes` and `nodes` are 0 where there are none.
void print_row(const std::string& what, double seconds, size_t classes, size_t nodes) {
  printf("%-56s %8.1f ms %9zu classes %9zu nodes %5.0f MB\n", what.c_str(), seconds * 1000, classes,
         nodes, megabytes());
  fflush(stdout);
}

void fail(const char* what) {
  printf("  %s\n", what);
  exit(1);
}

// The set that each sequence decides; false when that takes too long to be known.
bool build(const std::string& what, const Model& model, const std::string& policy) {
  Bounds bounds;
  bounds.time = std::chrono::seconds(20);
  size_t classes = 0;
  size_t nodes = 0;
  std::string unknown;
  double taken = bench::seconds([&] {
    RouteSpace space(bounds);
    PolicyProof proof(&space, *model.policy(policy, POL_KIND_ROUTE));
    try {
      space.cut();
      for (size_t i = 0; i < proof.size(); ++i) proof.decided(i);
    } catch (const NotKnown& bound) {
      unknown = bound.what();
    }
    classes = space.classes();
    nodes = BddTable::nodes();
  });
  print_row("sets of " + what, taken, classes, nodes);
  if (!unknown.empty()) printf("  not known: %s\n", unknown.c_str());
  return unknown.empty();
}

// A route of each sequence that accepts some with a tag.
void search(const std::string& what, const Model& model, const std::string& policy) {
  size_t classes = 0;
  size_t nodes = 0;
  double taken = bench::seconds([&] {
    RouteSpace space({});
    PolicyProof proof(&space, *model.policy(policy, POL_KIND_ROUTE));
    Atom tag;
    tag.field = Field::kTag;
    tag.kind = Atom::Kind::kValue;
    tag.value.number = 5;
    const size_t tagged = space.add(tag);
    space.cut();
    for (size_t i = 0; i < proof.size(); ++i) {
      RouteSet routes = proof.decided(i) & space.atom(tagged);
      if (!routes.empty()) space.show(routes);
    }
    classes = space.classes();
    nodes = BddTable::nodes();
  });
  print_row("search of " + what, taken, classes, nodes);
}

void check(const std::string& what, const Model& model) {
  size_t found = 0;
  std::vector<std::string> unknown;
  double taken =
      bench::seconds([&] { found = proof_findings(model, POL_DIR_NONE, {}, &unknown).size(); });
  print_row("check of " + what + ": " + std::to_string(found) + " findings", taken, 0, 0);
  for (const std::string& why : unknown) printf("  not known: %s\n", why.c_str());
}

void compare(const std::string& what, const Model& before, const Model& after,
             const std::string& was, const std::string& is) {
  size_t classes = 0;
  size_t nodes = 0;
  size_t found = 0;
  double taken = bench::seconds([&] {
    RouteSpace space({});
    PolicyProof old(&space, *before.policy(was, POL_KIND_ROUTE));
    PolicyProof now(&space, *after.policy(is, POL_KIND_ROUTE));
    space.cut();
    for (const Difference& each : differences(&space, old, now, {POL_DIR_IN, POL_DIR_OUT})) {
      space.show(each.routes);
      ++found;
    }
    classes = space.classes();
    nodes = BddTable::nodes();
  });
  print_row("diff for " + what, taken, classes, nodes);
  if (found == 0) fail("they should differ");
}

void add_sequence(t_pol_block* block, uint32_t number, const std::string& list) {
  uint8_t changed = 0;
  t_pol_entry* entry = pol_entry_find_or_create(ctx(), block, number, &changed);
  pol_entry_match_add(ctx(), block, entry, POL_MATCH_ROUTE, &changed);
  pol_entry_match_pfx_list_add(ctx(), entry, list.c_str(), &changed);
  pol_entry_action_add(ctx(), entry, POL_ACCEPT, &changed);
  pol_entry_set_tag_add(ctx(), entry, number, &changed);
}

t_pol_block* policy_of(const std::string& name) {
  uint8_t changed = 0;
  return pol_block_find_or_create(ctx(), name.c_str(), POL_KIND_ROUTE, &changed);
}

// A policy whose sequences are a list each.
void list_policy(const std::string& name, const std::vector<std::string>& lists) {
  uint32_t number = 0;
  for (const std::string& list : lists) add_sequence(policy_of(name), ++number, list);
  pol_user_chg_list_notify_all(ctx());
}

template <uint32_t kSequences, bool kUneven>
void mixed() {
  bench::MixedPolicy::get(kSequences, true, kUneven);
  const std::string policy = (kUneven ? "W2m-u" : "W2m-") + std::to_string(kSequences);
  const std::string what = std::to_string(kSequences) + " mixed sequences, lists of " +
                           (kUneven ? "50 to 100,000" : "50");
  Model model;
  model.read();
  if (!build(what, model, policy)) return;
  search(what, model, policy);
  check(what, model);
}

void lists() {
  for (size_t elements : {50u, 1000u, 10'000u, 100'000u}) {
    const std::string name = "E" + std::to_string(elements);
    const std::string what = "a list of " + std::to_string(elements);
    auto records = bench::make_elements(elements, bench::Spread::kRandom, elements);
    bench::add_to_list(name, records);
    list_policy(name, {name});
    Model model;
    model.read();
    build(what, model, name);
    check(what, model);
    pol_pfx_list_del_entry(ctx(), name.c_str(), &records[elements / 2]);
    records[elements / 2].prefix.addr.addr.v4 ^= 1u << 31;
    pol_pfx_list_entry_add(ctx(), name.c_str(), &records[elements / 2]);
    Model after;
    after.read();
    compare("one changed of " + std::to_string(elements), model, after, name, name);
    uint8_t changed = 0;
    pol_block_find_and_delete(ctx(), name.c_str(), POL_KIND_ROUTE, &changed);
    pol_pfx_list_cfg_del(ctx(), name.c_str());
  }
}

void countries() {
  std::vector<std::string> names;
  for (const auto& country : bench::country_lists()) {
    bench::add_to_list("country-" + country.name, country.elements);
    names.push_back("country-" + country.name);
  }
  list_policy("countries", names);
  Model model;
  double taken = bench::seconds([&] { model.read(); });
  print_row("reading 238 country lists from the library", taken, 0, 0);
  build("238 country lists", model, "countries");
  search("238 country lists", model, "countries");
  check("238 country lists", model);
  t_pol_pfx_record record = {};
  record.prefix = {{KEL_AF_INET, {.v4 = 0xcb007100}}, 24};
  record.op = POL_PFX_EQ;
  pol_pfx_list_entry_add(ctx(), names[10].c_str(), &record);
  Model after;
  after.read();
  compare("one element more of one of 238", model, after, "countries", "countries");
}

// 500 policies of 20 sequences over 60 lists, some of which are copies.
void network() {
  constexpr uint32_t kPolicies = 500;
  bench::Random random(3);
  for (uint32_t i = 0; i < 60; ++i) {
    const std::string name = "n" + std::to_string(i);
    bench::add_to_list(name, bench::make_elements(50, bench::Spread::kRandom, i));
    pol_site_list_add_entry(ctx(), name.c_str(), i * 10, i * 10 + 12);
  }
  for (uint32_t i = 0; i < kPolicies; ++i) {
    if (i % 50 == 49) random = bench::Random(i - 1);  // as the one before
    if (i % 50 == 48) random = bench::Random(i);
    uint8_t changed = 0;
    t_pol_block* block = policy_of("net-" + std::to_string(i));
    for (uint32_t number = 10; number <= 200; number += 10) {
      t_pol_entry* entry = pol_entry_find_or_create(ctx(), block, number, &changed);
      pol_entry_match_add(ctx(), block, entry, POL_MATCH_ROUTE, &changed);
      const std::string list = "n" + std::to_string(random.below(60));
      if (random.below(3) > 0) pol_entry_match_pfx_list_add(ctx(), entry, list.c_str(), &changed);
      if (random.below(3) == 0) pol_entry_match_site_list_add(ctx(), entry, list.c_str(), &changed);
      if (random.below(3) == 0) pol_entry_match_tag_add(ctx(), entry, random.below(9), &changed);
      pol_entry_action_add(ctx(), entry, random.below(4) == 0 ? POL_REJECT : POL_ACCEPT, &changed);
      pol_entry_set_preference_add(ctx(), entry, random.below(5), &changed);
    }
  }
  pol_user_chg_list_notify_all(ctx());
  const std::string what = std::to_string(kPolicies) + " policies";
  Model model;
  model.read();
  check(what, model);
  t_pol_pfx_record record = {};
  record.prefix = {{KEL_AF_INET, {.v4 = 0xcb007100}}, 24};
  record.op = POL_PFX_EQ;
  pol_pfx_list_entry_add(ctx(), "n7", &record);
  Model after;
  after.read();
  size_t found = 0;
  double taken = bench::seconds(
      [&] { found = compare(model, after, "", POL_DIR_NONE, {}).differences.size(); });
  print_row("diff of " + what + ": " + std::to_string(found) + " kinds of routes", taken, 0, 0);
}

}  // namespace

int main() {
  printf("What is true of all routes\n");
  fflush(stdout);
  for (auto* workload : {mixed<100, false>, mixed<1000, false>, lists, countries, network,
                         mixed<100, true>, mixed<1000, true>}) {
    const pid_t child = fork();
    if (child == 0) {
      workload();
      exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return 1;
  }
  return 0;
}
