// SPDX-License-Identifier: Apache-2.0
// The roles in which a sequence names an object, and what is done with a role.
#include "forward/pol_fwd_ref.h"

#include <algorithm>

#include "base/pol_crash.h"
#include "base/pol_name.h"
#include "forward/pol_fwd_block_internal.h"
#include "policy/pol_app_list.h"
#include "policy/pol_fwd_app_id.h"
#include "policy/pol_fwd_pfx_list.h"
#include "policy/pol_fwd_policer.h"
#include "policy/pol_fwd_sla_class.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_xml_config.h"

namespace {

using pol::NamedHead;

// The families' user operations in one shape. `kKind` is the direction of those that take one.
template <auto kAdd, auto... kKind>
NamedHead* add(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user) {
  auto* object = kAdd(ctx, name, kKind..., user);
  return object != nullptr ? &object->head : nullptr;
}

template <class Object, auto kRemove, auto... kKind>
void remove(t_pol_ctx* ctx, NamedHead* object, t_pol_fwd_user* user) {
  kRemove(ctx, reinterpret_cast<Object*>(object), kKind..., user);
}

NamedHead* add_tloc_list(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user) {
  t_tloc_list* list = pol_tloc_list_action_user_add(ctx, name, &user->tloc_list);
  return list != nullptr ? &list->head : nullptr;
}

void remove_tloc_list(t_pol_ctx* ctx, NamedHead* list, t_pol_fwd_user* user) {
  pol_tloc_list_action_user_remove(ctx, reinterpret_cast<t_tloc_list*>(list), &user->tloc_list);
}

constexpr uint32_t kSrc = 1;
constexpr uint32_t kDst = 2;

constexpr auto kMatch = &t_pol_entry::match_flags;
constexpr auto kAction = &t_pol_entry::set_flags;

}  // namespace

namespace pol {

// clang-format off
constexpr FwdRef kFwdSrcPfx = {
    POL_FWD_MATCH_F_SRC_PFX, kMatch, POL_XML_DATA_PREFIX_LIST, &t_pol_fwd_user::src_pfx,
    add<pol_fwd_pfx_list_user_add, kSrc>, remove<t_fwd_pfx_list, pol_fwd_pfx_list_user_remove, kSrc>};
constexpr FwdRef kFwdDstPfx = {
    POL_FWD_MATCH_F_DST_PFX, kMatch, POL_XML_DATA_PREFIX_LIST, &t_pol_fwd_user::dst_pfx,
    add<pol_fwd_pfx_list_user_add, kDst>, remove<t_fwd_pfx_list, pol_fwd_pfx_list_user_remove, kDst>};
constexpr FwdRef kFwdSrcPfx6 = {
    POL_FWD_MATCH_F_SRC_PFX6, kMatch, POL_XML_DATA_IPV6_PREFIX_LIST, &t_pol_fwd_user::src_pfx6,
    add<pol_fwd_pfx6_list_user_add, kSrc>, remove<t_fwd_pfx_list, pol_fwd_pfx6_list_user_remove, kSrc>};
constexpr FwdRef kFwdDstPfx6 = {
    POL_FWD_MATCH_F_DST_PFX6, kMatch, POL_XML_DATA_IPV6_PREFIX_LIST, &t_pol_fwd_user::dst_pfx6,
    add<pol_fwd_pfx6_list_user_add, kDst>, remove<t_fwd_pfx_list, pol_fwd_pfx6_list_user_remove, kDst>};
constexpr FwdRef kFwdAppId = {
    POL_FWD_MATCH_F_APP_ID, kMatch, 0, &t_pol_fwd_user::app_id,
    add<pol_fwd_app_id_user_add>, remove<t_fwd_app_id, pol_fwd_app_id_user_remove>};
constexpr FwdRef kFwdAppList = {
    POL_FWD_MATCH_F_APP_LIST, kMatch, POL_XML_APP_LIST, &t_pol_fwd_user::app_list,
    add<pol_app_list_user_add>, remove<t_app_list, pol_app_list_user_remove>};
constexpr FwdRef kFwdDnsAppList = {
    POL_FWD_MATCH_F_DNS_APP_LIST, kMatch, POL_XML_APP_LIST, &t_pol_fwd_user::dns_app_list,
    add<pol_dns_app_list_user_add>, remove<t_app_list, pol_dns_app_list_user_remove>};
constexpr FwdRef kFwdSaasAppList = {
    POL_FWD_MATCH_F_SAAS_APP_LIST, kMatch, POL_XML_APP_LIST, &t_pol_fwd_user::saas_app_list,
    add<pol_saas_app_list_user_add>, remove<t_app_list, pol_saas_app_list_user_remove>};
constexpr FwdRef kFwdSlaClass = {
    POL_FWD_SET_F_SLA_CLASS, kAction, POL_XML_SLA_CLASS, &t_pol_fwd_user::sla_class,
    add<pol_fwd_sla_class_user_add>, remove<t_fwd_sla_class, pol_fwd_sla_class_user_remove>};
constexpr FwdRef kFwdPolicer = {
    POL_FWD_SET_F_POLICER, kAction, POL_XML_POLICER, &t_pol_fwd_user::policer,
    add<pol_fwd_policer_user_add>, remove<t_fwd_policer, pol_fwd_policer_user_remove>};
constexpr FwdRef kFwdTlocList = {
    POL_FWD_SET_F_TLOC_LIST, kAction, POL_XML_TLOC_LIST, &t_pol_fwd_user::tloc_list,
    add_tloc_list, remove_tloc_list};
// clang-format on

namespace {

template <size_t N>
constexpr bool each_has_one_ref(const FwdRole (&roles)[N]) {
  return std::ranges::all_of(roles, [](const FwdRole& role) {
    return std::ranges::count_if(kFwdRefs,
                                 [&](const FwdRef* ref) { return ref->user == role.user; }) == 1;
  });
}
static_assert(each_has_one_ref(kAppListRoles) && each_has_one_ref(kFwdPfxRoles) &&
              each_has_one_ref(kFwdPfx6Roles) && each_has_one_ref(kAppIdRoles) &&
              each_has_one_ref(kSlaClassRoles) && each_has_one_ref(kPolicerRoles));

}  // namespace

bool fwd_ref_names(const t_pol_entry& entry, const FwdRef& ref, const char* name) {
  const NamedHead* object = fwd_object(entry, ref);
  if ((entry.*ref.flags & ref.flag) == 0 || object == nullptr) return false;
  char key[POL_LIST_NAME_SIZE];
  copy_name(key, name);
  return named_compare(key, object->name) == 0;
}

bool fwd_ref_replace(t_pol_ctx* ctx, t_pol_entry* entry, const FwdRef& ref, const char* name) {
  t_pol_fwd_user* user = fwd_user(*entry);
  t_pol_clause_user* role = &(user->*ref.user);
  if (role->list != nullptr) user_leave(ctx, role, Leaving::kStaysStale);
  return ref.add(ctx, name, user) != nullptr;
}

bool fwd_ref_drop(t_pol_ctx* ctx, t_pol_entry* entry, const FwdRef& ref) {
  if ((entry->*ref.flags & ref.flag) == 0) return false;
  entry->*ref.flags &= ~ref.flag;
  if (NamedHead* object = fwd_object(*entry, ref)) ref.remove(ctx, object, entry->fwd.user);
  return true;
}

void fwd_ref_update(t_pol_ctx* ctx, const char* block_name, uint32_t kind, const char* vpn_list,
                    uint32_t sequence, const char* name, const FwdRef& ref) {
  t_pol_entry* entry = fwd_find(ctx, block_name, kind, vpn_list, sequence).entry;
  if (entry == nullptr) return;
  if (name == nullptr || name[0] == '\0') {
    if (!fwd_ref_drop(ctx, entry, ref)) return;
  } else {
    if (fwd_ref_names(*entry, ref, name)) return;
    entry->*ref.flags |= ref.flag;
    if (!fwd_ref_replace(ctx, entry, ref, name)) return;
  }
  pol_block_users_add_to_chg_list(ctx, entry->block);
}

t_pol_fwd_user* fwd_ref_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name, uint8_t* changed,
                            const FwdRef& ref) {
  if (ctx == nullptr || entry == nullptr || name == nullptr) return nullptr;
  fwd_check(*entry);
  if (fwd_ref_names(*entry, ref, name)) return entry->fwd.user;
  entry->*ref.flags |= ref.flag;
  if (!fwd_ref_replace(ctx, entry, ref, name)) return nullptr;
  mark_changed(changed);
  pol_block_users_add_to_chg_list(ctx, entry->block);
  return entry->fwd.user;
}

void fwd_ref_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed, const FwdRef& ref) {
  if (ctx == nullptr || entry == nullptr) return;
  fwd_check(*entry);
  if (!fwd_ref_drop(ctx, entry, ref)) return;
  mark_changed(changed);
  pol_block_users_add_to_chg_list(ctx, entry->block);
}

}  // namespace pol
