// SPDX-License-Identifier: Apache-2.0
//
// Evaluation against a model that walks everything. Random edits build lists and policies in both,
// adds, overwrites and deletes mixed, some of them short of memory; policies share some lists and
// not others, and now and then one is emptied. After every few edits random routes must come out
// alike, and each sequence passed over must have failed at the same clause. What the library
// answers by its index is compared with its own walk, which pol_explain takes when it is to tell
// every step.
#include <rapidcheck.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <thread>
#include <type_traits>

#include "core/pol_policy_index.h"
#include "support/pfx_oracle.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

// One random edit: what it does follows from its numbers, so that a failure shrinks to few small
// ones.
using Edit = std::array<uint32_t, 5>;

// Few addresses, so that prefixes nest and repeat: the top bits come from a small pattern.
t_ipaddr some_address(uint32_t n, uint32_t bits) {
  t_ipaddr addr = {};
  uint32_t word = (n % 3) << 30 | (n / 3 % 3) << 22 | (n / 9 % 2) << 15 | (n / 18 % 3);
  if (bits % 5 == 0) {
    addr.family = KEL_AF_INET6;
    for (int i = 0; i < 4; ++i) addr.addr.v6[i] = static_cast<uint8_t>(word >> (24 - 8 * i));
    addr.addr.v6[15] = static_cast<uint8_t>(bits / 5 % 3);
  } else {
    addr.family = KEL_AF_INET;
    addr.addr.v4 = word;
  }
  return addr;
}

t_pol_pfx_record some_element(uint32_t a, uint32_t b, uint32_t c) {
  t_pol_pfx_record record = {};
  record.op = c % 10;
  record.prefix.addr = some_address(a, b);
  record.prefix.len = static_cast<uint8_t>(b / 7 % 34);
  if (record.prefix.addr.family == KEL_AF_INET6 && b % 2 == 0) record.prefix.len += 95;
  if (a % 11 == 0) {
    record.prefix.addr.addr = {};
    record.prefix.len = 0;
  }
  record.min = static_cast<uint8_t>(c / 10 % 40);
  record.max = static_cast<uint8_t>(c / 400 % 40);
  return record;
}

// The model knows a TLOC by its number: below kTlocs, each is another one.
constexpr uint32_t kTlocs = 36;

uint8_t color_of(uint32_t tloc) { return static_cast<uint8_t>(tloc / 6 % 3); }

t_tloc_id some_tloc(uint32_t n) {
  t_tloc_id tloc = {};
  tloc.family = n % 2 == 0 ? KEL_AF_INET : KEL_AF_INET6;
  if (tloc.family == KEL_AF_INET) {
    tloc.addr.v4 = n / 2 % 3;
  } else {
    tloc.addr.v6[n / 2 % 3] = 1;
  }
  tloc.color = color_of(n);
  tloc.encap = static_cast<uint8_t>(n / 18 % 2);
  return tloc;
}

using Range = std::pair<uint64_t, uint64_t>;

constexpr uint32_t kPolicies = 3;
constexpr uint32_t kListsOfPolicy = 5;
constexpr uint32_t kLists = kPolicies * kListsOfPolicy;
constexpr const char* kNames[kLists] = {"A", "B", "C", "D", "E", "F", "G", "H",
                                        "I", "J", "K", "L", "M", "N", "O"};
constexpr uint32_t kSequences = 150;

struct Lists {
  std::vector<Range> sites[kLists];
  std::vector<Range> vpns[kLists];
  std::vector<uint32_t> tlocs[kLists];
  std::vector<uint16_t> colors[kLists];
  std::vector<t_pol_pfx_record> prefixes[kLists];
};

// A route as a sequence sees it.
struct Asked {
  const Lists& lists;
  const t_pol_route_query& query;
  const t_pol_route_attr& attr;
  std::optional<uint32_t> tloc;

  bool has(uint32_t bit) const { return (attr.present & bit) != 0; }
};

bool in_ranges(const std::vector<Range>& ranges, uint64_t id) {
  return std::any_of(ranges.begin(), ranges.end(),
                     [id](const Range& r) { return r.first <= id && id <= r.second; });
}

template <class T>
bool holds(const std::vector<T>& list, uint32_t value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

struct Clause {
  uint32_t bit;
  uint32_t values;  // it takes 0 to this less 1: a value, a TLOC's or a list's number
  bool reported;
  void (*add)(t_pol_ctx*, t_pol_entry*, uint32_t value, uint8_t*);
  void (*del)(t_pol_ctx*, t_pol_entry*, uint8_t*);
  bool (*holds)(const Asked&, uint32_t value);
};

template <class Value>
Value value_taken_by(t_pol_match* (*)(t_pol_ctx*, t_pol_entry*, Value, uint8_t*));

template <auto kAdd, auto kDelete>
constexpr Clause clause(uint32_t bit, uint32_t values, bool (*holds)(const Asked&, uint32_t)) {
  using Value = decltype(value_taken_by(kAdd));
  auto add = [](t_pol_ctx* ctx, t_pol_entry* entry, uint32_t value, uint8_t* changed) {
    if constexpr (std::is_same_v<Value, const char*>) {
      kAdd(ctx, entry, kNames[value], changed);
    } else if constexpr (std::is_same_v<Value, const t_tloc_id*>) {
      t_tloc_id tloc = some_tloc(value);
      kAdd(ctx, entry, &tloc, changed);
    } else if constexpr (std::is_same_v<Value, const t_ipaddr*>) {
      t_ipaddr address = some_address(value, 1);
      kAdd(ctx, entry, &address, changed);
    } else {
      kAdd(ctx, entry, static_cast<Value>(value), changed);
    }
  };
  return {bit, values, !std::is_same_v<Value, const char*>, add, kDelete, holds};
}

#define CLAUSE(name) clause<pol_entry_match_##name##_add, pol_entry_match_##name##_delete>

template <uint32_t kPresent, auto kMember>
bool equals(const Asked& a, uint32_t v) {
  return a.has(kPresent) && a.attr.*kMember == v;
}

using Attr = t_pol_route_attr;

// Of each code the protocol and sub-type.
constexpr uint8_t kOrigins[][2] = {{2, 0}, {1, 0}, {4, 2}, {4, 1}, {4, 3}, {4, 4}, {3, 1}, {3, 2}};

// In the order in which they are tested.
const Clause kClauses[] = {
    CLAUSE(tag)(POL_MATCH_F_TAG, 3, equals<POL_ATTR_TAG, &Attr::tag>),
    CLAUSE(preference)(POL_MATCH_F_PREF, 3, equals<POL_ATTR_PREF, &Attr::preference>),
    CLAUSE(domain)(POL_MATCH_F_DOMAIN, 3, equals<POL_ATTR_DOMAIN, &Attr::domain>),
    CLAUSE(group)(POL_MATCH_F_GROUP, 3,
                  [](const Asked& a, uint32_t v) {
                    const uint32_t* end = a.attr.group + a.attr.group_count;
                    return a.has(POL_ATTR_GROUP) && std::find(a.attr.group, end, v) != end;
                  }),
    CLAUSE(vpn_id)(POL_MATCH_F_VPN_ID, 50,
                   [](const Asked& a, uint32_t v) { return a.query.vpn == v; }),
    CLAUSE(vpn_list)(
        POL_MATCH_F_VPN_LIST, kLists,
        [](const Asked& a, uint32_t v) { return in_ranges(a.lists.vpns[v], a.query.vpn); }),
    CLAUSE(tloc)(POL_MATCH_F_TLOC, kTlocs, [](const Asked& a, uint32_t v) { return a.tloc == v; }),
    CLAUSE(tloc_list)(
        POL_MATCH_F_TLOC_LIST, kLists,
        [](const Asked& a, uint32_t v) { return a.tloc && holds(a.lists.tlocs[v], *a.tloc); }),
    CLAUSE(site)(POL_MATCH_F_SITE, 40, equals<POL_ATTR_SITE, &Attr::site>),
    CLAUSE(site_list)(
        POL_MATCH_F_SITE_LIST, kLists,
        [](const Asked& a, uint32_t v) { return in_ranges(a.lists.sites[v], a.attr.site); }),
    CLAUSE(pfx_list)(POL_MATCH_F_PFX_LIST, kLists,
                     [](const Asked& a, uint32_t v) {
                       const auto& list = a.lists.prefixes[v];
                       return std::any_of(list.begin(), list.end(), [&](const auto& element) {
                         return element_takes(element, a.query.prefix);
                       });
                     }),
    CLAUSE(origin)(POL_MATCH_F_ORIGIN, std::size(kOrigins),
                   [](const Asked& a, uint32_t v) {
                     const auto [protocol, subtype] = kOrigins[v];
                     const uint8_t is = a.attr.origin_subtype;
                     if (!a.has(POL_ATTR_ORIGIN)) return false;
                     if (a.attr.origin_protocol != 4) {
                       return a.attr.origin_protocol == protocol && is == subtype;
                     }
                     return is == subtype || ((subtype == 3 || subtype == 4) && is == subtype + 2);
                   }),
    CLAUSE(originator)(POL_MATCH_F_ORIGINATOR, 3,
                       [](const Asked& a, uint32_t v) {
                         return a.has(POL_ATTR_ORIGINATOR) &&
                                a.attr.originator.addr.v4 == some_address(v, 1).addr.v4;
                       }),
    CLAUSE(carrier)(POL_MATCH_F_CARRIER, 3, equals<POL_ATTR_CARRIER, &Attr::carrier>),
    CLAUSE(color)(POL_MATCH_F_COLOR, 3,
                  [](const Asked& a, uint32_t v) { return a.tloc && color_of(*a.tloc) == v; }),
    CLAUSE(color_list)(POL_MATCH_F_COLOR_LIST, kLists,
                       [](const Asked& a, uint32_t v) {
                         return a.tloc && holds(a.lists.colors[v], color_of(*a.tloc));
                       }),
};
#undef CLAUSE

struct ModelEntry {
  uint32_t type = 0;
  uint32_t action = POL_REJECT;
  std::map<size_t, uint32_t> clauses;  // values by place in kClauses
  std::optional<uint32_t> set_tag, set_preference, set_vpn_list;
};

// They never count as matched.
constexpr uint32_t kListClauses = POL_MATCH_F_VPN_LIST | POL_MATCH_F_TLOC_LIST |
                                  POL_MATCH_F_SITE_LIST | POL_MATCH_F_PFX_LIST |
                                  POL_MATCH_F_COLOR_LIST;

// Sequences passed over and the clauses at which they failed, 0 for the match type.
using Failures = std::vector<std::pair<uint32_t, uint32_t>>;

struct Verdict {
  uint32_t action;
  t_pol_route_attr attr;  // as set
  std::optional<uint32_t> sequence = {};
  uint32_t matched = 0;
  uint8_t applied = 0;
  std::vector<Range> vpns = {};
  Failures failures = {};
};

struct ModelPolicy {
  std::map<uint32_t, ModelEntry> entries;
  ModelEntry by_default;
};

struct Model {
  Lists lists;
  ModelPolicy policies[kPolicies];

  Verdict evaluate(const ModelPolicy& policy, const t_pol_route_query& query, uint32_t query_tloc,
                   uint32_t route_tloc, uint32_t direction) const {
    const auto& [entries, by_default] = policy;
    const t_pol_route_attr& attr = *query.attr;
    Verdict verdict = {by_default.action, attr};
    const ModelEntry* decider = &by_default;
    for (const auto& [sequence, entry] : entries) {
      Asked asked = {lists, query, attr, {}};
      if (asked.has(POL_ATTR_TLOC)) asked.tloc = route_tloc;
      if (entry.type == POL_MATCH_TLOC) asked.tloc = query_tloc;
      if (!takes(entry, asked, sequence, &verdict)) continue;
      verdict.sequence = sequence;
      verdict.action = entry.action;
      decider = &entry;
      break;
    }
    if (verdict.action != POL_ACCEPT) return verdict;
    auto set = [&](std::optional<uint32_t> value, uint32_t* member, uint32_t present, int applied) {
      if (query.match_type > POL_MATCH_TLOC || !value) return;
      *member = *value;
      verdict.attr.present |= present;
      verdict.applied |= static_cast<uint8_t>(applied);
    };
    set(decider->set_tag, &verdict.attr.tag, POL_ATTR_TAG, POL_APPLIED_TAG);
    set(decider->set_preference, &verdict.attr.preference, POL_ATTR_PREF, POL_APPLIED_PREF);
    if (query.match_type == POL_MATCH_ROUTE && direction == POL_DIR_IN && decider->set_vpn_list) {
      verdict.vpns = lists.vpns[*decider->set_vpn_list];
      verdict.applied |= POL_APPLIED_VPN;
    }
    return verdict;
  }

  static bool takes(const ModelEntry& entry, const Asked& asked, uint32_t sequence,
                    Verdict* verdict) {
    verdict->matched = 0;
    if (entry.type != asked.query.match_type || entry.type > POL_MATCH_SERVICE) {
      verdict->failures.emplace_back(sequence, 0);
      return false;
    }
    for (const auto& [at, value] : entry.clauses) {
      if (!kClauses[at].holds(asked, value)) {
        verdict->failures.emplace_back(sequence, kClauses[at].bit);
        return false;
      }
      if (kClauses[at].reported) verdict->matched |= kClauses[at].bit;
    }
    return true;
  }
};

// Adds an element, overwrites the one that is the same, or deletes it.
template <class T, class Same = std::equal_to<>>
void change(std::vector<T>* list, const T& value, bool remove, Same same = {}) {
  auto at =
      std::find_if(list->begin(), list->end(), [&](const T& old) { return same(old, value); });
  if (at == list->end()) {
    if (!remove) list->push_back(value);
  } else if (remove) {
    list->erase(at);
  } else {
    *at = value;
  }
}

// Policies in the library and their model, edited alike.
class Twin {
 public:
  // Half of the clauses are of one kind, by its place in kClauses.
  explicit Twin(size_t favourite) : favourite_(favourite) {
    t_pol_callbacks callbacks = {};
    ctx_ = pol_init(&callbacks);
    for (uint32_t policy = 0; policy < kPolicies; ++policy) {
      for (uint32_t direction : {POL_DIR_IN, POL_DIR_OUT}) {
        t_pol_registration record = {};
        snprintf(record.user_name, sizeof record.user_name, "u%u", policy);
        snprintf(record.policy_name, sizeof record.policy_name, "p%u", policy);
        record.kind = POL_KIND_ROUTE;
        record.direction = direction;
        users_[policy][direction - 1] = pol_register(&record);
        blocks_[policy] = pol_block_find(ctx_, record.policy_name, POL_KIND_ROUTE, nullptr);
      }
    }
  }
  ~Twin() { pol_destroy(); }
  Twin(const Twin&) = delete;
  Twin& operator=(const Twin&) = delete;

  void edit(const Edit& e) {
    const auto [what, list, a, b, c] = e;
    const uint32_t n = list % kLists;
    const char* name = kNames[n];
    const bool remove = what % 4 == 0;
    // Some stand upside down.
    const auto low = a % 50;
    const auto high = low + b % 20 - (b % 20 > 17 ? 19 : 0);
    // Without memory a list stays as it was, or only the index suffers.
    std::optional<seams::Fail> fail;
    if (what / 64 % 8 == 0 && what / 4 % 16 < 8) fail.emplace(1 + static_cast<int>(what / 512 % 6));
    switch (what / 4 % 16) {
      case 0:
        if ((remove ? pol_site_list_del_entry : pol_site_list_add_entry)(ctx_, name, low, high)) {
          break;
        }
        change(&model_.lists.sites[n], {low, high}, remove);
        break;
      case 1:
        if ((remove ? pol_vpn_list_del_entry : pol_vpn_list_add_entry)(ctx_, name, low, high)) {
          break;
        }
        change(&model_.lists.vpns[n], {low, high}, remove);
        break;
      case 2: {
        t_tloc_id tloc = some_tloc(a);
        if (remove ? pol_tloc_list_del_entry(ctx_, name, &tloc)
                   : pol_tloc_list_add_entry(ctx_, name, &tloc, b)) {
          break;
        }
        change(&model_.lists.tlocs[n], a % kTlocs, remove);
        break;
      }
      case 3: {
        auto color = static_cast<uint16_t>(a % 4 * (b % 9 == 0 ? 256 : 1));
        if ((remove ? pol_color_list_del_entry : pol_color_list_add_entry)(ctx_, name, color)) {
          break;
        }
        change(&model_.lists.colors[n], color, remove);
        break;
      }
      case 4:
      case 5: {
        t_pol_pfx_record element = some_element(a, b, c);
        auto same = [](const auto& x, const auto& y) { return same_prefix(x.prefix, y.prefix); };
        if ((remove ? pol_pfx_list_del_entry : pol_pfx_list_entry_add)(ctx_, name, &element)) break;
        change(&model_.lists.prefixes[n], element, remove, same);
        break;
      }
      case 6:
        if (a % 16 == 0) {
          clear_list(n, b);
          break;
        }
        if (a % 32 == 1) {
          clear_policy(n % kPolicies);
          break;
        }
        [[fallthrough]];
      case 7:
        pol_user_chg_list_notify_all(ctx_);
        break;
      default:
        edit_entry(e, remove);
    }
  }

  void compare(std::mt19937* random) {
    auto pick = [random](uint32_t below) { return static_cast<uint32_t>((*random)() % below); };
    const uint32_t route_tloc = pick(kTlocs);
    const uint32_t query_tloc = pick(kTlocs);
    t_pol_route_attr attr = {};
    attr.present = pick(1u << 16);
    for (uint32_t* member : {&attr.tag, &attr.preference, &attr.domain}) *member = pick(3);
    attr.reserved[7] = 7;  // carried along
    attr.originator = some_address(pick(3), 1);
    attr.origin_protocol = static_cast<uint8_t>(1 + pick(4));
    attr.origin_subtype = static_cast<uint8_t>(pick(7));
    attr.site = pick(70);
    attr.carrier = static_cast<uint8_t>(pick(2));
    attr.group_count = pick(3);
    attr.group[0] = pick(3);
    attr.group[1] = pick(3);
    attr.tloc = some_tloc(route_tloc);
    t_pol_route_query query;
    pol_pre_execute(&query, 3);
    query.attr_copy.preference = 99;  // left by an earlier run
    query.attr = &attr;
    query.match_type = static_cast<uint8_t>(POL_MATCH_ROUTE + (pick(4) == 0 ? pick(4) : 0));
    query.vpn = pick(70);
    query.tloc = some_tloc(query_tloc);
    query.prefix.addr = some_address(pick(54), pick(15));
    query.prefix.len = static_cast<uint8_t>(pick(36));
    if (query.prefix.addr.family == KEL_AF_INET6 && pick(2) == 0) query.prefix.len += 95;

    const uint32_t direction = POL_DIR_IN + pick(2);
    const uint32_t policy = pick(kPolicies);
    t_pol_user* user = users_[policy][direction - 1];
    const pol::PolicyIndex* index = blocks_[policy]->index;
    const t_pol_route_attr asked = attr;
    t_pol_route_query indexed = query;
    // Unlike but for the last: what one of a batch leaves behind is not the next one's.
    t_pol_route_query batch[3] = {query, query, query};
    batch[0].match_type = POL_MATCH_TLOC;
    batch[1].prefix.len /= 2;
    const Verdict expected =
        model_.evaluate(model_.policies[policy], query, query_tloc, route_tloc, direction);
    struct Told {
      Failures failures;
      uint32_t held = 0;
      bool names_all = true;  // every element and range that took something
    } told;
    auto note = [](const t_pol_explain_step* step, void* arg) {
      auto& into = *static_cast<Told*>(arg);
      if (step->held != 0) {
        into.held |= step->clause;
        into.names_all = into.names_all && strstr(step->reason, "  ") == nullptr;
      } else if (step->decided == 0) {
        into.failures.emplace_back(step->sequence, step->clause);
      }
    };
    t_pol_explain_step decision;
    const uint32_t action = pol_explain(user, &query, note, &told, &decision);
    RC_ASSERT(std::tuple(action, decision.is_default != 0, query.applied, told.failures) ==
              std::tuple(expected.action, !expected.sequence, expected.applied, expected.failures));
    if (expected.sequence) {
      RC_ASSERT(std::tuple(decision.sequence, query.matched, told.held & ~kListClauses) ==
                std::tuple(*expected.sequence, expected.matched, expected.matched));
      RC_ASSERT(told.names_all);
    }
    RC_ASSERT(memcmp(&query.attr_copy, &expected.attr, sizeof asked) == 0);
    RC_ASSERT(memcmp(&attr, &asked, sizeof asked) == 0);
    std::vector<Range> vpns;
    for (uint32_t i = 0; i < query.vpn_count; ++i) {
      vpns.emplace_back(query.vpn_array[i].low, query.vpn_array[i].high);
    }
    RC_ASSERT(vpns == expected.vpns);
    if (index != nullptr && index->fresh) {
      ++by_index;
      if (expected.sequence) ++decided_by_index;
      const bool answers = std::ranges::all_of(index->families, [](const pol::IndexLists& family) {
        return family.few() || family.directory() != nullptr;
      });
      if (!answers) ++without_directory;
    }
    compare_trace(user, query, expected);
    RC_ASSERT(pol_execute(user, &indexed) == action);
    std::swap(indexed.vpn_array, query.vpn_array);
    const bool alike = memcmp(&indexed, &query, offsetof(t_pol_route_query, vpn_array)) == 0;
    std::swap(indexed.vpn_array, query.vpn_array);
    RC_ASSERT(alike);
    const bool alike_vpns =
        query.vpn_count == 0 ||
        memcmp(indexed.vpn_array, query.vpn_array, query.vpn_count * sizeof *query.vpn_array) == 0;
    RC_ASSERT(alike_vpns);
    uint32_t actions[3];
    pol_execute_batch(user, batch, 3, actions);
    RC_ASSERT(std::tuple(actions[2], batch[2].matched, batch[2].applied, batch[2].vpn_count) ==
              std::tuple(action, query.matched, query.applied, query.vpn_count));
    RC_ASSERT(memcmp(&batch[2].attr_copy, &query.attr_copy, sizeof query.attr_copy) == 0);
    t_pol_explain_step decisions[3];
    pol_explain_batch(user, batch, 3, decisions);
    RC_ASSERT(std::tuple(decisions[2].action, decisions[2].is_default, decisions[2].set_flags) ==
              std::tuple(decision.action, decision.is_default, decision.set_flags));
    RC_ASSERT(!expected.sequence || decisions[2].sequence == decision.sequence);
    for (t_pol_route_query& one : batch) pol_post_execute(&one);
    pol_post_execute(&indexed);
    pol_post_execute(&query);
  }

  // A trace tells the same failures, and of what decides every clause, list clauses with their element.
  static void compare_trace(t_pol_user* user, t_pol_route_query query, const Verdict& expected) {
    struct Traced {
      Failures failures;
      uint32_t held = 0;  // of the sequence that is being tried
      bool names_all = true;
      t_pol_trace_step last = {};
      const t_pol_route_query* query = nullptr;
    } traced;
    traced.query = &query;
    auto note = [](const t_pol_trace_step* step, void* arg) {
      auto& into = *static_cast<Traced*>(arg);
      if (step->sequence != into.last.sequence) into.held = 0;
      into.last = *step;
      if (step->decided != 0) return;
      if (step->held == 0) return into.failures.emplace_back(step->sequence, step->clause), void();
      into.held |= step->clause;
      const bool listed = (step->clause & kListClauses) != 0;
      const t_pol_content_element& element = step->element;
      const uint64_t id =
          step->clause == POL_MATCH_F_VPN_LIST ? into.query->vpn : into.query->attr->site;
      const bool ranged = (step->clause & (POL_MATCH_F_VPN_LIST | POL_MATCH_F_SITE_LIST)) != 0;
      const bool takes = step->clause == POL_MATCH_F_PFX_LIST
                             ? element_takes(element.prefix, into.query->prefix)
                             : !ranged || (element.low <= id && id <= element.high);
      into.names_all = into.names_all && takes && listed == (step->list != nullptr);
    };
    query.vpn_array = nullptr;
    query.vpn_count = 0;
    RC_ASSERT(pol_trace(user, &query, note, &traced) == expected.action);
    pol_post_execute(&query);
    Failures failures = expected.failures;
    std::erase_if(failures, [](const auto& each) { return each.second == 0; });  // the match type
    RC_ASSERT(traced.failures == failures);
    RC_ASSERT(traced.names_all);
    RC_ASSERT(traced.last.decided != 0 && (traced.last.is_default != 0) == !expected.sequence);
    if (!expected.sequence) return;
    RC_ASSERT(std::tuple(traced.last.sequence, traced.held & ~kListClauses) ==
              std::tuple(*expected.sequence, expected.matched));
  }

  // Eight threads at once, each with its own queries, decide as one does.
  void compare_threads(std::mt19937* random) const {
    std::vector<t_pol_route_attr> attrs(64);
    std::vector<t_pol_route_query> queries(attrs.size());
    std::vector<uint32_t> expected;
    for (size_t i = 0; i < attrs.size(); ++i) {
      attrs[i] = {};
      attrs[i].present = POL_ATTR_TAG | POL_ATTR_PREF | POL_ATTR_SITE;
      attrs[i].tag = static_cast<uint32_t>((*random)() % 3);
      attrs[i].preference = static_cast<uint32_t>((*random)() % 3);
      attrs[i].site = static_cast<uint32_t>((*random)() % 70);
      pol_pre_execute(&queries[i], 3);
      queries[i].attr = &attrs[i];
      queries[i].match_type = POL_MATCH_ROUTE;
      queries[i].vpn = (*random)() % 70;
      queries[i].prefix.addr = some_address(static_cast<uint32_t>((*random)() % 54), 1);
      queries[i].prefix.len = static_cast<uint8_t>((*random)() % 33);
      t_pol_route_query query = queries[i];
      expected.push_back(pol_execute(users_[i % kPolicies][1], &query));
    }
    std::atomic<uint32_t> differ = 0;
    std::vector<std::thread> threads;
    for (int n = 0; n < 8; ++n) {
      threads.emplace_back([&, own = queries]() mutable {
        for (size_t i = 0; i < own.size(); ++i) {
          if (pol_execute(users_[i % kPolicies][1], &own[i]) != expected[i]) ++differ;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    RC_ASSERT(differ == 0u);
  }

  // Evaluations that did not walk, and those among them in which a sequence decided.
  size_t by_index = 0;
  size_t decided_by_index = 0;
  size_t without_directory = 0;  // evaluations that walked, as memory for a directory ran out

 private:
  void clear_list(uint32_t n, uint32_t which) {
    if (which % 3 == 0) {
      model_.lists.prefixes[n].clear();
      pol_pfx_list_cfg_del(ctx_, kNames[n]);
    } else if (which % 3 == 1) {
      model_.lists.sites[n].clear();
      pol_site_list_cfg_del(ctx_, kNames[n]);
    } else {
      model_.lists.tlocs[n].clear();
      pol_tloc_list_cfg_del(ctx_, kNames[n]);
    }
  }

  void clear_policy(uint32_t policy) {
    uint8_t changed = 0;
    for (const auto& [sequence, entry] : model_.policies[policy].entries) {
      pol_entry_find_and_delete(ctx_, blocks_[policy], sequence, &changed);
    }
    model_.policies[policy].entries.clear();
  }

  void edit_entry(const Edit& e, bool remove) {
    const auto [ignored, list, a, b, c] = e;
    const uint32_t policy = list % kPolicies;
    uint32_t sequence = list / kPolicies % kSequences * 10;
    t_pol_block* block = blocks_[policy];
    auto& [entries, by_default] = model_.policies[policy];
    // Policies are loaded from the first sequence to the last.
    if (list / 1000 % 2 == 0 && !entries.empty()) {
      sequence = entries.rbegin()->first + (list / 2000 % 2) * 10;
    }
    uint8_t changed = 0;
    if (sequence == 0) {
      by_default.action = 1 + b % 2;
      by_default.set_tag = c % 3;
      pol_entry_action_add(ctx_, &block->default_action, 1 + b % 2, &changed);
      pol_entry_set_tag_add(ctx_, &block->default_action, c % 3, &changed);
      return;
    }
    if (remove && a % 5 == 0) {
      entries.erase(sequence);
      pol_entry_find_and_delete(ctx_, block, sequence, &changed);
      return;
    }
    const bool made = entries.count(sequence) == 0;
    t_pol_entry* entry = pol_entry_find_or_create(ctx_, block, sequence, &changed);
    ModelEntry& m = entries[sequence];
    if (made) {
      m.type = c % 8 < 6 ? 1 : c % 8 - 4;
      pol_entry_match_add(ctx_, block, entry, m.type, &changed);
    }
    size_t what = a % (std::size(kClauses) + 6);
    if (what < std::size(kClauses) && c % 2 == 0) what = favourite_;
    if (what < std::size(kClauses)) {
      const Clause& clause = kClauses[what];
      if (remove) {
        m.clauses.erase(what);
        clause.del(ctx_, entry, &changed);
      } else {
        uint32_t value = b % clause.values;
        // Seldom one of the next policy's lists.
        if (!clause.reported) {
          value = (policy + (c % 16 == 0 ? 1 : 0)) * kListsOfPolicy + b % kListsOfPolicy;
          value %= kLists;
        }
        m.clauses[what] = value;
        clause.add(ctx_, entry, value, &changed);
      }
    } else if (what < std::size(kClauses) + 3) {
      const uint32_t type = 1 + (b % 8 < 5 ? 0 : b % 8 - 4);
      if (m.type != type && m.type != 0) m.clauses.clear();
      m.type = type;
      pol_entry_match_add(ctx_, block, entry, type, &changed);
    } else if (what < std::size(kClauses) + 5) {
      m.action = 1 + b % 2;
      pol_entry_action_add(ctx_, entry, m.action, &changed);
    } else {
      edit_sets(b, c, &m, entry, remove);
    }
  }

  void edit_sets(uint32_t b, uint32_t c, ModelEntry* m, t_pol_entry* entry, bool remove) {
    uint8_t changed = 0;
    if (remove) {
      m->set_tag = m->set_preference = m->set_vpn_list = {};
      pol_entry_set_delete(ctx_, entry, &changed);
      return;
    }
    m->set_preference = c % 5;
    pol_entry_set_preference_add(ctx_, entry, c % 5, &changed);
    if (c % 2 == 0) return;
    m->set_vpn_list = b % kLists;
    pol_entry_set_vpn_list_add(ctx_, entry, kNames[b % kLists], &changed);
  }

  t_pol_ctx* ctx_ = nullptr;
  size_t favourite_;
  t_pol_block* blocks_[kPolicies] = {};
  t_pol_user* users_[kPolicies][2] = {};
  Model model_;
};

TEST(ExecModelTest, DecidesLikeAWalkOverEverything) {
  size_t routes = 0;
  size_t by_index = 0;
  size_t decided_by_index = 0;
  size_t without_directory = 0;
  bool held = rc::check("evaluation and model agree", [&] {
    const auto number = rc::gen::resize(rc::kNominalSize, rc::gen::inRange<uint32_t>(0, 1u << 16));
    const auto edits =
        *rc::gen::container<std::vector<Edit>>(900, rc::gen::container<Edit>(number));
    std::mt19937 random(*rc::gen::arbitrary<uint32_t>());
    size_t favourite = random() % std::size(kClauses);
    while (random() % 4 != 0 && kClauses[favourite].reported) ++favourite %= std::size(kClauses);
    Twin twin(favourite);
    for (const Edit& edit : edits) {
      twin.edit(edit);
      for (int i = 0; i < 5; ++i) twin.compare(&random);
      routes += 5;
    }
    twin.compare_threads(&random);
    by_index += twin.by_index;
    decided_by_index += twin.decided_by_index;
    without_directory += twin.without_directory;
  });
  EXPECT_TRUE(held);
  EXPECT_GE(routes, 100000u);
  EXPECT_GE(by_index, routes / 4);
  EXPECT_GE(decided_by_index, by_index / 4);
  EXPECT_LE(without_directory, by_index / 50);
}

}  // namespace
