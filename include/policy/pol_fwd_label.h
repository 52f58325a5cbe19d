/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_label.h - the labels under which the far side takes what a data policy forwards.
 *
 * Labels come from the host's resolution callback. Those of a sequence are handed to the worker,
 * which writes them into the agent's configuration of the policy and then fetches the policy again.
 *
 * Threads  the caller's, as for all else; the worker works later.
 */
#ifndef POLICY_POL_FWD_LABEL_H
#define POLICY_POL_FWD_LABEL_H

#include "policy/pol_types.h"

/* The label of a TLOC or of a service in a VPN changed: labels every sequence of a data policy that
 * depends on it and notifies. `ipv4`: host byte order. On purpose only sequences that set this very
 * VPN; a service elsewhere does not count. A TLOC of a sequence's TLOC list counts whatever its
 * encapsulation. A sequence with a service, whose TLOCs the label does not explain, resolves it
 * again; where memory runs out for that, the rest of its policy is passed over. */
POL_API void pol_fwd_eval_label(t_pol_ctx* ctx, void* ignored, uint32_t ipv4, uint32_t color,
                                uint64_t vpn, uint32_t service);

/* Labels one sequence; nothing when it is not there. Kinds other than data and perf route end the
 * process. */
POL_API void pol_fwd_upd_label(t_pol_ctx* ctx, const char* block, uint32_t kind,
                               const char* vpn_list, uint32_t sequence);

/* The same for a sequence's record; nothing for one that outlived its sequence. The set TLOC goes
 * before the TLOCs of list or service, of which the first POL_MAX_TLOC count; the VPN's label is
 * the first that is found. */
POL_API void pol_fwd_upd_label_set_entry(void* ignored, t_pol_ctx* ctx, t_pol_fwd_user* user);

/* Something of the sequence changed that the library does not keep: queues the users of the
 * policy. */
POL_API void pol_fwd_entry_seq_mod(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                   const char* vpn_list, uint32_t sequence);

#endif
