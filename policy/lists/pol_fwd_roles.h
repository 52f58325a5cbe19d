// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_roles.h - in which roles a sequence of a forwarding policy uses each family of objects: its
// registration there, and what dumps and the graph call it. In the order of the family's user queues.
#pragma once

#include <cstddef>
#include <iterator>

#include "lists/pol_list_internal.h"

namespace pol {

struct FwdRole {
  t_pol_clause_user t_pol_fwd_user::*user;
  const char* dump_word;
  const char* graph_word;
};

inline constexpr FwdRole kAppListRoles[] = {
    {&t_pol_fwd_user::app_list, "APP LIST", "application"},
    {&t_pol_fwd_user::dns_app_list, "DNS APP LIST", "DNS application"},
    {&t_pol_fwd_user::saas_app_list, "SAAS APP LIST", "SaaS application"}};
inline constexpr FwdRole kFwdPfxRoles[] = {{&t_pol_fwd_user::src_pfx, "SRC LIST", "source"},
                                           {&t_pol_fwd_user::dst_pfx, "DST LIST", "destination"}};
inline constexpr FwdRole kFwdPfx6Roles[] = {{&t_pol_fwd_user::src_pfx6, "SRC LIST", "source"},
                                            {&t_pol_fwd_user::dst_pfx6, "DST LIST", "destination"}};
inline constexpr FwdRole kAppIdRoles[] = {{&t_pol_fwd_user::app_id, "APP ID", "application id"}};
inline constexpr FwdRole kSlaClassRoles[] = {
    {&t_pol_fwd_user::sla_class, "SLA CLASS", "SLA class"}};
inline constexpr FwdRole kPolicerRoles[] = {{&t_pol_fwd_user::policer, "Policer", "policer"}};
// TLOC lists have elements, and so a dump and a graph of their own.
inline constexpr size_t kFwdTlocListRoles = 1;

static_assert(std::size(kAppListRoles) == std::size(decltype(t_app_list::users){}));
static_assert(std::size(kFwdPfxRoles) == std::size(decltype(t_fwd_pfx_list::users){}));
static_assert(std::size(kFwdPfx6Roles) == std::size(decltype(t_fwd_pfx_list::users){}));
static_assert(std::size(kAppIdRoles) == std::size(decltype(t_fwd_app_id::users){}));
static_assert(std::size(kSlaClassRoles) == std::size(decltype(t_fwd_sla_class::users){}));
static_assert(std::size(kPolicerRoles) == std::size(decltype(t_fwd_policer::users){}));

inline constexpr size_t kFwdRoles = std::size(kAppListRoles) + std::size(kFwdPfxRoles) +
                                    std::size(kFwdPfx6Roles) + std::size(kAppIdRoles) +
                                    std::size(kSlaClassRoles) + std::size(kPolicerRoles) +
                                    kFwdTlocListRoles;
static_assert(offsetof(t_pol_fwd_user, entry) == kFwdRoles * sizeof(t_pol_clause_user),
              "every registration is a role's");

}  // namespace pol
