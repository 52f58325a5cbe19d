/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_trace.h - what evaluation tests on its way to a decision, clause by clause: for tools that
 * count. pol_explain says the same to people.
 *
 * Threads  as of evaluation (pol_exec.h).
 */
#ifndef POLICY_POL_TRACE_H
#define POLICY_POL_TRACE_H

#include "policy/pol_content.h"

typedef struct t_pol_trace_step {
  uint32_t sequence;
  uint8_t is_default; /* the default action decided; `sequence` means nothing */
  uint8_t decided;    /* 1: this one decided; 0: `clause` of it was tested */
  uint8_t held;
  uint32_t clause;  /* not decided: POL_MATCH_F_* */
  const void* list; /* of a list clause that held: the list's id in pol_content.h; else null */
  t_pol_content_element element; /* likewise: an element that took the value */
} t_pol_trace_step;

typedef void (*t_pol_trace_cb)(const t_pol_trace_step* step, void* arg);

/* pol_execute by the same rules. `step` is called for each clause that is tested, in the order of
 * testing, and for what decides; not for a sequence of another match type. Null does without. */
POL_API uint32_t pol_trace(t_pol_user* user, t_pol_route_query* query, t_pol_trace_cb step,
                           void* arg);

#endif
