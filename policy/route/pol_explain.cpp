// SPDX-License-Identifier: Apache-2.0
// Evaluation with reasons: the rules of pol_exec_rules.h under an observer that puts into words
// what it sees.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kel/ipaddr.h"
#include "kel/tloc.h"
#include "policy/pol_util.h"
#include "route/pol_exec_rules.h"
#include "route/pol_taking.h"

namespace pol {

const t_pfx_entry* taking_element(const t_pfx_list& list, const t_ipprefix& prefix) {
  const bool narrow = prefix.addr.family == KEL_AF_INET;
  const int width = narrow ? 32 : 128;
  t_ipprefix around = prefix;
  // A route without a prefix is in none; 0.0.0.0/0 with bounds may take it all the same.
  const int longest = prefix.addr.family != 0 ? std::min<int>(prefix.len, width) : -1;
  for (int length = longest; length >= 0; --length) {
    around.len = static_cast<uint8_t>(length);
    if (narrow) {
      around.addr.addr.v4 &= length > 0 ? UINT32_MAX << (32 - length) : 0;
    } else if (length < 128) {
      around.addr.addr.v6[length / 8] &= static_cast<uint8_t>(0xff00 >> (length % 8));
    }
    const t_pfx_entry* element = list.index.find(around);
    if (element != nullptr && pfx_element_takes(*element, prefix)) return element;
  }
  for (const t_pfx_entry& element : list.entries) {
    if (pfx_element_takes(element, prefix)) return &element;
  }
  return nullptr;
}

namespace {

// The configuration's words; a number without one stands for itself.
using Words = char[32];

const char* origin_words(uint8_t protocol, uint8_t subtype, Words& words) {
  static constexpr struct {
    uint8_t protocol;
    uint8_t subtype;
    const char* word;
  } kOrigins[] = {{2, 0, "connected"},       {1, 0, "static"},         {4, 2, "ospf-inter-area"},
                  {4, 1, "ospf-intra-area"}, {4, 3, "ospf-external1"}, {4, 4, "ospf-external2"},
                  {3, 1, "bgp-internal"},    {3, 2, "bgp-external"},   {5, 0, "service"},
                  {8, 0, "aggregate"},       {9, 1, "nat-inside"},     {9, 2, "nat-outside"}};
  for (const auto& row : kOrigins) {
    if (row.protocol == protocol && row.subtype == subtype) return row.word;
  }
  snprintf(words, sizeof words, "%u/%u", unsigned{protocol}, unsigned{subtype});
  return words;
}

const char* carrier_words(uint8_t carrier, Words& words) {
  if (carrier == 0) return "default";
  snprintf(words, sizeof words, carrier <= 8 ? "carrier%u" : "%u", unsigned{carrier});
  return words;
}

const char* color_words(uint32_t color, Words& words) {
  const char* word = kel_util_tloc_color_name(color);
  if (strcmp(word, "unknown") != 0) return word;
  snprintf(words, sizeof words, "%u", color);
  return words;
}

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
    decision.set_flags = entry.set_flags;
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
    if (!by_default) tell_held(entry);
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

  void report(const t_pol_entry& entry, uint32_t clause, uint8_t held = 0) {
    t_pol_explain_step step = {entry.sequence, 0, 0, held, 0, clause, 0, reason_};
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

  void tell_held(const t_pol_entry& entry);
  void describe_held(const t_pol_entry& entry, uint32_t clause);
  void describe_held_tloc(const t_pol_entry& entry, uint32_t clause);
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
  Words is;
  Words wanted;
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
      if (!present(POL_ATTR_CARRIER)) return say("it carries no carrier");
      return say("carrier is %s, not %s", carrier_words(attr_.carrier, is),
                 carrier_words(match.carrier, wanted));
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
      return say("origin is %s, not %s",
                 origin_words(attr_.origin_protocol, attr_.origin_subtype, is),
                 origin_words(match.origin_protocol, match.origin_subtype, wanted));
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
  Words color;
  Words other;
  tloc_id_print(tloc, is, sizeof is);
  switch (clause) {
    case POL_MATCH_F_TLOC:
      return say("TLOC is %s, not %s", is, tloc_id_print(&match.tloc, wanted, sizeof wanted));
    case POL_MATCH_F_TLOC_LIST:
      snprintf(what, sizeof what, "TLOC %s", is);
      return no_element(what, "element", "tloc-list", match.tloc_list,
                        is_empty<t_tloc_list>(match.tloc_list));
    case POL_MATCH_F_COLOR:
      return say("color is %s, not %s", color_words(tloc->color, color),
                 color_words(match.color, other));
    case POL_MATCH_F_COLOR_LIST:
      snprintf(what, sizeof what, "color %s", color_words(tloc->color, color));
      return no_element(what, "element", "color-list", match.color_list,
                        is_empty<t_color_list>(match.color_list));
    default:
      return;
  }
}

void ReasonObserver::tell_held(const t_pol_entry& entry) {
  for (uint32_t clause : kClauses) {
    if ((entry.match_flags & clause) == 0) continue;
    reason_[0] = '\0';
    describe_held(entry, clause);
    report(entry, clause, 1);
  }
}

void range_words(const RangeSet& ranges, uint64_t id, char* words, size_t size) {
  const RangeNode* range = ranges.holding(id);
  if (range == nullptr) {
    words[0] = '\0';
  } else if (range->low == range->high) {
    snprintf(words, size, "%lu", range->low);
  } else {
    snprintf(words, size, "%lu-%lu", range->low, range->high);
  }
}

// As the dumps have it, with the bounds that its operator looks at.
void element_words(const t_pfx_entry* element, char* words, size_t size) {
  words[0] = '\0';
  if (element == nullptr) return;
  char address[64];
  const t_ipaddr addr = pfx_address(*element);
  ipaddr_print(&addr, address, sizeof address);
  const unsigned op = element->op;
  const bool one = op == 0 || op == POL_PFX_EQ || op == POL_PFX_NE;
  const bool two = op == POL_PFX_RANGE || op == POL_PFX_XRANGE;
  const unsigned bound = op == POL_PFX_LE ? element->max : element->min;
  const char* word = op == 0 ? "" : pol_util_pfx_op_str(op);
  if (one) {
    snprintf(words, size, "%s/%u%s%s", address, unsigned{element->len}, op == POL_PFX_NE ? " " : "",
             op == POL_PFX_NE ? word : "");
  } else if (two) {
    snprintf(words, size, "%s/%u %s %u %u", address, unsigned{element->len}, word, bound,
             unsigned{element->max});
  } else {
    snprintf(words, size, "%s/%u %s %u", address, unsigned{element->len}, word, bound);
  }
}

void ReasonObserver::describe_held(const t_pol_entry& entry, uint32_t clause) {
  const t_pol_match& match = entry.match;
  char what[128];
  char where[192];
  Words words;
  switch (clause) {
    case POL_MATCH_F_TAG:
      return say("tag is %u", attr_.tag);
    case POL_MATCH_F_PREF:
      return say("preference is %u", attr_.preference);
    case POL_MATCH_F_DOMAIN:
      return say("domain is %u", attr_.domain);
    case POL_MATCH_F_GROUP:
      return say("one of its groups is %u", match.group);
    case POL_MATCH_F_SITE:
      return say("site is %u", attr_.site);
    case POL_MATCH_F_CARRIER:
      return say("carrier is %s", carrier_words(attr_.carrier, words));
    case POL_MATCH_F_VPN_ID:
      return say("VPN is %lu", query_.vpn);
    case POL_MATCH_F_VPN_LIST: {
      const auto* list = list_of<t_vpn_list>(match.vpn_list);
      range_words(list->entries, query_.vpn, where, sizeof where);
      return say("VPN %lu is in %s of vpn-list %s", query_.vpn, where, match.vpn_list.list->name);
    }
    case POL_MATCH_F_SITE_LIST: {
      const auto* list = list_of<t_site_list>(match.site_list);
      range_words(list->entries, attr_.site, where, sizeof where);
      return say("site %u%s is in %s of site-list %s", attr_.site,
                 present(POL_ATTR_SITE) ? "" : " (it carries none)", where,
                 match.site_list.list->name);
    }
    case POL_MATCH_F_PFX_LIST: {
      const auto* list = list_of<t_pfx_list>(match.pfx_list);
      if (query_.prefix.addr.family == 0) {
        return say("it carries no prefix, and prefix-list %s takes that for a length of 0",
                   match.pfx_list.list->name);
      }
      element_words(taking_element(*list, query_.prefix), where, sizeof where);
      return say("prefix %s/%u is in %s of prefix-list %s",
                 ipaddr_print(&query_.prefix.addr, what, sizeof what), unsigned{query_.prefix.len},
                 where, match.pfx_list.list->name);
    }
    case POL_MATCH_F_ORIGIN:
      return say("origin is %s", origin_words(attr_.origin_protocol, attr_.origin_subtype, words));
    case POL_MATCH_F_ORIGINATOR:
      return say("originator is %s", ipaddr_print(&attr_.originator, what, sizeof what));
    default:
      return describe_held_tloc(entry, clause);
  }
}

void ReasonObserver::describe_held_tloc(const t_pol_entry& entry, uint32_t clause) {
  const t_tloc_id& tloc = *tloc_source(entry, query_, attr_);
  char is[96];
  Words words;
  tloc_id_print(&tloc, is, sizeof is);
  const char* color = color_words(tloc.color, words);
  switch (clause) {
    case POL_MATCH_F_TLOC:
      return say("TLOC is %s", is);
    case POL_MATCH_F_TLOC_LIST:
      return say("TLOC %s is in tloc-list %s", is, entry.match.tloc_list.list->name);
    case POL_MATCH_F_COLOR:
      return say("color is %s", color);
    default:
      return say("color %s is in color-list %s", color, entry.match.color_list.list->name);
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

void pol_explain_batch(t_pol_user* user, t_pol_route_query* queries, uint32_t count,
                       t_pol_explain_step* decisions) {
  if (queries == nullptr || decisions == nullptr) return;
  for (uint32_t done = 0; done < count;) {
    const uint32_t end = done + pol::fetch_group(user, queries + done, count - done);
    for (; done < end; ++done) {
      pol_explain(user, &queries[done], nullptr, nullptr, &decisions[done]);
    }
  }
}
