// SPDX-License-Identifier: Apache-2.0
//
// naive.h - the prefix-list clause by a walk over the elements, first hit wins: the work that an
// index saves.
#pragma once

#include <vector>

#include "policy/policy.h"

namespace bench {

bool walk_matches(const std::vector<t_pol_pfx_record>& elements, const t_ipprefix& prefix);

}  // namespace bench
