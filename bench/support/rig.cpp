// SPDX-License-Identifier: Apache-2.0
#include "support/rig.h"

#include <time.h>

#include <cstdlib>

namespace bench {
namespace {

double cpu_seconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace

double seconds(const std::function<void()>& work) {
  const double start = cpu_seconds();
  work();
  return cpu_seconds() - start;
}

t_pol_ctx* context() {
  static t_pol_ctx* const ctx = [] {
    t_pol_callbacks callbacks = {};
    t_pol_ctx* made = pol_init(&callbacks);
    if (made == nullptr) abort();
    atexit(pol_destroy);
    return made;
  }();
  return ctx;
}

Rig::Rig(const std::string& name) {
  context();
  t_pol_registration record = {};
  name.copy(record.user_name, POL_NAME_SIZE - 1);
  name.copy(record.policy_name, POL_NAME_SIZE - 1);
  record.kind = POL_KIND_ROUTE;
  record.direction = POL_DIR_IN;
  user = pol_register(&record);
  policy = pol_block_find(context(), name.c_str(), POL_KIND_ROUTE, nullptr);
  if (user == nullptr || policy == nullptr) abort();
}

void Rig::tell() const { pol_user_chg_list_notify_all(context()); }

t_pol_entry* Rig::add_sequence(uint32_t number) {
  uint8_t changed = 0;
  t_pol_entry* entry = pol_entry_find_or_create(context(), policy, number, &changed);
  if (entry == nullptr) abort();
  pol_entry_match_add(context(), policy, entry, POL_MATCH_ROUTE, &changed);
  pol_entry_action_add(context(), entry, POL_ACCEPT, &changed);
  return entry;
}

t_pol_route_query query_for(const t_pol_route_attr* attr) {
  t_pol_route_query query;
  pol_pre_execute(&query, POL_KIND_ROUTE);
  query.attr = attr;
  query.match_type = POL_MATCH_ROUTE;
  return query;
}

t_pol_route_attr attributes() {
  t_pol_route_attr attr = {};
  attr.present = POL_ATTR_TAG | POL_ATTR_PREF;
  attr.tag = 1;
  attr.preference = 1;
  return attr;
}

}  // namespace bench
