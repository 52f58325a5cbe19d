// SPDX-License-Identifier: Apache-2.0
// The analysis against the library, in both directions: on random policies every random route must lie in
// the set of the sequence that decides it, and every route that a set shows must be decided by its sequence.
// Differences and findings are held against asking about all routes, or prefixes, of a small world.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <random>

#include "policy/policy.h"
#include "tool/proof/difference.h"
#include "tool/proof/proof_findings.h"

namespace {

#ifdef POLICY_SANITIZED
constexpr uint32_t kSlower = 8;  // is what asks of every access whether it is allowed
#else
constexpr uint32_t kSlower = 1;
#endif

using namespace polctl;

std::mt19937 g_random;

uint32_t below(uint32_t n) { return static_cast<uint32_t>(g_random() % n); }
bool one_in(uint32_t n) { return below(n) == 0; }

// Few addresses, so that prefixes nest and repeat, host bits and all.
t_ipaddr some_address() {
  t_ipaddr addr = {};
  uint32_t word = below(3) << 30 | below(3) << 22 | below(2) << 15 | below(3);
  addr.family = one_in(5) ? KEL_AF_INET6 : KEL_AF_INET;
  if (addr.family == KEL_AF_INET) {
    addr.addr.v4 = word;
  } else {
    for (int i = 0; i < 4; ++i) addr.addr.v6[i] = static_cast<uint8_t>(word >> (24 - 8 * i));
    addr.addr.v6[15] = static_cast<uint8_t>(below(3));
  }
  return addr;
}

t_ipprefix some_prefix() {
  t_ipprefix prefix = {some_address(), 0};
  if (one_in(12)) prefix.addr.addr = {};
  constexpr uint8_t kLengths[] = {0, 1, 2, 8, 9, 10, 16, 17, 24, 31, 32};
  prefix.len = kLengths[below(std::size(kLengths))];
  if (prefix.addr.family == KEL_AF_INET6 && one_in(2)) prefix.len += 96;
  return prefix;
}

t_tloc_id some_tloc() {
  t_tloc_id tloc = {};
  tloc.family = one_in(3) ? KEL_AF_INET6 : KEL_AF_INET;
  (tloc.family == KEL_AF_INET ? tloc.addr.v6[0] : tloc.addr.v6[15]) =
      static_cast<uint8_t>(below(3));
  tloc.color = static_cast<uint8_t>(below(3));
  tloc.encap = static_cast<uint8_t>(below(2));
  return tloc;
}

const char* some_list() {
  constexpr const char* kNames[] = {"A", "B", "C", "D", "never filled"};
  return kNames[below(std::size(kNames))];
}

void fill_lists() {
  for (int i = 0; i < 14; ++i) {
    const char* name = i < 4 ? "A" : i < 8 ? "B" : i < 12 ? "C" : "D";
    t_pol_pfx_record record = {below(10), some_prefix(), static_cast<uint8_t>(below(36)),
                               static_cast<uint8_t>(below(36))};
    if (record.prefix.len == 0 && one_in(2)) record.prefix.addr.addr = {};
    pol_pfx_list_entry_add(g_pol_ctx_p, name, &record);
    uint32_t low = below(6);
    pol_site_list_add_entry(g_pol_ctx_p, name, low, low + below(3) - (one_in(9) ? 1 : 0));
    pol_vpn_list_add_entry(g_pol_ctx_p, name, below(5), one_in(6) ? UINT32_MAX : below(6));
    t_tloc_id tloc = some_tloc();
    pol_tloc_list_add_entry(g_pol_ctx_p, name, &tloc, 0);
    pol_color_list_add_entry(g_pol_ctx_p, name, static_cast<uint16_t>(one_in(9) ? 256 : below(3)));
  }
}

void forget_all() {
  uint8_t changed = 0;
  pol_block_find_and_delete(g_pol_ctx_p, "p", POL_KIND_ROUTE, &changed);
  for (const char* name : {"A", "B", "C", "D"}) {
    pol_pfx_list_cfg_del(g_pol_ctx_p, name);
    pol_site_list_cfg_del(g_pol_ctx_p, name);
    pol_vpn_list_cfg_del(g_pol_ctx_p, name);
    pol_tloc_list_cfg_del(g_pol_ctx_p, name);
    pol_color_list_cfg_del(g_pol_ctx_p, name);
  }
}

void add_clauses(t_pol_entry* entry, uint32_t one_of) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  uint8_t changed = 0;
  auto wanted = [&] { return one_in(one_of); };
  const t_tloc_id tloc = some_tloc();
  const t_ipaddr originator = some_address();
  if (wanted()) pol_entry_match_tag_add(ctx, entry, below(3), &changed);
  if (wanted()) pol_entry_match_preference_add(ctx, entry, below(3), &changed);
  if (wanted()) pol_entry_match_domain_add(ctx, entry, below(3), &changed);
  if (wanted()) pol_entry_match_group_add(ctx, entry, below(3), &changed);
  if (wanted()) pol_entry_match_vpn_id_add(ctx, entry, one_in(4) ? UINT64_MAX : below(4), &changed);
  if (wanted()) pol_entry_match_vpn_list_add(ctx, entry, some_list(), &changed);
  if (wanted()) pol_entry_match_tloc_add(ctx, entry, &tloc, &changed);
  if (wanted()) pol_entry_match_tloc_list_add(ctx, entry, some_list(), &changed);
  if (wanted()) pol_entry_match_site_add(ctx, entry, below(4), &changed);
  if (wanted()) pol_entry_match_site_list_add(ctx, entry, some_list(), &changed);
  if (wanted()) pol_entry_match_pfx_list_add(ctx, entry, some_list(), &changed);
  if (wanted()) pol_entry_match_pfx_list_add(ctx, entry, some_list(), &changed);
  if (wanted()) pol_entry_match_origin_add(ctx, entry, below(16), &changed);
  if (wanted()) pol_entry_match_originator_add(ctx, entry, &originator, &changed);
  if (wanted()) pol_entry_match_carrier_add(ctx, entry, static_cast<uint8_t>(below(3)), &changed);
  if (wanted()) {
    pol_entry_match_color_add(ctx, entry, static_cast<uint16_t>(below(2) * 256 + below(3)),
                              &changed);
  }
  if (wanted()) pol_entry_match_color_list_add(ctx, entry, some_list(), &changed);
}

void add_sets(t_pol_entry* entry) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  uint8_t changed = 0;
  const t_tloc_id tloc = some_tloc();
  pol_entry_action_add(ctx, entry, one_in(3) ? POL_REJECT : POL_ACCEPT, &changed);
  if (one_in(3)) pol_entry_set_tag_add(ctx, entry, below(2), &changed);
  if (one_in(4)) pol_entry_set_preference_add(ctx, entry, below(2), &changed);
  if (one_in(8)) pol_entry_set_tloc_add(ctx, entry, &tloc, &changed);
  if (one_in(8)) pol_entry_set_vpn_id_add(ctx, entry, below(2), &changed);
  if (one_in(8)) pol_entry_set_vpn_list_add(ctx, entry, some_list(), &changed);
  if (one_in(8)) pol_entry_set_tloc_list_add(ctx, entry, some_list(), &changed);
  if (one_in(8)) pol_entry_set_service_add(ctx, entry, 1, &tloc, below(2), &changed);
}

// `one_of`: each clause is there in one of so many sequences.
void make_policy(const char* name, uint32_t sequences, uint32_t one_of) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  uint8_t changed = 0;
  t_pol_block* block = pol_block_find_or_create(ctx, name, POL_KIND_ROUTE, &changed);
  for (uint32_t i = 1; i <= sequences; ++i) {
    t_pol_entry* entry = pol_entry_find_or_create(ctx, block, i * 10, &changed);
    const uint32_t type = one_in(3) ? 1 + below(4) : uint32_t{POL_MATCH_ROUTE};
    if (!one_in(20)) pol_entry_match_add(ctx, block, entry, type, &changed);
    add_clauses(entry, one_of);
    add_sets(entry);
  }
  pol_user_chg_list_notify_all(ctx);
}

struct Route {
  t_pol_route_attr attr = {};
  t_pol_route_query query;

  Route() { pol_pre_execute(&query, 3); }
  ~Route() { pol_post_execute(&query); }
  Route(const Route&) = delete;
};

void fill_random(Route* route) {
  t_pol_route_attr& attr = route->attr;
  route->query.attr = &attr;
  route->query.match_type = static_cast<uint8_t>(1 + (one_in(3) ? below(3) : 0));
  if (!one_in(8)) route->query.prefix = some_prefix();
  route->query.vpn = one_in(8) ? UINT64_MAX : below(6);
  auto has = [&](uint32_t bit) {
    if (one_in(3)) return false;
    attr.present |= bit;
    return true;
  };
  if (has(POL_ATTR_TAG)) attr.tag = below(4);
  if (has(POL_ATTR_PREF)) attr.preference = below(4);
  if (has(POL_ATTR_DOMAIN)) attr.domain = below(4);
  if (has(POL_ATTR_SITE)) attr.site = below(9);
  if (has(POL_ATTR_TLOC)) attr.tloc = some_tloc();
  if (has(POL_ATTR_ORIGINATOR)) attr.originator = some_address();
  if (has(POL_ATTR_CARRIER)) attr.carrier = static_cast<uint8_t>(below(4));
  if (has(POL_ATTR_ORIGIN)) {
    attr.origin_protocol = static_cast<uint8_t>(1 + below(9));
    attr.origin_subtype = static_cast<uint8_t>(below(8));
  }
  if (has(POL_ATTR_GROUP)) {
    for (uint32_t group = 0; group < 4; ++group) {
      if (one_in(2)) attr.group[attr.group_count++] = group;
    }
  }
  route->query.tloc = attr.tloc;
}

Atom atom_of(Field field, Atom::Kind kind, const Value& value) {
  Atom atom;
  atom.field = field;
  atom.kind = kind;
  atom.value = value;
  if (kind == Atom::Kind::kNumbers) atom.high = static_cast<uint64_t>(value.number);
  return atom;
}

Atom number_of(Field field, bool present, uint64_t number) {
  Value value;
  value.number = number;
  return present ? atom_of(field, Atom::Kind::kNumbers, value)
                 : atom_of(field, Atom::Kind::kAbsent, {});
}

// What tells one route from every other that policies could answer differently.
struct Pinned {
  std::vector<size_t> has;
  std::vector<size_t> lacks;

  Pinned(RouteSpace* space, const Route& route) {
    const t_pol_route_attr& attr = route.attr;
    auto present = [&](uint32_t bit) { return (attr.present & bit) != 0; };
    auto pin = [&](const Atom& atom) { has.push_back(space->add(atom)); };
    Value type;
    type.number = route.query.match_type;
    pin(atom_of(Field::kType, Atom::Kind::kValue, type));
    pin(number_of(Field::kVpn, true, route.query.vpn));
    pin(number_of(Field::kTag, present(POL_ATTR_TAG), attr.tag));
    pin(number_of(Field::kPreference, present(POL_ATTR_PREF), attr.preference));
    pin(number_of(Field::kDomain, present(POL_ATTR_DOMAIN), attr.domain));
    pin(number_of(Field::kSite, present(POL_ATTR_SITE), attr.site));
    pin(number_of(Field::kCarrier, present(POL_ATTR_CARRIER), attr.carrier));
    Value origin;
    origin.number = attr.origin_protocol;
    origin.length = attr.origin_subtype;
    auto or_absent = [&](Field field, uint32_t bit, Atom::Kind kind, const Value& value) {
      pin(present(bit) ? atom_of(field, kind, value) : atom_of(field, Atom::Kind::kAbsent, {}));
    };
    or_absent(Field::kOrigin, POL_ATTR_ORIGIN, Atom::Kind::kExact, origin);
    or_absent(Field::kOriginator, POL_ATTR_ORIGINATOR, Atom::Kind::kValue,
              value_of(attr.originator));
    or_absent(Field::kTloc, POL_ATTR_TLOC, Atom::Kind::kValue, value_of(attr.tloc));
    const t_ipprefix& prefix = route.query.prefix;
    Atom in_prefix;
    in_prefix.field = Field::kPrefix;
    if (prefix.addr.family != 0) {
      in_prefix.kind = Atom::Kind::kPrefixes;
      in_prefix.prefixes = {value_of(prefix.addr), prefix.len, prefix.len};
      Value& base = in_prefix.prefixes.base;
      unsigned beyond = (base.family == 4 ? 32u : 128u) - prefix.len;
      base.number = beyond == 128 ? 0 : base.number >> beyond << beyond;
      base.length = prefix.len;
    }
    pin(in_prefix);
    for (uint32_t group = 0; group < 4; ++group) {
      Value value;
      value.number = group;
      size_t id = space->add(atom_of(Field::kGroup, Atom::Kind::kValue, value));
      auto end = attr.group + attr.group_count;
      (std::find(attr.group, end, group) != end ? has : lacks).push_back(id);
    }
  }

  RouteSet set(RouteSpace* space) const {
    RouteSet routes = RouteSet::all();
    for (size_t id : has) routes = routes & space->atom(id);
    for (size_t id : lacks) routes = routes - space->atom(id);
    return routes;
  }
};

class ProofTest : public ::testing::Test {
 protected:
  void SetUp() override {
    t_pol_callbacks callbacks = {};
    ASSERT_NE(pol_init(&callbacks), nullptr);
  }
  void TearDown() override { pol_destroy(); }
};

t_pol_user* user_of(const char* policy, uint32_t direction) {
  t_pol_registration record = {"test ", "", POL_KIND_ROUTE, direction, nullptr, nullptr, 0, 0};
  record.user_name[4] = policy[0];
  record.policy_name[0] = policy[0];
  return pol_register(&record);
}

TEST_F(ProofTest, RoutesLieInTheSetsOfWhatDecidesThemAndSetsShowSuchRoutes) {
  size_t empty = 0;
  size_t full = 0;
  for (uint32_t round = 0; round < 250 / kSlower; ++round) {
    SCOPED_TRACE(round);
    g_random.seed(round);
    forget_all();
    fill_lists();
    make_policy("p", 2 + below(14), 5 + below(12));
    Model model;
    model.read();
    RouteSpace space({});
    PolicyProof policy(&space, *model.policy("p", POL_KIND_ROUTE));
    std::vector<std::unique_ptr<Route>> routes;
    std::vector<Pinned> pinned;
    for (int i = 0; i < 30; ++i) {
      routes.push_back(std::make_unique<Route>());
      fill_random(routes.back().get());
      pinned.emplace_back(&space, *routes.back());
    }
    space.cut();
    const uint32_t direction = 1 + round % 2;
    Verifier verifier("p", POL_KIND_ROUTE, direction);
    t_pol_user* user = user_of("p", direction);
    for (size_t i = 0; i < routes.size(); ++i) {
      t_pol_explain_step decision = {};
      pol_explain(user, &routes[i]->query, nullptr, nullptr, &decision);
      RouteSet alike = pinned[i].set(&space);
      ASSERT_FALSE(alike.empty());
      for (size_t j = 0; j < policy.size(); ++j) {
        const SequenceModel& sequence = policy.sequence(j);
        bool decides = decision.is_default != 0
                           ? sequence.is_default()
                           : sequence.is.sequence == decision.sequence && !sequence.is_default();
        RouteSet both = alike & policy.decided(j);
        ASSERT_TRUE(decides ? both == alike : both.empty())
            << route_json(space.show(alike)) << " and sequence " << sequence.is.sequence;
      }
    }
    pol_unregister(&user);
    for (size_t j = 0; j < policy.size(); ++j) {
      RouteSet left = policy.decided(j);
      ++(left.empty() ? empty : full);
      for (int i = 0; i < 6 && !left.empty(); ++i) {
        verifier.require(space.show(left), policy.sequence(j));
        left = left - pinned[below(30)].set(&space);
        RouteSet part = left & space.atom(pinned[below(30)].has[below(11)]);
        if (!part.empty()) verifier.require(space.show(part), policy.sequence(j));
      }
    }
  }
  EXPECT_GT(std::min(full, empty), 500 / kSlower);
}

// A small world: three tags, five sites, five prefixes and two types, so that all routes can be asked about.
constexpr uint32_t kAllRoutes = 3 * 5 * 5 * 2;

void fill_nth(uint32_t n, Route* route) {
  t_pol_route_attr& attr = route->attr;
  route->query.attr = &attr;
  attr.present = (n % 3 != 0 ? POL_ATTR_TAG : 0) | (n / 3 % 5 != 0 ? POL_ATTR_SITE : 0);
  attr.tag = n % 3;
  attr.site = n / 3 % 5;
  route->query.prefix = {{KEL_AF_INET, {.v4 = (n / 15 % 5) << 24}}, 8};
  route->query.match_type = static_cast<uint8_t>(1 + n / 75);
}

// Equal where what becomes of the route is.
uint32_t answer_to(t_pol_user* user, Route* route) {
  route->query.applied = 0;
  if (pol_execute(user, &route->query) != POL_ACCEPT) return POL_REJECT;
  bool tagged = (route->query.applied & POL_APPLIED_TAG) != 0;
  return POL_ACCEPT + (tagged ? 16 + route->query.attr_copy.tag * 256 : 0);
}

std::vector<uint32_t> answers_of(const char* policy) {
  t_pol_user* user = user_of(policy, POL_DIR_IN);
  std::vector<uint32_t> answers;
  for (uint32_t n = 0; n < kAllRoutes; ++n) {
    Route route;
    fill_nth(n, &route);
    answers.push_back(answer_to(user, &route));
  }
  pol_unregister(&user);
  return answers;
}

void fill_small_lists() {
  for (uint32_t site = 0; site < 3; ++site) {
    pol_site_list_add_entry(g_pol_ctx_p, site == 0 ? "S" : "T", site, site + 1);
  }
  for (uint32_t i = 0; i < 4; ++i) {
    t_pol_pfx_record record = {};
    record.op = i == 0 ? POL_PFX_LE : POL_PFX_EQ;
    record.prefix = {{KEL_AF_INET, {.v4 = i << 24}}, static_cast<uint8_t>(i == 0 ? 6 : 8)};
    record.max = 8;
    pol_pfx_list_entry_add(g_pol_ctx_p, i % 2 == 0 ? "P" : "Q", &record);
  }
}

// Of five sequences, the same of each seed; then so many of them are changed.
t_pol_block* make_small_policy(const char* name, uint32_t seed, uint32_t edits) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  uint8_t changed = 0;
  g_random.seed(seed);
  t_pol_block* block = pol_block_find_or_create(ctx, name, POL_KIND_ROUTE, &changed);
  for (uint32_t i = 1; i <= 5; ++i) {
    t_pol_entry* entry = pol_entry_find_or_create(ctx, block, i * 10 + edits, &changed);
    pol_entry_match_add(ctx, block, entry, one_in(5) ? 2 : 1, &changed);
    if (one_in(2)) pol_entry_match_tag_add(ctx, entry, 1 + below(2), &changed);
    if (one_in(2)) pol_entry_match_site_list_add(ctx, entry, one_in(2) ? "S" : "T", &changed);
    if (one_in(2)) pol_entry_match_pfx_list_add(ctx, entry, one_in(2) ? "P" : "Q", &changed);
    pol_entry_action_add(ctx, entry, 1 + below(2), &changed);
    if (one_in(2)) pol_entry_set_tag_add(ctx, entry, below(2), &changed);
  }
  for (uint32_t i = 0; i < edits; ++i) {
    t_pol_entry* entry = pol_entry_find(ctx, block, (1 + (seed + i) % 5) * 10 + edits, nullptr);
    switch ((seed / 5 + i) % 5) {
      case 0:
        pol_entry_find_and_delete(ctx, block, pol_entry_get_sequence(entry), &changed);
        return block;
      case 1:
        pol_entry_match_tag_add(ctx, entry, 2, &changed);
        break;
      case 2:
        pol_entry_match_site_list_add(ctx, entry, "T", &changed);
        break;
      case 3:
        pol_entry_action_add(ctx, entry, POL_ACCEPT, &changed);
        break;
      default:
        pol_entry_match_pfx_list_delete(ctx, entry, &changed);
    }
  }
  return block;
}

void forget_policy(const char* name) {
  uint8_t changed = 0;
  pol_block_find_and_delete(g_pol_ctx_p, name, POL_KIND_ROUTE, &changed);
}

TEST_F(ProofTest, DifferencesAreThoseThatAskingAboutEveryRouteFinds) {
  size_t equal = 0;
  fill_small_lists();
  for (uint32_t round = 0; round < 400 / kSlower; ++round) {
    SCOPED_TRACE(round);
    make_small_policy("a", round, 0);
    make_small_policy("b", round, round % 4);
    pol_user_chg_list_notify_all(g_pol_ctx_p);
    Model model;
    model.read();
    RouteSpace space({});
    PolicyProof before(&space, *model.policy("a", POL_KIND_ROUTE));
    PolicyProof after(&space, *model.policy("b", POL_KIND_ROUTE));
    const std::vector<uint32_t> answers[] = {answers_of("a"), answers_of("b")};
    std::vector<std::unique_ptr<Pinned>> unlike;
    std::vector<std::unique_ptr<Pinned>> alike;
    for (uint32_t n = 0; n < kAllRoutes; ++n) {
      Route route;
      fill_nth(n, &route);
      auto& to = answers[0][n] == answers[1][n] ? alike : unlike;
      to.push_back(std::make_unique<Pinned>(&space, route));
    }
    space.cut();
    std::vector<Difference> found = differences(&space, before, after, {POL_DIR_IN});
    if (unlike.empty()) ++equal;
    EXPECT_EQ(found.empty(), unlike.empty());
    RouteSet all;
    for (const Difference& each : found) {
      EXPECT_TRUE((all & each.routes).empty());
      all = all | each.routes;
      Verifier("a", POL_KIND_ROUTE, POL_DIR_IN)
          .require(space.show(each.routes), before.sequence(each.before));
      Verifier("b", POL_KIND_ROUTE, POL_DIR_IN)
          .require(space.show(each.routes), after.sequence(each.after));
    }
    for (const auto& each : unlike) EXPECT_TRUE((each->set(&space) - all).empty());
    for (const auto& each : alike) EXPECT_TRUE((each->set(&space) & all).empty());
    forget_policy("a");
    forget_policy("b");
  }
  EXPECT_GT(equal, 50 / kSlower);
  EXPECT_LT(equal, 350u);
}

// Taken out from the last to the first, as they are told, and each put back that was needed.
TEST_F(ProofTest, SequencesThatAreToldChangeNothingWhereTheyGoAndAllOthersDo) {
  uint32_t told[3] = {};
  fill_small_lists();
  for (uint32_t round = 0; round < 400 / kSlower; ++round) {
    SCOPED_TRACE(round);
    t_pol_block* block = make_small_policy("a", round, 0);
    pol_user_chg_list_notify_all(g_pol_ctx_p);
    Model model;
    model.read();
    const PolicyModel& policy = *model.policy("a", POL_KIND_ROUTE);
    std::vector<ProofFinding> found;
    std::vector<std::string> routes;
    sequence_proofs(policy, {POL_DIR_IN, POL_DIR_OUT}, {}, &found, &routes);
    auto is_told = [&](uint32_t sequence, ProofFinding::Subject subject, const char* how) {
      for (const ProofFinding& each : found) {
        bool same = each.subject == subject && each.sequence == sequence;
        if (same && each.what.starts_with(how)) return true;
      }
      return false;
    };
    std::vector<uint32_t> deciders;
    bool to_default[2] = {};
    t_pol_user* user = user_of("a", POL_DIR_IN);
    for (uint32_t n = 0; n < kAllRoutes; ++n) {
      Route route;
      fill_nth(n, &route);
      t_pol_explain_step decision = {};
      pol_explain(user, &route.query, nullptr, nullptr, &decision);
      deciders.push_back(decision.is_default != 0 ? 0 : decision.sequence);
      if (decision.is_default != 0) to_default[n / 75] = true;
    }
    pol_unregister(&user);
    const std::vector<uint32_t> answers = answers_of("a");
    uint8_t changed = 0;
    bool any[2] = {};
    bool all[2] = {};  // an earlier one of the type has no clause: told where that is looked for
    std::vector<uint32_t> decides;
    for (size_t i = 0; i + 1 < policy.sequences.size(); ++i) {
      const t_pol_content_sequence& is = policy.sequences[i].is;
      const uint32_t type = is.match_type - 1;
      bool never = std::count(deciders.begin(), deciders.end(), is.sequence) == 0;
      bool expected = never && !all[type];
      EXPECT_EQ(is_told(is.sequence, ProofFinding::Subject::kSequence, "never decides"), expected);
      told[0] += expected;
      any[type] = true;
      all[type] = all[type] || is.match_flags == 0;
      if (!never) decides.push_back(is.sequence);
      if (never) pol_entry_find_and_delete(g_pol_ctx_p, block, is.sequence, &changed);
    }
    forget_policy("a");
    std::vector<uint32_t> kept = decides;
    for (size_t i = decides.size(); i-- > 0;) {
      std::vector<uint32_t> without = kept;
      std::erase(without, decides[i]);
      t_pol_block* less = make_small_policy("a", round, 0);
      for (uint32_t n = 10; n <= 50; n += 10) {
        if (std::count(without.begin(), without.end(), n) > 0) continue;
        pol_entry_find_and_delete(g_pol_ctx_p, less, n, &changed);
      }
      pol_user_chg_list_notify_all(g_pol_ctx_p);
      bool goes = answers_of("a") == answers;
      EXPECT_EQ(is_told(decides[i], ProofFinding::Subject::kSequence, "it could go"), goes);
      told[1] += goes;
      if (goes) kept = without;
      forget_policy("a");
    }
    bool reached = (any[0] && to_default[0]) || (any[1] && to_default[1]);
    bool default_told = is_told(0, ProofFinding::Subject::kDefault, "");
    EXPECT_FALSE(default_told && reached);
    EXPECT_TRUE(default_told != reached || kept.size() < decides.size());
    told[2] += default_told;
  }
  for (uint32_t each : told) EXPECT_GT(each, 8 / kSlower);
}

TEST_F(ProofTest, PoliciesThatAreToldEqualAnswerEveryRouteAlikeAndNoOthersDo) {
  fill_small_lists();
  size_t told = 0;
  for (uint32_t round = 0; round < 16 / kSlower; ++round) {
    SCOPED_TRACE(round);
    std::map<std::vector<uint32_t>, size_t> distinct;
    std::vector<std::string> names;
    for (uint32_t i = 0; i < 40; ++i) {
      names.push_back(std::string(1, static_cast<char>('A' + i)));
      make_small_policy(names.back().c_str(), round * 100 + i / 4, i % 4);
    }
    pol_user_chg_list_notify_all(g_pol_ctx_p);
    for (const std::string& name : names) ++distinct[answers_of(name.c_str())];
    Model model;
    model.read();
    std::vector<ProofFinding> found;
    std::vector<std::string> unknown;
    equal_policies(model, {}, {POL_DIR_IN, POL_DIR_OUT}, {}, &found, &unknown);
    EXPECT_EQ(found.size(), names.size() - distinct.size());
    told += found.size();
    for (const ProofFinding& each : found) {
      std::string other(1, each.what[each.what.find('"') + 1]);
      EXPECT_EQ(answers_of(each.name.c_str()), answers_of(other.c_str()));
    }
    for (const std::string& name : names) forget_policy(name.c_str());
  }
  EXPECT_GT(told, 20 / kSlower);
}

t_ipprefix short_prefix(uint32_t bits, uint8_t length, bool six) {
  t_ipprefix prefix = {};
  prefix.addr.family = six ? KEL_AF_INET6 : KEL_AF_INET;
  prefix.len = length;
  if (six) {
    prefix.addr.addr.v6[0] = static_cast<uint8_t>(bits);
  } else {
    prefix.addr.addr.v4 = bits << 24;
  }
  return prefix;
}

// What the list "A", with these elements alone, takes of all prefixes that its elements can tell apart.
std::vector<bool> taken(t_pol_user* user, const ListModel& list, const std::vector<size_t>& which) {
  pol_pfx_list_cfg_del(g_pol_ctx_p, "A");
  for (size_t i : which) pol_pfx_list_entry_add(g_pol_ctx_p, "A", &list.elements[i].prefix);
  pol_user_chg_list_notify_all(g_pol_ctx_p);
  std::vector<bool> takes;
  auto ask = [&](const t_ipprefix& prefix) {
    Route route;
    route.query.match_type = POL_MATCH_ROUTE;
    route.query.prefix = prefix;
    takes.push_back(pol_execute(user, &route.query) == POL_ACCEPT);
  };
  ask({});
  for (uint8_t length = 0; length <= 6; ++length) {
    for (uint32_t bits = 0; bits < 256; bits += 256u >> length) {
      ask(short_prefix(bits, length, false));
      ask(short_prefix(bits, length, true));
    }
  }
  return takes;
}

TEST_F(ProofTest, ElementsThatAreToldChangeNothingWhereTheyGoAndAllOthersDo) {
  uint8_t changed = 0;
  t_pol_block* block = pol_block_find_or_create(g_pol_ctx_p, "p", POL_KIND_ROUTE, &changed);
  t_pol_entry* entry = pol_entry_find_or_create(g_pol_ctx_p, block, 1, &changed);
  pol_entry_match_add(g_pol_ctx_p, block, entry, POL_MATCH_ROUTE, &changed);
  pol_entry_match_pfx_list_add(g_pol_ctx_p, entry, "A", &changed);
  pol_entry_action_add(g_pol_ctx_p, entry, POL_ACCEPT, &changed);
  t_pol_user* user = user_of("p", POL_DIR_IN);
  size_t told = 0;
  for (uint32_t round = 0; round < 300 / kSlower; ++round) {
    SCOPED_TRACE(round);
    g_random.seed(round);
    pol_pfx_list_cfg_del(g_pol_ctx_p, "A");
    ListModel ranges = {POL_GRAPH_SITE_LIST, "A", {}};
    for (uint32_t i = 2 + below(9); i-- > 0;) {
      t_pol_content_element each = {};
      each.prefix = {below(10), short_prefix(below(256), static_cast<uint8_t>(below(4)), one_in(3)),
                     static_cast<uint8_t>(below(6)), static_cast<uint8_t>(below(6))};
      if (one_in(4)) each.prefix.prefix = {{KEL_AF_INET, {}}, 0};
      pol_pfx_list_entry_add(g_pol_ctx_p, "A", &each.prefix);
      each.low = 1 + below(12);
      each.high = each.low + below(6) - (one_in(9) ? 1 : 0);
      ranges.elements.push_back(each);
    }
    Model model;
    model.read();
    const ListModel& list = *model.list("A", POL_GRAPH_PREFIX_LIST);
    std::vector<size_t> kept;
    for (size_t i = 0; i < list.elements.size(); ++i) kept.push_back(i);
    const std::vector<bool> all = taken(user, list, kept);
    for (const Covered& each : covered_elements(list)) {
      std::erase(kept, each.element);
      std::vector<size_t> both = each.by;
      const std::vector<bool> by = taken(user, list, each.by);
      both.push_back(each.element);
      EXPECT_EQ(taken(user, list, both), by);
      ++told;
    }
    EXPECT_EQ(taken(user, list, kept), all);
    for (size_t i : kept) {
      std::vector<bool> nothing(all.size());
      if (taken(user, list, {i}) == nothing) continue;  // it is told as such
      std::vector<size_t> without = kept;
      std::erase(without, i);
      EXPECT_NE(taken(user, list, without), all) << element_text(list, list.elements[i]);
    }

    std::vector<int> holders(32);
    auto count = [&](size_t i, int by) {
      const t_pol_content_element& range = ranges.elements[i];
      for (uint64_t site = range.low; site <= range.high && site < holders.size(); ++site) {
        holders[site] += by;
      }
    };
    for (size_t i = 0; i < ranges.elements.size(); ++i) count(i, 1);
    const std::vector<int> before = holders;
    std::vector<Covered> covered = covered_elements(ranges);
    for (const Covered& each : covered) count(each.element, -1);
    for (size_t site = 0; site < holders.size(); ++site) {
      EXPECT_EQ(holders[site] > 0, before[site] > 0);
    }
    for (size_t i = 0; i < ranges.elements.size(); ++i) {
      bool gone = std::any_of(covered.begin(), covered.end(),
                              [&](const Covered& each) { return each.element == i; });
      const t_pol_content_element& range = ranges.elements[i];
      bool alone = range.low > range.high;  // which is told as such
      for (uint64_t site = range.low; site <= range.high; ++site) {
        alone = alone || holders[site] == 1;
      }
      EXPECT_TRUE(gone || alone);
    }
  }
  pol_unregister(&user);
  EXPECT_GT(told, 100 / kSlower);
}

}  // namespace
