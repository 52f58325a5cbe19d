// SPDX-License-Identifier: Apache-2.0
// Evaluation: the tests of single clauses, the set clauses, and the calls of the routing daemon.
// Which clause is tested when stands in pol_exec_rules.h.
#include "policy/pol_exec.h"

#include <algorithm>
#include <cstring>

#include "base/pol_memory.h"
#include "policy/pol_site_list.h"
#include "route/pol_exec_rules.h"

namespace pol {

bool match_group(const t_pol_route_attr& attr, uint32_t group) {
  const uint32_t* end = attr.group + std::min<uint32_t>(attr.group_count, POL_MAX_GROUP);
  return std::find(attr.group, end, group) != end;
}

bool match_vpn_list(const t_vpn_list* list, uint64_t vpn) {
  return list != nullptr && list->entries.holds(vpn);
}

bool match_tloc_list(const t_tloc_list* list, const t_tloc_id& tloc) {
  return list != nullptr && list->by_tloc.find(&tloc) != nullptr;
}

bool match_color_list(const t_color_list* list, uint8_t color) {
  uint16_t key = color;
  return list != nullptr && list->by_color.find(&key) != nullptr;
}

// Sub-types of protocol 4 pair up: 4 also takes 6, and 3 also takes 5; the entry's protocol is not
// compared.
bool match_origin(const t_pol_match& match, const t_pol_route_attr& attr) {
  const uint8_t subtype = attr.origin_subtype;
  if (attr.origin_protocol != 4) {
    return attr.origin_protocol == match.origin_protocol && subtype == match.origin_subtype;
  }
  if (match.origin_subtype == 4) return subtype == 4 || subtype == 6;
  if (match.origin_subtype == 3) return subtype == 3 || subtype == 5;
  return subtype == match.origin_subtype;
}

void copy_attributes(t_pol_route_query* query) {
  query->matched = 0;
  if (query->attr != nullptr) {
    // Of a size that it knows, g++ makes a string instruction, whose start-up costs more than the copy.
    size_t size = sizeof query->attr_copy;
    __asm__("" : "+r"(size));
    memcpy(&query->attr_copy, query->attr, size);
  } else {
    memset(&query->attr_copy, 0, sizeof query->attr_copy);
  }
}

namespace {

// Resolves TLOCs into the caller's array, or into one of our own where the caller gave none:
// whether anything resolves decides all the same.
class Resolution {
 public:
  Resolution(const t_pol_user& user, t_pol_route_query* query)
      : user_(user), query_(query), result_(query->tlocs != nullptr ? query->tlocs : &own_) {
    result_->count = 0;
    result_->ultimate = 0;
  }

  bool full() const { return result_->count >= POL_MAX_TLOC; }

  void resolve(const t_tloc_id& tloc, uint64_t vpn, uint16_t service) {
    if (user_.resolve == nullptr) return;
    uint32_t ipv4 = tloc.family == KEL_AF_INET ? tloc.addr.v4 : 0;
    user_.resolve(query_->id, ipv4, tloc.color, tloc.encap, vpn, service, result_);
    result_->count = std::min<uint32_t>(result_->count, POL_MAX_TLOC);
  }

  // Keeps the route's own TLOC where the policy says so. False when nothing leads anywhere.
  [[nodiscard]] bool finish(uint8_t ultimate) {
    result_->ultimate = ultimate;
    if (ultimate > 1) {
      const t_pol_route_attr& attr = query_->attr_copy;
      result_->entry[result_->count++] = {attr.label, attr.preference, attr.tloc, {0, 0}};
    }
    return result_->count > 0;
  }

 private:
  const t_pol_user& user_;
  t_pol_route_query* query_;
  t_pol_tloc_result own_;
  t_pol_tloc_result* result_;
};

bool set_tloc(const t_pol_user& user, const t_pol_set& set, t_pol_route_query* query) {
  Resolution resolution(user, query);
  resolution.resolve(set.tloc, query->vpn, 0);
  return resolution.finish(set.ultimate_tloc);
}

bool set_tloc_list(const t_pol_user& user, const t_pol_set& set, t_pol_route_query* query) {
  Resolution resolution(user, query);
  const uint64_t vpn = set.vpn_id != 0 ? set.vpn_id : query->vpn;
  if (const auto* list = list_of<t_tloc_list>(set.tloc_list)) {
    for (const t_tloc_entry& entry : list->entries) {
      if (resolution.full()) break;
      resolution.resolve(entry.tloc, vpn, set.service);
    }
  }
  return resolution.finish(set.ultimate_tloc);
}

bool set_service(const t_pol_user& user, const t_pol_set& set, t_pol_route_query* query) {
  Resolution resolution(user, query);
  const uint64_t vpn = set.service_vpn != 0 ? set.service_vpn : query->vpn;
  resolution.resolve(set.service_tloc, vpn, set.service);
  return resolution.finish(set.ultimate_tloc);
}

bool have_vpn_array(t_pol_route_query* query) {
  if (query->vpn_array == nullptr) {
    query->vpn_array = static_cast<t_pol_vpn_range*>(
        pol_malloc(POL_MAX_VPN * sizeof(t_pol_vpn_range), MEM_SET_VPN_LIST));
    query->vpn_count = 0;
  }
  return query->vpn_array != nullptr;
}

void append_vpns(t_pol_route_query* query, uint64_t low, uint64_t high) {
  if (query->vpn_count < POL_MAX_VPN) query->vpn_array[query->vpn_count++] = {low, high};
}

void set_vpns(const t_pol_set& set, uint32_t flags, t_pol_route_query* query) {
  if ((flags & POL_SET_F_VPN_ID) != 0 && have_vpn_array(query)) {
    append_vpns(query, set.vpn_id, set.vpn_id);
    query->applied |= POL_APPLIED_VPN;
  }
  const auto* list = list_of<t_vpn_list>(set.vpn_list);
  if ((flags & POL_SET_F_VPN_LIST) != 0 && list != nullptr && have_vpn_array(query)) {
    for (const RangeNode& range : list->entries.in_order()) {
      if (query->vpn_count >= POL_MAX_VPN) break;
      append_vpns(query, range.low, range.high);
    }
    query->applied |= POL_APPLIED_VPN;
  }
}

}  // namespace

uint32_t apply_sets(const t_pol_user& user, const t_pol_set& set, uint32_t flags,
                    t_pol_route_query* query) {
  const bool route = query->match_type == POL_MATCH_ROUTE;
  const bool outbound = user.direction == POL_DIR_OUT;
  bool resolved = true;
  apply_plain_sets(set, flags, query);
  if (!route) return POL_ACCEPT;
  if ((flags & POL_SET_F_TLOC) != 0) {
    resolved &= set_tloc(user, set, query);
    query->applied |= POL_APPLIED_TLOC;
  }
  if (user.direction == POL_DIR_IN) set_vpns(set, flags, query);
  if (outbound && (flags & POL_SET_F_TLOC_LIST) != 0) {
    resolved &= set_tloc_list(user, set, query);
    query->applied |= POL_APPLIED_TLOC_LIST;
  }
  if (outbound && (flags & POL_SET_F_SERVICE) != 0) {
    resolved &= set_service(user, set, query);
    query->applied |= POL_APPLIED_SERVICE;
  }
  return resolved ? POL_ACCEPT : POL_REJECT;
}

unsigned fetch_group(const t_pol_user* user, const t_pol_route_query* queries, uint32_t left) {
  const unsigned count = std::min<uint32_t>(left, PfxIndex::kFetched);
  if (user == nullptr || user->block == nullptr) return count;
  const t_pol_block& block = *user->block;
  if (block.index != nullptr) {
    if (block.index->fresh) candidates_fetch(*block.index, queries, count);
    return count;
  }
  const t_ipprefix* prefixes[PfxIndex::kFetched];
  for (unsigned i = 0; i < count; ++i) prefixes[i] = &queries[i].prefix;
  // Later sequences are for the queries that the first ones leave.
  unsigned lists = 0;
  for (const t_pol_entry& entry : block.in_order) {
    if ((entry.match_flags & POL_MATCH_F_PFX_LIST) == 0) continue;
    const auto* list = list_of<t_pfx_list>(entry.match.pfx_list);
    if (list != nullptr) list->index.fetch(prefixes, count);
    if (++lists == 2) break;
  }
  return count;
}

}  // namespace pol

namespace {

// Answers only for a handle of an outbound route policy that is there.
uint8_t handle_sets(const t_pol_user* user, uint8_t what) {
  if (user == nullptr || user->kind != POL_KIND_ROUTE || user->direction != POL_DIR_OUT ||
      user->block == nullptr) {
    return 0;
  }
  return (user->block->sets & what) != 0 ? 1 : 0;
}

}  // namespace

void pol_pre_execute(t_pol_route_query* query, uint32_t kind) {
  if (query == nullptr) return;
  memset(query, 0, sizeof *query);
  query->kind = kind;
}

uint32_t pol_execute(t_pol_user* user, t_pol_route_query* query) {
  if (user == nullptr || query == nullptr) return POL_REJECT;
  pol::copy_attributes(query);
  pol::SilentObserver silent;
  return pol::exec_route(user, query, silent);
}

uint32_t pol_exec_route(t_pol_user* user, t_pol_route_query* query) {
  pol::SilentObserver silent;
  return pol::exec_route(user, query, silent);
}

void pol_execute_batch(t_pol_user* user, t_pol_route_query* queries, uint32_t count,
                       uint32_t* actions) {
  if (queries == nullptr || actions == nullptr) return;
  for (uint32_t done = 0; done < count;) {
    const uint32_t end = done + pol::fetch_group(user, queries + done, count - done);
    for (; done < end; ++done) actions[done] = pol_execute(user, &queries[done]);
  }
}

void pol_post_execute(t_pol_route_query* query) {
  if (query == nullptr || query->kind != 3 || query->vpn_array == nullptr) return;
  pol_free(query->vpn_array, pol::MEM_SET_VPN_LIST);
}

uint8_t pol_handle_sets_tloc(t_pol_user* user) { return handle_sets(user, POL_SETS_TLOC); }

uint8_t pol_handle_sets_tloc_list(t_pol_user* user) {
  return handle_sets(user, POL_SETS_TLOC_LIST);
}

uint8_t pol_handle_sets_service(t_pol_user* user) { return handle_sets(user, POL_SETS_SERVICE); }

char* pol_handle_get_name(t_pol_user* user, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return buffer;
  const char* name = user != nullptr && user->block != nullptr ? user->block->name : "";
  size_t length = std::min(strnlen(name, POL_NAME_SIZE), size - 1);
  memcpy(buffer, name, length);
  buffer[length] = '\0';
  return buffer;
}

t_pol_list_user* pol_list_register(const t_pol_list_registration* record) {
  if (record == nullptr || record->list_type != POL_LIST_SITE) return nullptr;
  return pol_site_list_user_add(g_pol_ctx_p, record->name, record->change, record->arg);
}

void pol_list_unregister(t_pol_list_user* user) {
  if (user == nullptr || user->list_type != POL_LIST_SITE) return;
  pol_site_list_user_remove(g_pol_ctx_p, user);
}

uint8_t pol_list_site_match(const t_pol_list_user* user, uint32_t site) {
  return user != nullptr ? pol_exec_match_site_id_to_site_list(user->list, site) : 0;
}

uint8_t pol_exec_match_site_id_to_site_list(const t_site_list* list, uint32_t site) {
  return list != nullptr && list->entries.holds(site) ? 1 : 0;
}
