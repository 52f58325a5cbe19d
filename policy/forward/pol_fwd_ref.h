// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_ref.h - the objects that a sequence of a forwarding policy names, one role at a time.
//
// A role is in force while its flag is set. Its record on the object then has the object as `list`;
// on purpose that is still the old one, of which the sequence is no longer a user, when another
// could not be had (NamedHead.stale), and none once the old one is freed.
#pragma once

#include <iterator>

#include "base/pol_crash.h"
#include "forward/pol_fwd_block_internal.h"
#include "lists/pol_fwd_roles.h"
#include "policy/pol_fwd_match.h"

namespace pol {

struct FwdRef {
  uint32_t flag;
  uint32_t t_pol_entry::*flags;
  int32_t
      xml_type;  // of the objects' records in the XML cache; 0 when the agent has no text of them
  t_pol_clause_user t_pol_fwd_user::*user;
  NamedHead* (*add)(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user);
  void (*remove)(t_pol_ctx* ctx, NamedHead* object, t_pol_fwd_user* user);
};

extern const FwdRef kFwdSrcPfx;
extern const FwdRef kFwdDstPfx;
extern const FwdRef kFwdSrcPfx6;
extern const FwdRef kFwdDstPfx6;
extern const FwdRef kFwdAppId;
extern const FwdRef kFwdAppList;
extern const FwdRef kFwdDnsAppList;
extern const FwdRef kFwdSaasAppList;
extern const FwdRef kFwdSlaClass;
extern const FwdRef kFwdPolicer;
extern const FwdRef kFwdTlocList;

inline constexpr const FwdRef* kFwdRefs[] = {
    &kFwdSrcPfx,     &kFwdDstPfx,      &kFwdSrcPfx6,  &kFwdDstPfx6, &kFwdAppId,   &kFwdAppList,
    &kFwdDnsAppList, &kFwdSaasAppList, &kFwdSlaClass, &kFwdPolicer, &kFwdTlocList};
static_assert(std::size(kFwdRefs) == kFwdRoles);

// Ends the process unless the entry is a sequence of a forwarding policy: others have clauses where
// it has its roles, and so has a default action.
inline void fwd_check(const t_pol_entry& entry, Caller from = Caller::here()) {
  if (!is_forwarding(entry)) crash("no sequence of a forwarding policy", from);
}

inline t_pol_fwd_user* fwd_user(const t_pol_entry& entry) {
  fwd_check(entry);
  return entry.fwd.user;
}

// The object in a role, or null.
inline NamedHead* fwd_object(const t_pol_entry& entry, const FwdRef& ref) {
  return (fwd_user(entry)->*ref.user).list;
}

// Whether the role is in force and its object has this name.
bool fwd_ref_names(const t_pol_entry& entry, const FwdRef& ref, const char* name);

// Leaves the old object, if any, and registers on the one of that name, made if need be. Changes no
// flag and tells nobody. False when it cannot be had; then the old one stays in the role, stale.
[[nodiscard]] bool fwd_ref_replace(t_pol_ctx* ctx, t_pol_entry* entry, const FwdRef& ref,
                                   const char* name);

// Puts the role out of force: no flag, no object. Tells nobody. False when it was not in force.
bool fwd_ref_drop(t_pol_ctx* ctx, t_pol_entry* entry, const FwdRef& ref);

// The three shapes of an operation on a role. By path: a name puts it in force, none or "" out of
// it; the policy's users are queued when anything changed.
void fwd_ref_update(t_pol_ctx* ctx, const char* block_name, uint32_t kind, const char* vpn_list,
                    uint32_t sequence, const char* name, const FwdRef& ref);
// Returns the sequence's record, or null when the object cannot be had.
t_pol_fwd_user* fwd_ref_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name, uint8_t* changed,
                            const FwdRef& ref);
void fwd_ref_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed, const FwdRef& ref);

}  // namespace pol
