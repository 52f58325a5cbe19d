// SPDX-License-Identifier: Apache-2.0
#include "tloc_reader.h"

#include <string_view>
#include <vector>

#include "host/input_error.h"
#include "host/tloc_resolver.h"
#include "json_line.h"
#include "line_reader.h"
#include "route_reader.h"

namespace polctl {

size_t load_resolvable_tlocs(const std::string& path) {
  LineReader lines(path);
  JsonLine json;
  std::string_view line;
  size_t start = 0;
  std::vector<ResolvableTloc> tlocs;
  while (next_line_with_text(&lines, &line, &start)) {
    ResolvableTloc tloc;
    try {
      read_tloc_line(line.substr(start), &json, &tloc);
    } catch (const LineFaultError& error) {
      throw_at_line(lines, start, error.fault);
    }
    tlocs.push_back(tloc);
  }
  set_resolvable_tlocs(tlocs);
  return tlocs.size();
}

}  // namespace polctl
