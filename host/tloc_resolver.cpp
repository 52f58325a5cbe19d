// SPDX-License-Identifier: Apache-2.0
#include "tloc_resolver.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace polctl {

namespace {

// The library's callback is handed nothing of ours, so what it needs is the process's.
struct Resolvable {
  bool loaded = false;
  std::vector<t_pol_tloc_result_entry> tlocs;  // IPv4, by before(); equals as given
  std::vector<ResolvableTloc> all;             // as given
};

Resolvable& resolvable() {
  static Resolvable instance;
  return instance;
}

// A TLOC without an encapsulation takes any.
bool asks_for(const t_tloc_id& wanted, const t_tloc_id& tloc) {
  bool same = wanted.family == KEL_AF_INET6
                  ? memcmp(wanted.addr.v6, tloc.addr.v6, sizeof wanted.addr.v6) == 0
                  : wanted.addr.v4 == tloc.addr.v4;
  return same && wanted.family == tloc.family && wanted.color == tloc.color &&
         (wanted.encap == 0 || wanted.encap == tloc.encap);
}

bool before(const t_pol_tloc_result_entry& a, const t_pol_tloc_result_entry& b) {
  if (a.tloc.addr.v4 != b.tloc.addr.v4) return a.tloc.addr.v4 < b.tloc.addr.v4;
  return a.tloc.color < b.tloc.color;
}

}  // namespace

void set_resolvable_tlocs(const std::vector<ResolvableTloc>& tlocs) {
  std::vector<t_pol_tloc_result_entry> sorted;
  for (const ResolvableTloc& tloc : tlocs) {
    if (tloc.entry.tloc.family == KEL_AF_INET) sorted.push_back(tloc.entry);
  }
  std::stable_sort(sorted.begin(), sorted.end(), before);
  resolvable() = {true, std::move(sorted), tlocs};
}

void resolve_tloc(uint16_t /*id*/, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t /*vpn*/,
                  uint16_t /*service*/, t_pol_tloc_result* result) {
  t_pol_tloc_result_entry wanted = {};
  wanted.tloc.family = KEL_AF_INET;
  wanted.tloc.addr.v4 = ipv4;
  wanted.tloc.color = color;
  wanted.tloc.encap = encap;
  const Resolvable& known = resolvable();
  if (!known.loaded) {
    if (result->count < POL_MAX_TLOC) result->entry[result->count++] = wanted;
    return;
  }
  auto [first, last] = std::equal_range(known.tlocs.begin(), known.tlocs.end(), wanted, before);
  for (auto tloc = first; tloc != last && result->count < POL_MAX_TLOC; ++tloc) {
    if (encap == 0 || tloc->tloc.encap == encap) result->entry[result->count++] = *tloc;
  }
}

uint32_t resolve_service(uint32_t /*one*/, uint32_t ipv4, uint8_t color, uint8_t encap,
                         uint64_t vpn, uint16_t service, uint8_t /*local*/, uint32_t* label,
                         t_tloc_id* tloc, t_pol_service_result* result, uint32_t /*zero*/) {
  result->count = 0;
  bool of_tloc = (ipv4 | color | encap) != 0 || tloc->family == KEL_AF_INET6;
  for (const ResolvableTloc& known : resolvable().all) {
    if (of_tloc) {
      if (!asks_for(*tloc, known.entry.tloc)) continue;
      *label = known.entry.label;
      break;
    }
    if (known.service != service || (known.vpn != kAnyVpn && known.vpn != vpn)) continue;
    if (result->count == 0) *label = known.entry.label;
    if (result->count == 0) *tloc = known.entry.tloc;
    if (result->count < POL_MAX_TLOC) result->entry[result->count++] = known.entry;
  }
  return 0;
}

}  // namespace polctl
