// SPDX-License-Identifier: Apache-2.0
//
// elements.h - prefix-list elements and routes, generated from a fixed seed or read from the real
// prefixes.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "policy/policy.h"

namespace bench {

// The same numbers everywhere: the standard's distributions are not.
class Random {
 public:
  explicit Random(uint64_t seed) : engine_(seed) {}
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine_() % limit); }
  uint32_t between(uint32_t low, uint32_t high) { return low + below(high - low + 1); }
  uint32_t word() { return static_cast<uint32_t>(engine_() >> 32); }

 private:
  std::mt19937_64 engine_;
};

enum class Spread {
  kRandom,     // anywhere, 16 to 24 bits long
  kClustered,  // 24 to 28 bits long, all within four prefixes of 8 bits that are elements too
};

// `count` distinct IPv4 elements: a third exact, a third GE, a third LE or RANGE.
std::vector<t_pol_pfx_record> make_elements(size_t count, Spread spread, uint64_t seed);

// `count` prefixes, every other one a hit, the others as near to the elements but none.
std::vector<t_ipprefix> make_routes(const std::vector<t_pol_pfx_record>& elements, size_t count,
                                    uint64_t seed);

struct CountryList {
  std::string name;
  std::vector<t_pol_pfx_record> elements;  // LE the family's width: what lies in the country's
};

// The real lists of both families, in the order of their names. Ends the program without the data.
const std::vector<CountryList>& country_lists();

void add_to_list(const std::string& list, const std::vector<t_pol_pfx_record>& elements);

}  // namespace bench
