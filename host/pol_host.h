/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_host.h - the walk of an agent's configuration changes into libpolicy, for a daemon that does not
 * write its own. In the library libpolicy-host.
 *
 * The agent reports differences; the walk hands each to the library's reader of its path, and adds what
 * a difference leaves out. After each batch the library holds what it would hold had it been given the
 * configuration of that commit from the start. Changes of paths that are no policy are passed over.
 *
 * Order    all batches of one subscription of the agent's client (yarrow/yarrow_changes.h), opened with
 *          YARROW_SUB_INITIAL, from the first on. Readers notify the users of what they change.
 * Threads  none of its own: the caller's calls on a walk and on its context are serialised.
 */
#ifndef POLICY_HOST_POL_HOST_H
#define POLICY_HOST_POL_HOST_H

#include <policy/pol_types.h>
#include <yarrow/yarrow_changes.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct t_pol_host_walk t_pol_host_walk;

/* A walk into a context that holds no configuration yet. Null when memory runs out. */
POL_API t_pol_host_walk* pol_host_walk_new(t_pol_ctx* ctx);

/* Walks a batch, which stays the caller's. 0; POL_ENOMEM when memory ran out: then context and walk may
 * lack the rest of it, and both are to be made anew. */
POL_API uint32_t pol_host_walk_take(t_pol_host_walk* walk, const t_yarrow_batch* batch);

/* TLOCs or services resolve otherwise than before: has data policies ask for them again. 0 or
 * POL_ENOMEM. */
POL_API uint32_t pol_host_walk_resolve_again(t_pol_host_walk* walk);

/* Lets go of what the library would keep registered, and frees the walk; null is passed over. To be
 * called before pol_destroy. */
POL_API void pol_host_walk_free(t_pol_host_walk* walk);

#ifdef __cplusplus
}
#endif
#endif
