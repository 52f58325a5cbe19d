// SPDX-License-Identifier: Apache-2.0
//
// pfx_oracle.h - one prefix list element's answer as the rule is told: containment, then the
// operator on the length.
#pragma once

#include <cstring>

#include "kel/ipaddr.h"
#include "policy/pol_types.h"

inline bool same_prefix(const t_ipprefix& a, const t_ipprefix& b) {
  if (a.addr.family != b.addr.family || a.len != b.len) return false;
  if (a.addr.family == KEL_AF_INET) return a.addr.addr.v4 == b.addr.addr.v4;
  return memcmp(a.addr.addr.v6, b.addr.addr.v6, sizeof a.addr.addr.v6) == 0;
}

inline bool element_takes(const t_pol_pfx_record& element, const t_ipprefix& prefix) {
  const uint32_t op = element.op;
  const t_ipprefix nothing = {{element.prefix.addr.family, {}}, 0};
  const bool on_bounds =
      op == POL_PFX_RANGE || op == POL_PFX_XRANGE || (op >= POL_PFX_LE && op <= POL_PFX_GT);
  const bool everything = on_bounds && same_prefix(element.prefix, nothing);
  if (!everything && !ipprefix_is_contained(&prefix, &element.prefix)) return false;
  const unsigned length = prefix.len;
  switch (op) {
    case 0:
    case POL_PFX_EQ:
      return length == element.prefix.len;
    case POL_PFX_NE:
      return length != element.prefix.len;
    case POL_PFX_RANGE:
      return element.min <= length && length <= element.max;
    case POL_PFX_XRANGE:
      return element.min < length && length < element.max;
    case POL_PFX_LE:
      return length <= element.max;
    case POL_PFX_LT:
      return length < element.min;
    case POL_PFX_GE:
      return length >= element.min;
    case POL_PFX_GT:
      return length > element.min;
    default:
      return false;
  }
}
