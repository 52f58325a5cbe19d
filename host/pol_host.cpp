// SPDX-License-Identifier: Apache-2.0
#include "pol_host.h"

#include <new>

#include "config_walk.h"

struct t_pol_host_walk {
  explicit t_pol_host_walk(t_pol_ctx* ctx) : walk(ctx) {}
  polctl::ConfigWalk walk;
};

t_pol_host_walk* pol_host_walk_new(t_pol_ctx* ctx) {
  return ctx != nullptr ? new (std::nothrow) t_pol_host_walk(ctx) : nullptr;
}

uint32_t pol_host_walk_take(t_pol_host_walk* walk, const t_yarrow_batch* batch) try {
  walk->walk.take(batch);
  return POL_OK;
} catch (const std::bad_alloc&) {
  return POL_ENOMEM;
}

uint32_t pol_host_walk_resolve_again(t_pol_host_walk* walk) try {
  walk->walk.resolve_again();
  return POL_OK;
} catch (const std::bad_alloc&) {
  return POL_ENOMEM;
}

void pol_host_walk_free(t_pol_host_walk* walk) {
  if (walk == nullptr) return;
  try {
    walk->walk.release();
  } catch (const std::bad_alloc&) {
    // What stays registered makes pol_destroy end the process, with a message that says so.
  }
  delete walk;
}
