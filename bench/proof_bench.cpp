// SPDX-License-Identifier: Apache-2.0
//
// What is asked of all routes: sets of routes built, policies searched and compared, and how many classes and
// nodes that takes as lists and policies grow.
#include <sys/resource.h>

#include <cstdio>

#include "support/elements.h"
#include "support/mixed_policy.h"
#include "support/rig.h"
#include "tool/proof/difference.h"

namespace {

using namespace polctl;

t_pol_ctx* ctx() { return bench::context(); }

double megabytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

// `classes` and `nodes` are 0 where there are none.
void print_row(const char* what, double seconds, size_t classes, size_t nodes) {
  printf("%-52s %8.0f ms %10zu classes %10zu nodes %6.0f MB\n", what, seconds * 1000, classes,
         nodes, megabytes());
  fflush(stdout);
}

// The set that each sequence decides.
void build(const char* what, const Model& model, const std::string& policy) {
  size_t classes = 0;
  size_t nodes = 0;
  double taken = bench::seconds([&] {
    RouteSpace space({});
    PolicyProof proof(&space, *model.policy(policy, POL_KIND_ROUTE));
    space.cut();
    for (size_t i = 0; i < proof.size(); ++i) proof.decided(i);
    classes = space.classes();
    nodes = BddTable::nodes();
  });
  print_row(what, taken, classes, nodes);
}

// A policy whose sequences are a list each.
void list_policy(const std::string& name, const std::vector<std::string>& lists) {
  uint8_t changed = 0;
  t_pol_block* block = pol_block_find_or_create(ctx(), name.c_str(), POL_KIND_ROUTE, &changed);
  uint32_t number = 0;
  for (const std::string& list : lists) {
    t_pol_entry* entry = pol_entry_find_or_create(ctx(), block, ++number, &changed);
    pol_entry_match_add(ctx(), block, entry, POL_MATCH_ROUTE, &changed);
    pol_entry_match_pfx_list_add(ctx(), entry, list.c_str(), &changed);
    pol_entry_action_add(ctx(), entry, POL_ACCEPT, &changed);
    pol_entry_set_tag_add(ctx(), entry, number, &changed);
  }
  pol_user_chg_list_notify_all(ctx());
}

void compare(const char* what, const Model& model, const char* was, const char* is) {
  size_t classes = 0;
  size_t nodes = 0;
  size_t found = 0;
  double taken = bench::seconds([&] {
    RouteSpace space({});
    PolicyProof before(&space, *model.policy(was, POL_KIND_ROUTE));
    PolicyProof after(&space, *model.policy(is, POL_KIND_ROUTE));
    space.cut();
    for (const Difference& each : differences(&space, before, after, {POL_DIR_IN, POL_DIR_OUT})) {
      space.show(each.routes);
      ++found;
    }
    classes = space.classes();
    nodes = BddTable::nodes();
  });
  print_row(what, taken, classes, nodes);
  if (found == 0) printf("  they should differ\n");
}

}  // namespace

int main() {
  printf("What is true of all routes\n");
  for (uint32_t sequences : {100u, 1000u}) {
    bench::MixedPolicy::get(sequences, true);
    Model model;
    model.read();
    build(("sets of " + std::to_string(sequences) + " mixed sequences, lists of 50").c_str(), model,
          "W2m-" + std::to_string(sequences));
  }
  for (size_t elements : {50u, 1000u, 10'000u, 100'000u}) {
    const std::string name = "E" + std::to_string(elements);
    auto records = bench::make_elements(elements, bench::Spread::kRandom, elements);
    bench::add_to_list(name, records);
    list_policy(name, {name});
    records[elements / 2].prefix.addr.addr.v4 ^= 1u << 31;
    bench::add_to_list(name + "-new", records);
    list_policy(name + "-new", {name + "-new"});
    Model model;
    model.read();
    build(("sets of a list of " + std::to_string(elements)).c_str(), model, name);
    compare(("diff for one changed of " + std::to_string(elements)).c_str(), model, name.c_str(),
            (name + "-new").c_str());
  }
  std::vector<std::string> names;
  for (const auto& country : bench::country_lists()) {
    bench::add_to_list("country-" + country.name, country.elements);
    names.push_back("country-" + country.name);
  }
  list_policy("countries", names);
  std::swap(names[10], names[20]);
  list_policy("countries-new", names);
  Model model;
  double taken = bench::seconds([&] { model.read(); });
  print_row("reading all of that from the library", taken, 0, 0);
  build("sets of 238 country lists", model, "countries");
  compare("diff of two of their orders", model, "countries", "countries-new");
  return 0;
}
