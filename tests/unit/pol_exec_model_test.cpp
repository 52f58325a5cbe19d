// SPDX-License-Identifier: Apache-2.0
//
// Evaluation against a model that walks everything. Random edits build lists and policy in both,
// adds, overwrites and deletes mixed; after every few edits random routes must come out alike.
#include <rapidcheck.h>

#include <map>
#include <optional>
#include <random>

#include "support/policy_fixture.h"

namespace {

// One random edit: what it does follows from its numbers, so that a failure shrinks to few small
// ones.
struct Edit {
  uint8_t what;
  uint8_t list;
  uint32_t a;
  uint32_t b;
  uint32_t c;
};

void showValue(const Edit& edit, std::ostream& os) {
  os << "{" << int{edit.what} << "," << int{edit.list} << "," << edit.a << "," << edit.b << ","
     << edit.c << "}";
}

}  // namespace

namespace rc {
template <>
struct Arbitrary<Edit> {
  static Gen<Edit> arbitrary() {
    return gen::build<Edit>(gen::set(&Edit::what), gen::set(&Edit::list),
                            gen::set(&Edit::a, gen::inRange<uint32_t>(0, 1u << 16)),
                            gen::set(&Edit::b, gen::inRange<uint32_t>(0, 1u << 16)),
                            gen::set(&Edit::c, gen::inRange<uint32_t>(0, 1u << 16)));
  }
};
}  // namespace rc

namespace {

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

t_pol_pfx_record some_element(const Edit& edit) {
  t_pol_pfx_record record = {};
  record.op = edit.c % 10;
  record.prefix.addr = some_address(edit.a, edit.b);
  record.prefix.len = static_cast<uint8_t>(edit.b / 7 % 34);
  if (record.prefix.addr.family == KEL_AF_INET6 && edit.b % 2 == 0) record.prefix.len += 95;
  if (edit.a % 11 == 0) {
    record.prefix.addr.addr = {};
    record.prefix.len = 0;
  }
  record.min = static_cast<uint8_t>(edit.c / 10 % 40);
  record.max = static_cast<uint8_t>(edit.c / 400 % 40);
  return record;
}

t_tloc_id some_tloc(uint32_t n) {
  t_tloc_id tloc = {};
  tloc.family = n % 2 == 0 ? KEL_AF_INET : KEL_AF_INET6;
  if (tloc.family == KEL_AF_INET) {
    tloc.addr.v4 = n / 2 % 3;
  } else {
    tloc.addr.v6[n / 2 % 3] = 1;
  }
  tloc.color = static_cast<uint8_t>(n / 6 % 3);
  tloc.encap = static_cast<uint8_t>(n / 18 % 2);
  return tloc;
}

bool same_tloc(const t_tloc_id& a, const t_tloc_id& b) {
  return a.family == b.family && a.color == b.color && a.encap == b.encap &&
         memcmp(&a.addr, &b.addr, a.family == KEL_AF_INET ? 4 : 16) == 0;
}

bool same_prefix(const t_ipprefix& a, const t_ipprefix& b) {
  return a.addr.family == b.addr.family && a.len == b.len &&
         memcmp(&a.addr.addr, &b.addr.addr, a.addr.family == KEL_AF_INET ? 4 : 16) == 0;
}

// Beyond the family's width all addresses are alike.
bool bit_of(const t_ipaddr& addr, unsigned bit) {
  if (bit >= (addr.family == KEL_AF_INET ? 32u : 128u)) return false;
  if (addr.family == KEL_AF_INET) return (addr.addr.v4 >> (31 - bit) & 1) != 0;
  return (addr.addr.v6[bit / 8] >> (7 - bit % 8) & 1) != 0;
}

bool element_takes(const t_pol_pfx_record& e, const t_ipprefix& q) {
  bool zero = e.prefix.len == 0;
  for (unsigned i = 0; zero && i < (e.prefix.addr.family == KEL_AF_INET ? 32u : 128u); ++i) {
    zero = !bit_of(e.prefix.addr, i);
  }
  const bool bounded = e.op >= 1 && e.op <= 8 && e.op != POL_PFX_EQ && e.op != POL_PFX_NE;
  if (!zero || !bounded) {
    if (q.addr.family != e.prefix.addr.family || q.len < e.prefix.len) return false;
    const unsigned width = q.addr.family == KEL_AF_INET ? 32 : 128;
    for (unsigned i = 0; i < e.prefix.len && i < width; ++i) {
      if (bit_of(q.addr, i) != bit_of(e.prefix.addr, i)) return false;
    }
  }
  switch (e.op) {
    case 0:
    case POL_PFX_EQ:
      return q.len == e.prefix.len;
    case POL_PFX_NE:
      return q.len != e.prefix.len;
    case POL_PFX_RANGE:
      return e.min <= q.len && q.len <= e.max;
    case POL_PFX_XRANGE:
      return e.min < q.len && q.len < e.max;
    case POL_PFX_LE:
      return q.len <= e.max;
    case POL_PFX_LT:
      return q.len < e.min;
    case POL_PFX_GE:
      return q.len >= e.min;
    case POL_PFX_GT:
      return q.len > e.min;
    default:
      return false;
  }
}

using Range = std::pair<uint64_t, uint64_t>;

bool in_ranges(const std::vector<Range>& ranges, uint64_t id) {
  for (const Range& range : ranges) {
    if (range.first <= id && id <= range.second) return true;
  }
  return false;
}

struct ModelEntry {
  uint32_t type = 0;
  uint32_t action = POL_REJECT;
  std::optional<uint32_t> tag, preference, site, group, carrier, color;
  std::optional<uint64_t> vpn;
  std::optional<t_tloc_id> tloc;
  std::optional<int> site_list, vpn_list, tloc_list, color_list, pfx_list;
  std::optional<uint32_t> set_tag, set_preference;
  std::optional<int> set_vpn_list;
};

struct Verdict {
  uint32_t action;
  std::optional<uint32_t> sequence;
  uint32_t matched;
  uint8_t applied;
  uint32_t tag;
  uint32_t preference;
  std::vector<Range> vpns;
};

constexpr int kLists = 3;
constexpr const char* kNames[kLists] = {"A", "B", "C"};

class Model {
 public:
  std::vector<Range> sites[kLists];
  std::vector<Range> vpns[kLists];
  std::vector<t_tloc_id> tlocs[kLists];
  std::vector<uint16_t> colors[kLists];
  std::vector<t_pol_pfx_record> prefixes[kLists];
  std::map<uint32_t, ModelEntry> entries;
  ModelEntry by_default;

  Verdict evaluate(const t_pol_route_query& query, uint32_t direction) const {
    const t_pol_route_attr& attr = *query.attr;
    Verdict verdict = {by_default.action, {}, 0, 0, attr.tag, attr.preference, {}};
    const ModelEntry* decider = &by_default;
    for (const auto& [sequence, entry] : entries) {
      uint32_t matched = 0;
      if (!takes(entry, query, &matched)) continue;
      verdict.sequence = sequence;
      verdict.matched = matched;
      verdict.action = entry.action;
      decider = &entry;
      break;
    }
    if (verdict.action != POL_ACCEPT) return verdict;
    if (query.match_type <= POL_MATCH_TLOC && decider->set_tag) {
      verdict.tag = *decider->set_tag;
      verdict.applied |= POL_APPLIED_TAG;
    }
    if (query.match_type <= POL_MATCH_TLOC && decider->set_preference) {
      verdict.preference = *decider->set_preference;
      verdict.applied |= POL_APPLIED_PREF;
    }
    if (query.match_type == POL_MATCH_ROUTE && direction == POL_DIR_IN && decider->set_vpn_list) {
      verdict.vpns = vpns[*decider->set_vpn_list];
      if (verdict.vpns.size() > POL_MAX_VPN) verdict.vpns.resize(POL_MAX_VPN);
      verdict.applied |= POL_APPLIED_VPN;
    }
    return verdict;
  }

 private:
  bool takes(const ModelEntry& e, const t_pol_route_query& q, uint32_t* matched) const {
    const t_pol_route_attr& attr = *q.attr;
    if (e.type != q.match_type || e.type > POL_MATCH_SERVICE || e.type == 0) return false;
    auto has = [&attr](uint32_t bit) { return (attr.present & bit) != 0; };
    const t_tloc_id* tloc = e.type == POL_MATCH_TLOC ? &q.tloc
                            : has(POL_ATTR_TLOC)     ? &attr.tloc
                                                     : nullptr;
    bool all = true;
    auto single = [&](bool configured, bool holds, uint32_t bit) {
      if (!configured) return;
      all &= holds;
      *matched |= bit;
    };
    single(!!e.tag, has(POL_ATTR_TAG) && attr.tag == e.tag, POL_MATCH_F_TAG);
    single(!!e.preference, has(POL_ATTR_PREF) && attr.preference == e.preference, POL_MATCH_F_PREF);
    bool group = false;
    for (uint32_t i = 0; i < attr.group_count; ++i) group |= attr.group[i] == e.group;
    single(!!e.group, has(POL_ATTR_GROUP) && group, POL_MATCH_F_GROUP);
    single(!!e.vpn, q.vpn == e.vpn, POL_MATCH_F_VPN_ID);
    single(!!e.tloc, tloc != nullptr && e.tloc && same_tloc(*tloc, *e.tloc), POL_MATCH_F_TLOC);
    single(!!e.site, has(POL_ATTR_SITE) && attr.site == e.site, POL_MATCH_F_SITE);
    single(!!e.carrier, has(POL_ATTR_CARRIER) && attr.carrier == e.carrier, POL_MATCH_F_CARRIER);
    single(!!e.color, tloc != nullptr && tloc->color == e.color, POL_MATCH_F_COLOR);
    if (e.vpn_list) all &= in_ranges(vpns[*e.vpn_list], q.vpn);
    if (e.site_list) all &= in_ranges(sites[*e.site_list], attr.site);
    if (e.tloc_list) {
      bool found = false;
      for (const t_tloc_id& t : tlocs[*e.tloc_list])
        found |= tloc != nullptr && same_tloc(t, *tloc);
      all &= found;
    }
    if (e.color_list) {
      bool found = false;
      for (uint16_t color : colors[*e.color_list]) found |= tloc != nullptr && color == tloc->color;
      all &= found;
    }
    if (e.pfx_list) {
      bool found = false;
      for (const auto& element : prefixes[*e.pfx_list]) found |= element_takes(element, q.prefix);
      all &= found;
    }
    return all;
  }
};

template <class T, class Same>
bool put(std::vector<T>* list, const T& value, Same same) {
  for (T& old : *list) {
    if (!same(old, value)) continue;
    old = value;
    return false;
  }
  list->push_back(value);
  return true;
}

template <class T, class Same>
void drop(std::vector<T>* list, const T& value, Same same) {
  for (auto it = list->begin(); it != list->end(); ++it) {
    if (!same(*it, value)) continue;
    list->erase(it);
    return;
  }
}

// A policy in the library and its model, edited alike.
class Twin {
 public:
  Twin() {
    t_pol_callbacks callbacks = {};
    ctx_ = pol_init(&callbacks);
    for (uint32_t direction : {POL_DIR_IN, POL_DIR_OUT}) {
      t_pol_registration record = {};
      snprintf(record.user_name, sizeof record.user_name, "u");
      snprintf(record.policy_name, sizeof record.policy_name, "p");
      record.kind = POL_KIND_ROUTE;
      record.direction = direction;
      users_[direction - 1] = pol_register(&record);
    }
    block_ = pol_block_find(ctx_, "p", POL_KIND_ROUTE, nullptr);
  }
  ~Twin() { pol_destroy(); }
  Twin(const Twin&) = delete;
  Twin& operator=(const Twin&) = delete;

  void edit(const Edit& e) {
    const int n = e.list % kLists;
    const char* name = kNames[n];
    const bool remove = e.what % 4 == 0;
    const Range range = {e.a % 50, e.a % 50 + e.b % 20 - (e.b % 20 > 17 ? 19 : 0)};
    const auto low = static_cast<uint32_t>(range.first);
    const auto high = static_cast<uint32_t>(range.second);
    const Range stored = {low, high};
    auto equal = [](const auto& a, const auto& b) { return a == b; };
    switch (e.what / 4 % 8) {
      case 0:
        if (remove) {
          drop(&model_.sites[n], stored, equal);
          pol_site_list_del_entry(ctx_, name, low, high);
        } else {
          put(&model_.sites[n], stored, equal);
          pol_site_list_add_entry(ctx_, name, low, high);
        }
        break;
      case 1:
        if (remove) {
          drop(&model_.vpns[n], stored, equal);
          pol_vpn_list_del_entry(ctx_, name, low, high);
        } else {
          put(&model_.vpns[n], stored, equal);
          pol_vpn_list_add_entry(ctx_, name, low, high);
        }
        break;
      case 2: {
        t_tloc_id tloc = some_tloc(e.a);
        if (remove) {
          drop(&model_.tlocs[n], tloc, same_tloc);
          pol_tloc_list_del_entry(ctx_, name, &tloc);
        } else {
          put(&model_.tlocs[n], tloc, same_tloc);
          pol_tloc_list_add_entry(ctx_, name, &tloc, e.b);
        }
        break;
      }
      case 3: {
        auto color = static_cast<uint16_t>(e.a % 4 * (e.b % 9 == 0 ? 256 : 1));
        if (remove) {
          drop(&model_.colors[n], color, equal);
          pol_color_list_del_entry(ctx_, name, color);
        } else {
          put(&model_.colors[n], color, equal);
          pol_color_list_add_entry(ctx_, name, color);
        }
        break;
      }
      case 4:
      case 5: {
        t_pol_pfx_record element = some_element(e);
        auto same = [](const auto& a, const auto& b) { return same_prefix(a.prefix, b.prefix); };
        if (remove) {
          drop(&model_.prefixes[n], element, same);
          pol_pfx_list_del_entry(ctx_, name, &element);
        } else {
          put(&model_.prefixes[n], element, same);
          pol_pfx_list_entry_add(ctx_, name, &element);
        }
        break;
      }
      case 6:
        if (e.a % 16 == 0) return clear_list(n, e.b);
        [[fallthrough]];
      default:
        edit_entry(e, remove);
    }
  }

  void compare(std::mt19937* random) {
    auto pick = [random](uint32_t below) { return static_cast<uint32_t>((*random)() % below); };
    t_pol_route_attr attr = {};
    attr.present = pick(1u << 16);
    attr.tag = pick(3);
    attr.preference = pick(3);
    attr.site = pick(70);
    attr.carrier = static_cast<uint8_t>(pick(2));
    attr.group_count = pick(3);
    attr.group[0] = pick(3);
    attr.group[1] = pick(3);
    attr.tloc = some_tloc(pick(36));
    t_pol_route_query query;
    pol_pre_execute(&query, 3);
    query.attr = &attr;
    query.match_type = static_cast<uint8_t>(POL_MATCH_ROUTE + (pick(4) == 0 ? pick(3) : 0));
    query.vpn = pick(70);
    query.tloc = some_tloc(pick(36));
    query.prefix.addr = some_address(pick(54), pick(15));
    query.prefix.len = static_cast<uint8_t>(pick(36));
    if (query.prefix.addr.family == KEL_AF_INET6 && pick(2) == 0) query.prefix.len += 95;

    const uint32_t direction = POL_DIR_IN + pick(2);
    const Verdict expected = model_.evaluate(query, direction);
    t_pol_explain_step decision;
    const uint32_t action = pol_explain(users_[direction - 1], &query, nullptr, nullptr, &decision);
    RC_ASSERT(action == expected.action);
    RC_ASSERT((decision.is_default != 0) == !expected.sequence.has_value());
    if (expected.sequence) {
      RC_ASSERT(decision.sequence == *expected.sequence);
      RC_ASSERT(query.matched == expected.matched);
    }
    RC_ASSERT(query.applied == expected.applied);
    RC_ASSERT(query.attr_copy.tag == expected.tag);
    RC_ASSERT(query.attr_copy.preference == expected.preference);
    std::vector<Range> vpns;
    for (uint32_t i = 0; i < query.vpn_count; ++i) {
      vpns.emplace_back(query.vpn_array[i].low, query.vpn_array[i].high);
    }
    RC_ASSERT(vpns == expected.vpns);
    pol_post_execute(&query);
  }

 private:
  void clear_list(int n, uint32_t which) {
    switch (which % 3) {
      case 0:
        model_.prefixes[n].clear();
        pol_pfx_list_cfg_del(ctx_, kNames[n]);
        break;
      case 1:
        model_.sites[n].clear();
        pol_site_list_cfg_del(ctx_, kNames[n]);
        break;
      default:
        model_.tlocs[n].clear();
        pol_tloc_list_cfg_del(ctx_, kNames[n]);
        break;
    }
  }

  void edit_entry(const Edit& e, bool remove) {
    const uint32_t sequence = e.list / kLists % 6 * 10;
    uint8_t changed = 0;
    if (sequence == 0) {
      const uint32_t action = 1 + e.b % 2;
      model_.by_default.action = action;
      model_.by_default.set_tag = e.c % 3;
      pol_entry_action_add(ctx_, &block_->default_action, action, &changed);
      pol_entry_set_tag_add(ctx_, &block_->default_action, e.c % 3, &changed);
      return;
    }
    if (remove && e.a % 5 == 0) {
      model_.entries.erase(sequence);
      pol_entry_find_and_delete(ctx_, block_, sequence, &changed);
      return;
    }
    t_pol_entry* entry = pol_entry_find_or_create(ctx_, block_, sequence, &changed);
    ModelEntry& m = model_.entries[sequence];
    const int n = static_cast<int>(e.b % kLists);
    const char* name = kNames[n];
    const uint32_t value = e.b % 3;
#define CLAUSE(member, call, arg)                                    \
  if (remove) {                                                      \
    m.member.reset();                                                \
    pol_entry_##call##_delete(ctx_, entry, &changed);                \
  } else {                                                           \
    m.member = arg;                                                  \
    pol_entry_##call##_add(ctx_, entry, arg_of(m.member), &changed); \
  }                                                                  \
  break
    auto arg_of = [](const auto& member) { return *member; };
    switch (e.a % 20) {
      case 0:
      case 1:
      case 2: {
        const uint32_t type = 1 + (e.b % 8 < 5 ? 0 : e.b % 8 - 4);
        if (m.type != type && m.type != 0) {
          ModelEntry kept = {};
          kept.action = m.action;
          kept.set_tag = m.set_tag;
          kept.set_preference = m.set_preference;
          kept.set_vpn_list = m.set_vpn_list;
          m = kept;
        }
        m.type = type;
        pol_entry_match_add(ctx_, block_, entry, type, &changed);
        break;
      }
      case 3:
      case 4:
        m.action = 1 + e.b % 2;
        pol_entry_action_add(ctx_, entry, m.action, &changed);
        break;
      case 5:
        CLAUSE(tag, match_tag, value);
      case 6:
        CLAUSE(preference, match_preference, value);
      case 7:
        CLAUSE(site, match_site, e.b % 40);
      case 8:
        CLAUSE(group, match_group, value);
      case 9:
        if (remove) {
          m.carrier.reset();
          pol_entry_match_carrier_delete(ctx_, entry, &changed);
        } else {
          m.carrier = value;
          pol_entry_match_carrier_add(ctx_, entry, static_cast<uint8_t>(value), &changed);
        }
        break;
      case 10:
        if (remove) {
          m.color.reset();
          pol_entry_match_color_delete(ctx_, entry, &changed);
        } else {
          m.color = value;
          pol_entry_match_color_add(ctx_, entry, static_cast<uint16_t>(value), &changed);
        }
        break;
      case 11:
        CLAUSE(vpn, match_vpn_id, e.b % 50);
      case 12:
        if (remove) {
          m.tloc.reset();
          pol_entry_match_tloc_delete(ctx_, entry, &changed);
        } else {
          m.tloc = some_tloc(e.b);
          pol_entry_match_tloc_add(ctx_, entry, &*m.tloc, &changed);
        }
        break;
      case 13:
        if (remove) {
          m.site_list.reset();
          pol_entry_match_site_list_delete(ctx_, entry, &changed);
        } else {
          m.site_list = n;
          pol_entry_match_site_list_add(ctx_, entry, name, &changed);
        }
        break;
      case 14:
        if (remove) {
          m.vpn_list.reset();
          pol_entry_match_vpn_list_delete(ctx_, entry, &changed);
        } else {
          m.vpn_list = n;
          pol_entry_match_vpn_list_add(ctx_, entry, name, &changed);
        }
        break;
      case 15:
        if (remove) {
          m.tloc_list.reset();
          pol_entry_match_tloc_list_delete(ctx_, entry, &changed);
        } else {
          m.tloc_list = n;
          pol_entry_match_tloc_list_add(ctx_, entry, name, &changed);
        }
        break;
      case 16:
        if (remove) {
          m.color_list.reset();
          pol_entry_match_color_list_delete(ctx_, entry, &changed);
        } else {
          m.color_list = n;
          pol_entry_match_color_list_add(ctx_, entry, name, &changed);
        }
        break;
      case 17:
      case 18:
        if (remove) {
          m.pfx_list.reset();
          pol_entry_match_pfx_list_delete(ctx_, entry, &changed);
        } else {
          m.pfx_list = n;
          pol_entry_match_pfx_list_add(ctx_, entry, name, &changed);
        }
        break;
      default:
        edit_sets(e, &m, entry, remove);
    }
#undef CLAUSE
  }

  void edit_sets(const Edit& e, ModelEntry* m, t_pol_entry* entry, bool remove) {
    uint8_t changed = 0;
    const int n = static_cast<int>(e.b % kLists);
    if (remove) {
      m->set_tag.reset();
      m->set_preference.reset();
      m->set_vpn_list.reset();
      pol_entry_set_delete(ctx_, entry, &changed);
      return;
    }
    m->set_preference = e.c % 5;
    pol_entry_set_preference_add(ctx_, entry, e.c % 5, &changed);
    if (e.c % 2 == 0) return;
    m->set_vpn_list = n;
    pol_entry_set_vpn_list_add(ctx_, entry, kNames[n], &changed);
  }

  t_pol_ctx* ctx_ = nullptr;
  t_pol_block* block_ = nullptr;
  t_pol_user* users_[2] = {};
  Model model_;
};

TEST(ExecModelTest, DecidesLikeAWalkOverEverything) {
  size_t routes = 0;
  bool held = rc::check("evaluation and model agree", [&routes] {
    const auto edits = *rc::gen::container<std::vector<Edit>>(120, rc::gen::arbitrary<Edit>());
    std::mt19937 random(*rc::gen::arbitrary<uint32_t>());
    Twin twin;
    for (const Edit& edit : edits) {
      twin.edit(edit);
      for (int i = 0; i < 12; ++i) twin.compare(&random);
      routes += 12;
    }
  });
  EXPECT_TRUE(held);
  EXPECT_GE(routes, 100000u);
}

}  // namespace
