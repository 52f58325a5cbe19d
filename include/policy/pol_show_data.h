/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_show_data.h - writing received policy into the management agent, and clearing it again.
 *
 * Each call but pol_fwd_policy_yarrow_set opens a connection to the agent and closes it on every
 * path. None touches the policy context. A refusal by the agent is logged whatever the debug level.
 *
 * Status  0 done; POL_EAGENT otherwise.
 * Threads any; a call waits for the agent.
 */
#ifndef POLICY_POL_SHOW_DATA_H
#define POLICY_POL_SHOW_DATA_H

#include "policy/pol_types.h"

#define POL_SHOW_DATA_PATHS 11

/* Where the agent holds the show data, in the order in which it is cleared. */
POL_DATA const char* const pol_show_data_pol_from_pellux[POL_SHOW_DATA_PATHS];

/* Loads configuration into the caller's transaction `trans` on `sock`; each top-level node that the
 * text names replaces what is there. `size`, of the text, is only logged. 0, or the agent's
 * negative result. */
POL_API int32_t pol_fwd_policy_yarrow_set(int sock, int trans, uint32_t size, const char* xml);

/* Publishes a document of pol_show_fwd_policy_hdr_add as show data, merged into what is published.
 * It passes through the file /etc/zenodra/show_fwd_pol_data.xml, which then keeps it. */
POL_API uint32_t pol_show_fwd_policy_yarrow_set(const char* xml);

/* Clears the show data. */
POL_API uint32_t pol_show_fwd_policy_yarrow_delete(void);

/* Deletes the received policy that is in force and commits that. While another session locks the
 * agent's database it tries again every 5 seconds, for up to 155. */
POL_API uint32_t pol_fwd_policy_yarrow_delete(void);

#endif
