// SPDX-License-Identifier: Apache-2.0
#include "support/elements.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <utility>

#include "support/naive.h"
#include "support/rig.h"

namespace bench {
namespace {

constexpr uint32_t kClusters[] = {0x0a000000, 0x2d000000, 0x67000000, 0xc0000000};

uint32_t mask(unsigned length) { return length == 0 ? 0 : ~uint32_t{0} << (32 - length); }

t_ipprefix prefix_v4(uint32_t address, unsigned length) {
  t_ipprefix prefix = {};
  prefix.addr.family = KEL_AF_INET;
  prefix.addr.addr.v4 = address & mask(length);
  prefix.len = static_cast<uint8_t>(length);
  return prefix;
}

t_ipprefix random_prefix(Random* random, Spread spread) {
  if (spread == Spread::kRandom) return prefix_v4(random->word(), random->between(16, 24));
  uint32_t cluster = kClusters[random->below(std::size(kClusters))];
  return prefix_v4(cluster | random->below(1u << 24), random->between(24, 28));
}

t_pol_pfx_record exact(const t_ipprefix& prefix) { return {POL_PFX_EQ, prefix, 0, 0}; }

t_pol_pfx_record element_of(const t_ipprefix& prefix, size_t turn, Random* random) {
  auto low = static_cast<uint8_t>(prefix.len + random->below(3));
  auto high = static_cast<uint8_t>(low + random->below(3));
  switch (turn % 6) {
    case 0:
    case 3:
      return exact(prefix);
    case 1:
    case 4:
      return {POL_PFX_GE, prefix, low, 0};
    case 2:
      return {POL_PFX_LE, prefix, 0, high};
    default:
      return {POL_PFX_RANGE, prefix, low, high};
  }
}

// A prefix that the element takes.
t_ipprefix hit_of(const t_pol_pfx_record& element, Random* random) {
  unsigned length = element.prefix.len;
  if (element.op == POL_PFX_GE) length = random->between(element.min, 32);
  if (element.op == POL_PFX_LE) length = random->between(length, element.max);
  if (element.op == POL_PFX_RANGE) length = random->between(element.min, element.max);
  uint32_t host = random->word() & ~mask(element.prefix.len);
  return prefix_v4(element.prefix.addr.addr.v4 | host, length);
}

bool parse_prefix(char* text, t_ipprefix* prefix) {
  char* slash = strchr(text, '/');
  if (slash == nullptr) return false;
  *slash = '\0';
  *prefix = {};
  prefix->len = static_cast<uint8_t>(strtoul(slash + 1, nullptr, 10));
  in_addr v4 = {};
  if (inet_pton(AF_INET, text, &v4) == 1) {
    prefix->addr.family = KEL_AF_INET;
    prefix->addr.addr.v4 = ntohl(v4.s_addr);
    return true;
  }
  prefix->addr.family = KEL_AF_INET6;
  return inet_pton(AF_INET6, text, prefix->addr.addr.v6) == 1;
}

void read_countries(const char* file, std::map<std::string, std::vector<t_pol_pfx_record>>* lists) {
  std::ifstream in(std::string(BENCH_DATA_DIR "/") + file);
  std::string country;
  std::string text;
  while (in >> country >> text) {
    t_pol_pfx_record element = {POL_PFX_LE, {}, 0, 0};
    if (!parse_prefix(text.data(), &element.prefix)) continue;
    element.max = element.prefix.addr.family == KEL_AF_INET ? 32 : 128;
    (*lists)[country].push_back(element);
  }
}

}  // namespace

std::vector<t_pol_pfx_record> make_elements(size_t count, Spread spread, uint64_t seed) {
  Random random(seed);
  std::vector<t_pol_pfx_record> elements;
  if (spread == Spread::kClustered) {
    for (uint32_t cluster : kClusters) elements.push_back(exact(prefix_v4(cluster, 8)));
  }
  std::set<std::pair<uint32_t, uint8_t>> seen;
  while (elements.size() < count) {
    t_ipprefix prefix = random_prefix(&random, spread);
    if (!seen.emplace(prefix.addr.addr.v4, prefix.len).second) continue;
    elements.push_back(element_of(prefix, elements.size(), &random));
  }
  return elements;
}

std::vector<t_ipprefix> make_routes(const std::vector<t_pol_pfx_record>& elements, size_t count,
                                    uint64_t seed) {
  Random random(seed);
  std::vector<t_ipprefix> routes;
  while (routes.size() < count) {
    const t_pol_pfx_record& element =
        elements[random.below(static_cast<uint32_t>(elements.size()))];
    t_ipprefix route = hit_of(element, &random);
    if (routes.size() % 2 == 1) {
      // The same length and first byte elsewhere: a miss that goes as deep as its neighbours.
      uint32_t elsewhere = random.word() & ~mask(8);
      route = prefix_v4((route.addr.addr.v4 & mask(8)) | elsewhere, route.len);
      if (walk_matches(elements, route)) continue;
    }
    routes.push_back(route);
  }
  return routes;
}

const std::vector<CountryList>& country_lists() {
  static const std::vector<CountryList> lists = [] {
    std::map<std::string, std::vector<t_pol_pfx_record>> by_name;
    read_countries("country-prefixes-v4.txt", &by_name);
    read_countries("country-prefixes-v6.txt", &by_name);
    if (by_name.size() < 200) {
      fprintf(stderr, "no real prefixes in %s\n", BENCH_DATA_DIR);
      exit(1);
    }
    std::vector<CountryList> made;
    made.reserve(by_name.size());
    for (auto& [name, elements] : by_name) made.push_back({name, std::move(elements)});
    return made;
  }();
  return lists;
}

void add_to_list(const std::string& list, const std::vector<t_pol_pfx_record>& elements) {
  for (const t_pol_pfx_record& element : elements) {
    if (pol_pfx_list_entry_add(context(), list.c_str(), &element) != POL_OK) abort();
  }
}

}  // namespace bench
