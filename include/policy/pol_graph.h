/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_graph.h - what uses what: lists and objects, policies with their VPN lists and sequences, and
 * registered users, as a graph.
 *
 * The edges are the registrations that the library acts on: a change of an object tells exactly
 * those that have an edge to it. So a name that is used without being configured is a node too, and
 * one that is configured and used by nobody may be none: the library keeps no such object without
 * elements.
 *
 * Order    all nodes before all edges. Nodes: lists and objects by type, then name; policies by
 *          kind and name, each followed by its VPN lists and sequences; users by kind, direction
 *          and name. Edges: by the object that they lead to, as they were registered.
 * Pointers in a node or edge are valid during the call that hands it over; ids during the walk.
 * Threads  none of its own: the host serialises every call on one context. A visitor only reads.
 */
#ifndef POLICY_POL_GRAPH_H
#define POLICY_POL_GRAPH_H

#include "policy/pol_types.h"

enum pol_graph_type {
  POL_GRAPH_SITE_LIST = 1,
  POL_GRAPH_VPN_LIST = 2,
  POL_GRAPH_TLOC_LIST = 3,
  POL_GRAPH_COLOR_LIST = 4,
  POL_GRAPH_PREFIX_LIST = 5,
  POL_GRAPH_APP_LIST = 6,
  POL_GRAPH_DATA_PREFIX_LIST = 7,
  POL_GRAPH_DATA_IPV6_PREFIX_LIST = 8,
  POL_GRAPH_SLA_CLASS = 9,
  POL_GRAPH_POLICER = 10,
  POL_GRAPH_APP_ID = 11,
  POL_GRAPH_POLICY = 12,
  POL_GRAPH_POLICY_VPN = 13, /* a VPN list that a data or app-route policy applies to */
  POL_GRAPH_SEQUENCE = 14,
  POL_GRAPH_USER = 15,
  POL_GRAPH_LIST_USER = 16 /* an outside component on a site list */
};

typedef struct t_pol_graph_node {
  const void* id;       /* tells nodes of one walk apart */
  const void* parent;   /* of a sequence or POLICY_VPN: the id of what holds it; else null */
  uint32_t type;        /* enum pol_graph_type */
  uint32_t kind;        /* of a policy, what is in it, and a user: enum pol_kind; else 0 */
  const char* name;     /* of a sequence "", of a list user null */
  uint32_t sequence;    /* its number */
  uint32_t action;      /* enum pol_action of a sequence or a policy's default; 0 in data and
                           app-route policies, of which the library knows none */
  uint32_t match_flags; /* of a sequence: POL_MATCH_F_* or, in those two, POL_FWD_MATCH_F_* */
  uint32_t set_flags;   /* likewise, or those of a policy's default */
  uint32_t direction;   /* of a user: enum pol_direction */
  uint32_t elements;    /* of a list that the library knows the elements of: how many */
} t_pol_graph_node;

typedef struct t_pol_graph_edge {
  const void* from; /* who uses. Null: a sequence whose policy is gone, which left its DNS or SaaS
                       application list registered; the policy: one whose sequence is gone */
  const void* to;   /* what is used */
  const char* role; /* constant text: "match", "source", "user", ... */
} t_pol_graph_edge;

typedef struct t_pol_graph_visitor {
  void (*node)(void* arg, const t_pol_graph_node* node); /* may be null */
  void (*edge)(void* arg, const t_pol_graph_edge* edge); /* may be null */
  void* arg;
} t_pol_graph_visitor;

/* 0; POL_ENOCTX without a context, POL_EINVAL without a visitor. */
POL_API uint32_t pol_graph_walk(t_pol_ctx* ctx, const t_pol_graph_visitor* visitor);

#endif
