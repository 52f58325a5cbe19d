// SPDX-License-Identifier: Apache-2.0
#include "tloc_resolver.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "input_error.h"
#include "json_line.h"
#include "line_reader.h"
#include "route_reader.h"

namespace polctl {

namespace {

// The library's callback is handed nothing of ours, so what it needs is the process's.
struct Resolvable {
  bool loaded = false;
  std::vector<t_pol_tloc_result_entry> tlocs;  // ordered by before(); equals in the file's order
};

Resolvable& resolvable() {
  static Resolvable instance;
  return instance;
}

bool before(const t_pol_tloc_result_entry& a, const t_pol_tloc_result_entry& b) {
  if (a.tloc.addr.v4 != b.tloc.addr.v4) return a.tloc.addr.v4 < b.tloc.addr.v4;
  return a.tloc.color < b.tloc.color;
}

}  // namespace

void load_resolvable_tlocs(const std::string& path) {
  LineReader lines(path);
  JsonLine json;
  std::string_view line;
  size_t start = 0;
  std::vector<t_pol_tloc_result_entry> tlocs;
  while (next_line_with_text(&lines, &line, &start)) {
    t_pol_tloc_result_entry tloc;
    try {
      read_tloc_line(line.substr(start), &json, &tloc);
    } catch (const LineFaultError& error) {
      throw_at_line(lines, start, error.fault);
    }
    if (tloc.tloc.family == KEL_AF_INET) tlocs.push_back(tloc);
  }
  std::stable_sort(tlocs.begin(), tlocs.end(), before);
  resolvable() = {true, std::move(tlocs)};
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

}  // namespace polctl
