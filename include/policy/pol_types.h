/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_types.h - the vocabulary and the records that host and library share.
 *
 * Every number here is fixed: it is stored, compared and printed. Records are complete where the
 * host fills or reads them; nodes (policies, sequences, lists, users) are opaque.
 */
#ifndef POLICY_POL_TYPES_H
#define POLICY_POL_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "kel/ipaddr_types.h"
#include "kel/tloc_types.h"
#include "policy/pol_export.h"
#include "yarrow/yarrow_cli_types.h"

typedef struct t_pol_ctx t_pol_ctx;
typedef struct t_pol_block t_pol_block; /* a policy */
typedef struct t_pol_entry t_pol_entry; /* one sequence of a policy */
typedef struct t_pol_match t_pol_match; /* the match clauses of a sequence */
typedef struct t_pol_set t_pol_set;     /* the set clauses of a sequence */
typedef struct t_pol_user t_pol_user;
typedef struct t_pol_clause_user t_pol_clause_user; /* a clause registered on a list */
typedef struct t_pol_fwd_vpn_entry t_pol_fwd_vpn_entry;
typedef struct t_site_list t_site_list;
typedef struct t_site_entry t_site_entry;
typedef struct t_vpn_list t_vpn_list;
typedef struct t_pol_vpn_entry t_pol_vpn_entry;
typedef struct t_tloc_list t_tloc_list;
typedef struct t_tloc_entry t_tloc_entry;
typedef struct t_color_list t_color_list;
typedef struct t_color_entry t_color_entry;
typedef struct t_pfx_list t_pfx_list;
typedef struct t_app_list t_app_list;
typedef struct t_fwd_pfx_list t_fwd_pfx_list;
typedef struct t_fwd_sla_class t_fwd_sla_class;
typedef struct t_fwd_policer t_fwd_policer;
typedef struct t_fwd_app_id t_fwd_app_id;
typedef struct t_pol_fwd_user t_pol_fwd_user; /* a forwarding sequence, as its objects know it */
typedef struct t_pol_xml_config t_pol_xml_config;
typedef struct t_pol_yarrow_thread t_pol_yarrow_thread; /* the worker that talks to the agent */

#define POL_NAME_SIZE 128     /* policy and user names, with their NUL */
#define POL_LIST_NAME_SIZE 64 /* list names, with their NUL */
#define POL_MAX_VPN 128       /* ranges in a query's VPN array */
#define POL_MAX_TLOC 64       /* resolved TLOCs in a query's result array */

/* Results of the operations that return a status. */
enum pol_status {
  POL_OK = 0,
  POL_ENOMEM = 1,
  POL_EPIPE = 2,
  POL_EEVENT = 5,
  POL_EINVAL = 7,
  POL_ENOCTX = 15,
  POL_EAGENT = 16,
  POL_ESPINLOCK = 21,
  POL_ELOCK = 28
};

enum pol_kind {
  POL_KIND_ROUTE = 1,
  POL_KIND_DATA = 2,
  POL_KIND_PERF_ROUTE = 3, /* the configuration's app-route policy */
  POL_KIND_MEMBERSHIP = 4,
  POL_KIND_CFLOWD = 5
};

enum pol_action { POL_ACCEPT = 1, POL_REJECT = 2 };

enum pol_direction { POL_DIR_NONE = 0, POL_DIR_IN = 1, POL_DIR_OUT = 2 };

/* What a sequence matches on, and what a query asks about. */
enum pol_match_type {
  POL_MATCH_ROUTE = 1,
  POL_MATCH_TLOC = 2,
  POL_MATCH_SERVICE = 3,
  POL_MATCH_PACKET = 4
};

enum pol_list_type { POL_LIST_PREFIX = 1, POL_LIST_SITE = 2, POL_LIST_TLOC = 3 };

/* How a prefix-list element compares the length L of a route's prefix. 0 acts like EQ. */
enum pol_pfx_op {
  POL_PFX_RANGE = 1,  /* min <= L <= max */
  POL_PFX_XRANGE = 2, /* min < L < max */
  POL_PFX_EQ = 3,     /* L equals the element's length */
  POL_PFX_NE = 4,
  POL_PFX_LE = 5, /* L <= max */
  POL_PFX_LT = 6, /* L < min */
  POL_PFX_GE = 7, /* L >= min */
  POL_PFX_GT = 8  /* L > min */
};

/* Match clauses: a sequence's configured ones, and those that a query reports as matched. */
#define POL_MATCH_F_SITE_LIST 0x1u
#define POL_MATCH_F_SITE 0x2u
#define POL_MATCH_F_TLOC_LIST 0x4u
#define POL_MATCH_F_TLOC 0x8u
#define POL_MATCH_F_PFX_LIST 0x10u
#define POL_MATCH_F_TAG 0x20u
#define POL_MATCH_F_PREF 0x40u
#define POL_MATCH_F_DOMAIN 0x80u
#define POL_MATCH_F_VPN_ID 0x100u
#define POL_MATCH_F_VPN_LIST 0x200u
#define POL_MATCH_F_ORIGIN 0x400u
#define POL_MATCH_F_ORIGINATOR 0x800u
#define POL_MATCH_F_CARRIER 0x1000u
#define POL_MATCH_F_GROUP 0x2000u
#define POL_MATCH_F_SRC_PORT 0x4000u
#define POL_MATCH_F_DST_PORT 0x8000u
#define POL_MATCH_F_DSCP 0x10000u
#define POL_MATCH_F_PROTO 0x20000u
#define POL_MATCH_F_COLOR 0x100000u
#define POL_MATCH_F_COLOR_LIST 0x200000u

/* Set clauses of a sequence. */
#define POL_SET_F_TAG 0x1u
#define POL_SET_F_TLOC 0x2u
#define POL_SET_F_PREF 0x4u
#define POL_SET_F_VPN_ID 0x8u
#define POL_SET_F_VPN_LIST 0x10u
#define POL_SET_F_TLOC_LIST 0x20u
#define POL_SET_F_SERVICE 0x40u

/* What a sequence of a data or app-route policy matches on. */
#define POL_FWD_MATCH_F_SRC_PFX 0x1000u
#define POL_FWD_MATCH_F_DST_PFX 0x2000u
#define POL_FWD_MATCH_F_APP_ID 0x40000u
#define POL_FWD_MATCH_F_APP_LIST 0x80000u
#define POL_FWD_MATCH_F_DNS_APP_LIST 0x400000u
#define POL_FWD_MATCH_F_SRC_PFX6 0x800000u
#define POL_FWD_MATCH_F_DST_PFX6 0x1000000u
#define POL_FWD_MATCH_F_SAAS_APP_LIST 0x2000000u

/* Actions of such a sequence. */
#define POL_FWD_SET_F_TLOC 0x80u
#define POL_FWD_SET_F_SLA_CLASS 0x200u
#define POL_FWD_SET_F_SERVICE 0x400u
#define POL_FWD_SET_F_POLICER 0x800u
#define POL_FWD_SET_F_TLOC_LIST 0x1000u

/* What the set clauses wrote into a query. */
#define POL_APPLIED_TAG 0x1u
#define POL_APPLIED_TLOC 0x2u
#define POL_APPLIED_PREF 0x4u
#define POL_APPLIED_VPN 0x8u
#define POL_APPLIED_TLOC_LIST 0x20u
#define POL_APPLIED_SERVICE 0x40u

/* Which attributes a route carries (t_pol_route_attr.present). */
#define POL_ATTR_TLOC 0x1u
#define POL_ATTR_PREF 0x2u
#define POL_ATTR_TAG 0x8u
#define POL_ATTR_DOMAIN 0x10u
#define POL_ATTR_SITE 0x20u
#define POL_ATTR_ORIGIN 0x400u
#define POL_ATTR_ORIGINATOR 0x800u
#define POL_ATTR_GROUP 0x2000u
#define POL_ATTR_CARRIER 0x4000u

#define POL_MAX_GROUP 64 /* group ids a route carries at most */

/* The attributes of a route as the routing daemon learned them. All numbers host byte order. A
 * member is meaningful when its bit in `present` is set. The size is part of the ABI: the library
 * copies exactly this record into the query. */
typedef struct t_pol_route_attr {
  uint32_t present; /* POL_ATTR_* */
  uint32_t tag;
  uint32_t preference;
  uint32_t domain;
  uint32_t site;
  uint32_t label; /* of the route's own TLOC */
  t_tloc_id tloc;
  t_ipaddr originator;
  uint8_t origin_protocol;
  uint8_t origin_subtype;
  uint8_t carrier;
  uint8_t reserved_byte;
  uint32_t group_count; /* more than POL_MAX_GROUP counts as POL_MAX_GROUP */
  uint32_t group[POL_MAX_GROUP];
  uint8_t reserved[612]; /* the daemon's own; carried along, never read */
} t_pol_route_attr;

typedef struct t_pol_tloc_result_entry {
  uint32_t label;
  uint32_t preference;
  t_tloc_id tloc;
  uint32_t reserved[2];
} t_pol_tloc_result_entry;

/* Where resolved TLOCs are gathered: at most POL_MAX_TLOC by the resolution callback, and one more
 * that the library appends when the route's own (ultimate) TLOC is kept. */
typedef struct t_pol_tloc_result {
  uint32_t count;
  uint8_t ultimate; /* kel_attr_ultimate_tloc_str names it */
  t_pol_tloc_result_entry entry[POL_MAX_TLOC + 1];
} t_pol_tloc_result;

typedef struct t_pol_vpn_range {
  uint64_t low;
  uint64_t high; /* inclusive */
} t_pol_vpn_range;

/* One question to a policy: pol_pre_execute clears it, the host fills the upper part, pol_execute
 * answers in the lower one, pol_post_execute releases the VPN array. */
typedef struct t_pol_route_query {
  const t_pol_route_attr* attr; /* the caller's; only read. Null counts as no attribute present */
  uint16_t id;                  /* handed to the resolution callback */
  uint8_t match_type;           /* POL_MATCH_ROUTE, _TLOC or _SERVICE */
  uint32_t kind;                /* as given to pol_pre_execute */
  uint64_t vpn;
  t_tloc_id tloc; /* what TLOC clauses of match type tloc look at */
  t_ipprefix prefix;

  uint32_t matched;           /* POL_MATCH_F_* of the deciding sequence's single-value clauses */
  uint8_t applied;            /* POL_APPLIED_* */
  t_pol_route_attr attr_copy; /* the attributes after the set clauses */
  t_pol_tloc_result* tlocs;   /* the caller's array, filled; null when the caller wants none */
  uint32_t vpn_count;         /* ranges in vpn_array */
  t_pol_vpn_range* vpn_array; /* of POL_MAX_VPN; the library's until pol_post_execute */
} t_pol_route_query;

/* Calls a consumer back once a batch of changes touched its policy. On the host's thread, from
 * within pol_user_chg_list_notify_all or one of the calls that end with it. It may change policy,
 * register and unregister; a notification that it asks for is skipped, what it changes is told in
 * the next batch. It must not call pol_destroy. */
typedef void (*t_pol_change_cb)(t_pol_user* user, uint64_t user_arg);

/* Resolves a TLOC while a route is evaluated: the host appends the TLOCs that lead there to
 * `result` (entry[count], then count + 1; never beyond POL_MAX_TLOC, more is cut off). Called by
 * pol_execute on the evaluating thread, for set TLOC, once an element for set TLOC list, once for
 * set service. It only reads policy. A result that stays empty turns the accept into a reject,
 * unless the route's own TLOC is kept.
 *   id            the query's identifier
 *   ipv4          the TLOC's address, host byte order; 0 when it is not IPv4
 *   color, encap  of the TLOC
 *   vpn           set TLOC: the query's VPN; set TLOC list: the set VPN; set service: the service's
 *                 VPN (the query's VPN when those are 0)
 *   service       type of the set service; 0 when none is set */
typedef void (*t_pol_resolve_cb)(uint16_t id, uint32_t ipv4, uint8_t color, uint8_t encap,
                                 uint64_t vpn, uint16_t service, t_pol_tloc_result* result);

/* Registers a consumer of one policy. Names that fill their field need no NUL; 127 bytes count. */
typedef struct t_pol_registration {
  char user_name[POL_NAME_SIZE];
  char policy_name[POL_NAME_SIZE];
  uint32_t kind;            /* enum pol_kind */
  uint32_t direction;       /* enum pol_direction */
  t_pol_change_cb change;   /* may be null */
  t_pol_resolve_cb resolve; /* may be null: nothing resolves */
  uint64_t reserved;        /* kept as given, never read */
  uint64_t user_arg;        /* handed back to `change` */
} t_pol_registration;

typedef struct t_pol_list_user t_pol_list_user;

/* Tells an outside component that its list changed, on the host's thread, at once and before the
 * policies that use the list are told. It may change any list, this one too, and policy, register
 * and unregister, itself too. It must not call pol_destroy. */
typedef void (*t_pol_list_change_cb)(t_pol_list_user* user, void* arg);

/* An outside component registered on a site list: what pol_list_register returns. The host reads
 * it. */
struct t_pol_list_user {
  uint32_t list_type; /* POL_LIST_SITE */
  t_pol_list_change_cb change;
  t_site_list* list; /* null once the context or its site lists are gone */
  void* arg;
};

/* Registers an outside component on one list. The name needs no NUL when it fills its field. */
typedef struct t_pol_list_registration {
  char name[POL_LIST_NAME_SIZE];
  uint32_t list_type;          /* enum pol_list_type; only POL_LIST_SITE is served */
  t_pol_list_change_cb change; /* may be null */
  void* arg;
} t_pol_list_registration;

/* One element of a prefix list. */
typedef struct t_pol_pfx_record {
  uint32_t op; /* enum pol_pfx_op, or 0 */
  t_ipprefix prefix;
  uint8_t min;
  uint8_t max;
} t_pol_pfx_record;

/* What a service resolves to. */
typedef struct t_pol_service_result {
  uint32_t count;
  t_pol_tloc_result_entry entry[POL_MAX_TLOC];
} t_pol_service_result;

/* Resolves a service or a TLOC of a data policy's action, for the context and not for a user.
 * Called on the host's thread while actions and labels of data policies are computed, never during
 * route evaluation. It only reads policy; what it returns is ignored.
 *   one                 the constant 1
 *   ipv4, color, encap  of the TLOC whose label is asked for; all 0 when a service is asked for
 *   vpn, service        the action's set VPN and service type
 *   local               the action's local flag
 *   label               out: the VPN label, host byte order; untouched when nothing resolves
 *   tloc                in: the TLOC wanted, or all zero; out: the single TLOC that `label`
 *                       belongs to
 *   result              out: up to POL_MAX_TLOC TLOCs with labels; `count` is always written, more
 *                       counts as POL_MAX_TLOC. Empty with no label: nothing offers the service now
 *   zero                the constant 0 */
typedef uint32_t (*t_pol_service_resolve_cb)(uint32_t one, uint32_t ipv4, uint8_t color,
                                             uint8_t encap, uint64_t vpn, uint16_t service,
                                             uint8_t local, uint32_t* label, t_tloc_id* tloc,
                                             t_pol_service_result* result, uint32_t zero);

/* What the host hands to pol_init. */
typedef struct t_pol_callbacks {
  t_pol_service_resolve_cb resolve_service; /* may be null: no service resolves */
} t_pol_callbacks;

#endif
