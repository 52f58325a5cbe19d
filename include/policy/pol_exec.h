/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_exec.h - what a policy says about a route.
 *
 * The sequences of the user's policy are tried in ascending number; the first all of whose match
 * clauses hold decides, else the default action does. An accept applies the set clauses to the
 * query's copy of the attributes, never to the caller's record. Which of them act, in this order,
 * hangs on the query's match type and on the user's direction; the others pass without a word:
 *
 *            queries           in    out   none
 * tag        route, TLOC       sets  sets  sets
 * preference route, TLOC       sets  sets  sets
 * TLOC       route             sets  sets  sets
 * VPN id     route             sets  -     -
 * VPN list   route             sets  -     -
 * TLOC list  route             -     sets  -
 * service    route             -     sets  -
 *
 * A service query sets nothing. A TLOC, TLOC list or service that acts and resolves to no TLOC
 * turns the accept into a reject, unless the route's own TLOC is kept (ultimate TLOC above 1);
 * where it does not act, the accept stands.
 *
 * Threads  evaluation only reads policy: any number of threads may evaluate, each with its own
 * query, as long as nothing changes policy meanwhile.
 */
#ifndef POLICY_POL_EXEC_H
#define POLICY_POL_EXEC_H

#include "policy/pol_types.h"

/* Clears the query and remembers `kind`: 3 asks pol_post_execute to release the VPN array. */
POL_API void pol_pre_execute(t_pol_route_query* query, uint32_t kind);

/* Returns POL_ACCEPT or POL_REJECT; reject for a null argument and for a user without a policy. May
 * be repeated on one query: each starts from the caller's attributes anew, while the VPN array goes
 * on filling. */
POL_API uint32_t pol_execute(t_pol_user* user, t_pol_route_query* query);

/* pol_execute without clearing `matched` and copying the attributes. REQUIRES: user and query not
 * null. */
POL_API uint32_t pol_exec_route(t_pol_user* user, t_pol_route_query* query);

/* An addition to the interface: as many calls of pol_execute, in order, with the answers in
 * `actions`, in less time: what the next queries need from memory is fetched while others are
 * evaluated. The resolution callback is called in the order of the queries. Rejects all for a null
 * user; does nothing without queries or without `actions`. */
POL_API void pol_execute_batch(t_pol_user* user, t_pol_route_query* queries, uint32_t count,
                               uint32_t* actions);

/* Frees the VPN array when the query's kind is 3. The pointer is not cleared: the query is
 * finished. */
POL_API void pol_post_execute(t_pol_route_query* query);

/* Why a sequence was passed over, or what decided. Text lives for the call only. */
typedef struct t_pol_explain_step {
  uint32_t sequence;
  uint8_t is_default; /* the default action decided; `sequence` means nothing */
  uint8_t decided;    /* 1: this one decided; 0: see `held` */
  uint8_t held;       /* 1: `clause` held, of the sequence that decides in one of the next steps;
                         0, not decided: `clause` failed and the next sequence is tried */
  uint32_t action;    /* decided: the outcome, after an unresolved TLOC turned it into a reject */
  uint32_t clause;    /* not decided: the POL_MATCH_F_* that held or failed; 0: the match type */
  uint32_t set_flags; /* decided: the POL_SET_F_* that it has, whether they act or not */
  const char* reason; /* not decided: in words, no final stop: why, or which value and which element
                         or range of a list; decided: null, or why an accept became a reject */
} t_pol_explain_step;

typedef void (*t_pol_explain_cb)(const t_pol_explain_step* step, void* arg);

/* pol_execute by the same rules, telling what happened. `step`, unless null, is called for every
 * sequence passed over, for each clause of the one that decides, in the order of their testing, and
 * for the decision; `decision`, unless null, receives the last of
 * these steps without its reason. Without `step` no text is made and the cost is that of
 * pol_execute. */
POL_API uint32_t pol_explain(t_pol_user* user, t_pol_route_query* query, t_pol_explain_cb step,
                             void* arg, t_pol_explain_step* decision);

/* An addition to the interface: pol_execute_batch with the decision on each, as pol_explain has it,
 * whose `action` is the answer. Does nothing without queries or without `decisions`. */
POL_API void pol_explain_batch(t_pol_user* user, t_pol_route_query* queries, uint32_t count,
                               t_pol_explain_step* decisions);

/* Whether an outbound route policy sets a TLOC, TLOC list or service somewhere: 1 or 0. 0 for null,
 * for other kinds and directions and without a policy. */
POL_API uint8_t pol_handle_sets_tloc(t_pol_user* user);
POL_API uint8_t pol_handle_sets_tloc_list(t_pol_user* user);
POL_API uint8_t pol_handle_sets_service(t_pol_user* user);

/* Writes the name of the user's policy, "" without one, cut to `size`; returns `buffer`. */
POL_API char* pol_handle_get_name(t_pol_user* user, char* buffer, size_t size);

/* Registers an outside component on a site list, which is made if need be. One a list: a later
 * registrant gets the first one's record. Null for another list type, without a context and when
 * memory runs out. */
POL_API t_pol_list_user* pol_list_register(const t_pol_list_registration* record);
POL_API void pol_list_unregister(t_pol_list_user* user);

/* Whether a range of the registered site list holds the site. */
POL_API uint8_t pol_list_site_match(const t_pol_list_user* user, uint32_t site);
POL_API uint8_t pol_exec_match_site_id_to_site_list(const t_site_list* list, uint32_t site);

#endif
