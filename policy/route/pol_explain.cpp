// SPDX-License-Identifier: Apache-2.0
// Evaluation with reasons: the rules of pol_exec_rules.h under an observer that puts into words
// what it sees.
#include <cstdarg>
#include <cstdio>

#include "kel/ipaddr.h"
#include "kel/tloc.h"
#include "policy/pol_util.h"
#include "route/pol_exec_rules.h"

namespace pol {
namespace {

// Notes what decided, and nothing else.
class DecisionObserver {
 public:
  static constexpr bool kHearsAll = false;

  void type_differs(const t_pol_entry&) {}
  void failed(const t_pol_entry&, uint32_t /*clause*/) {}
  void decided(const t_pol_entry& entry, bool by_default, uint32_t action) {
    decision.sequence = entry.sequence;
    decision.is_default = by_default ? 1 : 0;
    decision.decided = 1;
    decision.action = action;
  }

  t_pol_explain_step decision = {};
};

class ReasonObserver {
 public:
  static constexpr bool kHearsAll = true;

  ReasonObserver(const t_pol_route_query& query, t_pol_explain_cb step, void* arg)
      : query_(query), attr_(query.attr != nullptr ? *query.attr : kNone), step_(step), arg_(arg) {}

  void type_differs(const t_pol_entry& entry) {
    say("it matches on %s, the query asks about %s", pol_util_match_type_str(entry.match.type),
        pol_util_match_type_str(query_.match_type));
    report(entry, 0);
  }

  void failed(const t_pol_entry& entry, uint32_t clause) {
    reason_[0] = '\0';
    describe(entry, clause);
    report(entry, clause);
  }

  void decided(const t_pol_entry& entry, bool by_default, uint32_t action) {
    decision_.decided(entry, by_default, action);
    t_pol_explain_step step = decision_.decision;
    if (action != entry.action) step.reason = "none of the TLOCs that it sets can be resolved";
    step_(&step, arg_);
  }

  const t_pol_explain_step& decision() const { return decision_.decision; }

 private:
  static constexpr t_pol_route_attr kNone = {};

  [[gnu::format(printf, 2, 3)]] void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(reason_, sizeof reason_, format, args);
    va_end(args);
  }

  void report(const t_pol_entry& entry, uint32_t clause) {
    t_pol_explain_step step = {entry.sequence, 0, 0, 0, clause, reason_};
    step_(&step, arg_);
  }

  bool present(uint32_t bit) const { return (attr_.present & bit) != 0; }

  void number(const char* what, uint32_t bit, uint32_t is, uint32_t wanted) {
    if (present(bit)) {
      say("%s is %u, not %u", what, is, wanted);
    } else {
      say("it carries no %s", what);
    }
  }

  // Where an id is in no range, or a value not among the elements, of a list.
  void no_element(const char* what, const char* where, const char* family,
                  const t_pol_clause_user& user, bool empty) {
    if (user.list == nullptr) {
      say("its %s could not be made", family);
    } else {
      say("%s is in no %s of %s %s%s", what, where, family, user.list->name,
          empty ? ", which is empty" : "");
    }
  }

  void describe(const t_pol_entry& entry, uint32_t clause);
  void describe_tloc(const t_pol_entry& entry, uint32_t clause);

  const t_pol_route_query& query_;
  const t_pol_route_attr& attr_;
  t_pol_explain_cb step_;
  void* arg_;
  DecisionObserver decision_;
  char reason_[512];
};

template <class List>
bool is_empty(const t_pol_clause_user& user) {
  const auto* list = list_of<List>(user);
  return list != nullptr && list->entries.empty();
}

void ReasonObserver::describe(const t_pol_entry& entry, uint32_t clause) {
  const t_pol_match& match = entry.match;
  char what[128];
  char address[64];
  switch (clause) {
    case POL_MATCH_F_TAG:
      return number("tag", POL_ATTR_TAG, attr_.tag, match.tag);
    case POL_MATCH_F_PREF:
      return number("preference", POL_ATTR_PREF, attr_.preference, match.preference);
    case POL_MATCH_F_DOMAIN:
      return number("domain", POL_ATTR_DOMAIN, attr_.domain, match.domain);
    case POL_MATCH_F_SITE:
      return number("site", POL_ATTR_SITE, attr_.site, match.site);
    case POL_MATCH_F_CARRIER:
      return number("carrier", POL_ATTR_CARRIER, attr_.carrier, match.carrier);
    case POL_MATCH_F_GROUP:
      if (!present(POL_ATTR_GROUP) || attr_.group_count == 0) return say("it carries no group");
      return say("none of its groups is %u", match.group);
    case POL_MATCH_F_VPN_ID:
      return say("VPN is %lu, not %lu", query_.vpn, match.vpn_id);
    case POL_MATCH_F_VPN_LIST:
      snprintf(what, sizeof what, "VPN %lu", query_.vpn);
      return no_element(what, "range", "vpn-list", match.vpn_list,
                        is_empty<t_vpn_list>(match.vpn_list));
    case POL_MATCH_F_SITE_LIST:
      snprintf(what, sizeof what, "site %u%s", attr_.site,
               present(POL_ATTR_SITE) ? "" : " (it carries none)");
      return no_element(what, "range", "site-list", match.site_list,
                        is_empty<t_site_list>(match.site_list));
    case POL_MATCH_F_PFX_LIST:
      if (query_.prefix.addr.family == 0) return say("it carries no prefix");
      snprintf(what, sizeof what, "prefix %s/%u",
               ipaddr_print(&query_.prefix.addr, address, sizeof address),
               unsigned{query_.prefix.len});
      return no_element(what, "element", "prefix-list", match.pfx_list,
                        is_empty<t_pfx_list>(match.pfx_list));
    case POL_MATCH_F_ORIGIN:
      if (!present(POL_ATTR_ORIGIN)) return say("it carries no origin");
      return say("origin is %u %u, not %u %u", unsigned{attr_.origin_protocol},
                 unsigned{attr_.origin_subtype}, unsigned{match.origin_protocol},
                 unsigned{match.origin_subtype});
    case POL_MATCH_F_ORIGINATOR:
      if (!present(POL_ATTR_ORIGINATOR)) return say("it carries no originator");
      snprintf(what, sizeof what, "%s", ipaddr_print(&attr_.originator, address, sizeof address));
      return say("originator is %s, not %s", what,
                 ipaddr_print(&match.originator, address, sizeof address));
    default:
      return describe_tloc(entry, clause);
  }
}

void ReasonObserver::describe_tloc(const t_pol_entry& entry, uint32_t clause) {
  const t_pol_match& match = entry.match;
  const t_tloc_id* tloc = tloc_source(entry, query_, attr_);
  if (tloc == nullptr) return say("it carries no TLOC");
  char is[96];
  char wanted[96];
  char what[128];
  tloc_id_print_short(tloc, is, sizeof is);
  switch (clause) {
    case POL_MATCH_F_TLOC:
      return say("TLOC is %s, not %s", is, tloc_id_print_short(&match.tloc, wanted, sizeof wanted));
    case POL_MATCH_F_TLOC_LIST:
      snprintf(what, sizeof what, "TLOC %s", is);
      return no_element(what, "element", "tloc-list", match.tloc_list,
                        is_empty<t_tloc_list>(match.tloc_list));
    case POL_MATCH_F_COLOR:
      return say("color is %u (%s), not %u (%s)", unsigned{tloc->color},
                 kel_util_tloc_color_name(tloc->color), unsigned{match.color},
                 kel_util_tloc_color_name(match.color));
    case POL_MATCH_F_COLOR_LIST:
      snprintf(what, sizeof what, "color %u (%s)", unsigned{tloc->color},
               kel_util_tloc_color_name(tloc->color));
      return no_element(what, "element", "color-list", match.color_list,
                        is_empty<t_color_list>(match.color_list));
    default:
      return;
  }
}

}  // namespace
}  // namespace pol

uint32_t pol_explain(t_pol_user* user, t_pol_route_query* query, t_pol_explain_cb step, void* arg,
                     t_pol_explain_step* decision) {
  t_pol_explain_step made = {};
  made.is_default = 1;
  made.decided = 1;
  made.action = POL_REJECT;
  if (user != nullptr && query != nullptr) {
    pol::copy_attributes(query);
    // Without a policy nothing is tried, and the reject is told as the default's.
    if (user->block == nullptr) {
      if (step != nullptr) {
        t_pol_explain_step told = made;
        told.reason = "the policy was deleted";
        step(&told, arg);
      }
    } else if (step != nullptr) {
      pol::ReasonObserver observer(*query, step, arg);
      pol::exec_route(user, query, observer);
      made = observer.decision();
    } else {
      pol::DecisionObserver observer;
      pol::exec_route(user, query, observer);
      made = observer.decision;
    }
  }
  if (decision != nullptr) *decision = made;
  return made.action;
}
