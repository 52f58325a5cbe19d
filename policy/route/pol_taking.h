// SPDX-License-Identifier: Apache-2.0
//
// pol_taking.h - which element of a list took a route's value, for those who tell of evaluation.
#pragma once

#include "lists/pol_list_internal.h"

namespace pol {

// In the order in which they are tested.
inline constexpr uint32_t kClauses[] = {
    POL_MATCH_F_TAG,        POL_MATCH_F_PREF,      POL_MATCH_F_DOMAIN,   POL_MATCH_F_GROUP,
    POL_MATCH_F_VPN_ID,     POL_MATCH_F_VPN_LIST,  POL_MATCH_F_TLOC,     POL_MATCH_F_TLOC_LIST,
    POL_MATCH_F_SITE,       POL_MATCH_F_SITE_LIST, POL_MATCH_F_PFX_LIST, POL_MATCH_F_ORIGIN,
    POL_MATCH_F_ORIGINATOR, POL_MATCH_F_CARRIER,   POL_MATCH_F_COLOR,    POL_MATCH_F_COLOR_LIST};

// An element that takes the prefix: the longest of those without host bits, else the first; null when
// none does.
const t_pfx_entry* taking_element(const t_pfx_list& list, const t_ipprefix& prefix);

}  // namespace pol
