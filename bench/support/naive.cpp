// SPDX-License-Identifier: Apache-2.0
#include "support/naive.h"
#include "kel/ipaddr.h"

namespace bench {
namespace {

bool length_matches(const t_pol_pfx_record& element, uint8_t length) {
  switch (element.op) {
    case POL_PFX_EQ:
      return length == element.prefix.len;
    case POL_PFX_RANGE:
      return element.min <= length && length <= element.max;
    case POL_PFX_LE:
      return length <= element.max;
    case POL_PFX_GE:
      return length >= element.min;
    default:
      return false;  // the workloads have no others
  }
}

}  // namespace

bool walk_matches(const std::vector<t_pol_pfx_record>& elements, const t_ipprefix& prefix) {
  for (const t_pol_pfx_record& element : elements) {
    if (ipprefix_is_contained(&prefix, &element.prefix) && length_matches(element, prefix.len)) {
      return true;
    }
  }
  return false;
}

}  // namespace bench
