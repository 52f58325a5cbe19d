// SPDX-License-Identifier: Apache-2.0
#include <csignal>

#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

class ClauseTest : public PolicyTest {
 protected:
  void SetUp() override {
    PolicyTest::SetUp();
    add_user("u", "p", nullptr);
    e = entry(block("p"), 10);
    take_queued();
  }

  t_pol_entry* e = nullptr;
};

struct Plain {
  uint32_t bit;
  bool set;
  void (*add)(t_pol_ctx*, t_pol_entry*, uint8_t value, uint8_t*);
  void (*del)(t_pol_ctx*, t_pol_entry*, uint8_t*);
};

template <auto kAdd, auto kDelete>
constexpr Plain plain(uint32_t bit, bool set = false) {
  auto add = [](t_pol_ctx* ctx, t_pol_entry* e, uint8_t value, uint8_t* changed) {
    kAdd(ctx, e, value, changed);
  };
  return {bit, set, add, kDelete};
}

// Every plain clause: added, added again, changed, deleted, deleted again.
TEST_F(ClauseTest, PlainClausesChangeOnlyWithTheirValue) {
#define MATCH(name) plain<pol_entry_match_##name##_add, pol_entry_match_##name##_delete>
#define SET(name) plain<pol_entry_set_##name##_add, pol_entry_set_##name##_delete>
  const Plain rows[] = {
      MATCH(site)(0x2),     MATCH(tag)(0x20),           MATCH(preference)(0x40),
      MATCH(domain)(0x80),  MATCH(vpn_id)(0x100),       MATCH(carrier)(0x1000),
      MATCH(group)(0x2000), MATCH(src_port)(0x4000),    MATCH(dst_port)(0x8000),
      MATCH(dscp)(0x10000), MATCH(color)(0x100000),     MATCH(origin)(0x400),
      SET(tag)(0x1, true),  SET(preference)(0x4, true), SET(vpn_id)(0x8, true),
  };
#undef MATCH
#undef SET
  for (const Plain& row : rows) {
    const uint32_t& flags = row.set ? e->set_flags : e->match_flags;
    auto add = [&](uint8_t value) { return tells([&](uint8_t* c) { row.add(ctx, e, value, c); }); };
    auto del = [&] { return tells([&](uint8_t* c) { row.del(ctx, e, c); }); };
    EXPECT_TRUE(add(7)) << row.bit;
    EXPECT_EQ(flags, row.bit);
    EXPECT_FALSE(add(7)) << row.bit;
    EXPECT_TRUE(add(0)) << row.bit;
    EXPECT_TRUE(del()) << row.bit;
    EXPECT_EQ(flags, 0u);
    EXPECT_FALSE(del()) << row.bit;
    EXPECT_TRUE(add(0)) << "0 is a value, not absence";
    del();
  }
}

TEST_F(ClauseTest, ProtocolMarksDscpAndAlwaysChanges) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(tells([&](uint8_t* c) { pol_entry_match_proto_add(ctx, e, 2, c); }));
    EXPECT_EQ(e->match_flags, POL_MATCH_F_DSCP);
  }
  EXPECT_FALSE(tells([&](uint8_t* c) { pol_entry_match_proto_delete(ctx, e, c); }));
  EXPECT_EQ(e->match_flags, POL_MATCH_F_DSCP);
}

TEST_F(ClauseTest, OriginCodesWithoutAMeaningAreIgnored) {
  auto add = [&](uint32_t code) {
    return tells([&](uint8_t* c) { pol_entry_match_origin_add(ctx, e, code, c); });
  };
  for (uint32_t code : {8u, 9u, 10u, 15u, 4294967295u}) EXPECT_FALSE(add(code));
  EXPECT_TRUE(add(14));
  EXPECT_EQ(e->match.origin_protocol, 9);
  EXPECT_EQ(e->match.origin_subtype, 2);
  // Only the protocol differs between 0 and 1.
  EXPECT_TRUE(add(0) && add(1));
}

TEST_F(ClauseTest, TlocsAndAddressesDifferInEachPart) {
  t_tloc_id tloc = tloc4(0x0a000001, 3, 2);
  auto add = [&] { return tells([&](uint8_t* c) { pol_entry_match_tloc_add(ctx, e, &tloc, c); }); };
  EXPECT_TRUE(add());
  tloc.addr.v6[15] = 9;  // beyond an IPv4 address
  EXPECT_FALSE(add());
  auto differs = [&](uint8_t* part) { return ++*part != 0 && add(); };
  EXPECT_TRUE(differs(&tloc.color) && differs(&tloc.encap));
  tloc.family = KEL_AF_INET6;
  EXPECT_TRUE(add() && differs(&tloc.addr.v6[15]));
  t_ipaddr address = {KEL_AF_INET, {5}};
  auto originator = [&](uint8_t* c) { pol_entry_match_originator_add(ctx, e, &address, c); };
  EXPECT_TRUE(tells(originator) && !tells(originator));
  address.addr.v4 = 6;
  EXPECT_TRUE(tells(originator));
}

TEST_F(ClauseTest, AnotherMatchTypeDropsAllMatchClauses) {
  pol_entry_match_tag_add(ctx, e, 1, &changed);
  for (auto add : kListAdds) add(ctx, e, "l", &changed);
  take_queued();
  auto type = [&](uint32_t type) {
    return tells([&](uint8_t* c) { pol_entry_match_add(ctx, e->block, e, type, c); });
  };
  EXPECT_FALSE(type(POL_MATCH_ROUTE));
  EXPECT_EQ(current(pol::MEM_SITE_LIST), 1u);
  EXPECT_TRUE(type(POL_MATCH_TLOC));
  EXPECT_EQ(shown(e), "match tloc action: accept set:");
  EXPECT_EQ(lists_there(), 0u);
  EXPECT_FALSE(tells([&](uint8_t* c) { pol_entry_match_delete(ctx, e, c); }));
}

TEST_F(ClauseTest, PolicySaysWhatItSetsUntilAnySequenceStops) {
  t_pol_block* b = e->block;
  t_pol_entry* other = entry(b, 20);
  t_tloc_id tloc = tloc4(1);
  for (t_pol_entry* each : {e, other}) {
    pol_entry_set_tloc_add(ctx, each, &tloc, &changed);
    pol_entry_set_service_add(ctx, each, 1, &tloc, 5, &changed);
    pol_entry_set_tloc_list_add(ctx, each, "t", &changed);
  }
  EXPECT_EQ(b->sets, 0x7);
  pol_entry_set_tloc_delete(ctx, e, &changed);
  EXPECT_EQ(b->sets, 0x6) << "although the other still sets one";
  // Setting the same again, unchanged, says it anew.
  take_queued();
  EXPECT_FALSE(tells([&](uint8_t* c) { pol_entry_set_tloc_add(ctx, other, &tloc, c); }));
  EXPECT_EQ(b->sets, 0x7);
  // The bulk deletion forgets the TLOC list only.
  EXPECT_TRUE(tells([&](uint8_t* c) { pol_entry_set_delete(ctx, other, c); }));
  EXPECT_EQ(shown(other), "match route action: accept set:");
  EXPECT_EQ(b->sets, 0x3);
  pol_entry_set_service_delete(ctx, e, &changed);
  EXPECT_EQ(b->sets, 0x1);
  EXPECT_NE(pol_tloc_list_find(ctx, "t"), nullptr) << "the first sequence still uses it";
}

TEST_F(ClauseTest, ServiceWithoutATlocMayBeSetAgain) {
  t_tloc_id none = {};
  auto add = [&](uint8_t* c) { pol_entry_set_service_add(ctx, e, 3, &none, 7, c); };
  EXPECT_TRUE(tells(add) && !tells(add));
  none.color = 1;
  EXPECT_TRUE(tells(add));
}

TEST_F(ClauseTest, NothingToActOnIsNoHarm) {
  EXPECT_EQ(pol_entry_match_tag_add(ctx, nullptr, 1, &changed), nullptr);
  EXPECT_EQ(pol_entry_match_site_list_add(ctx, nullptr, "s", &changed), nullptr);
  EXPECT_EQ(pol_entry_set_tloc_add(ctx, e, nullptr, &changed), nullptr);
  pol_entry_set_delete(ctx, nullptr, &changed);
  pol_entry_match_delete(nullptr, e, &changed);
  EXPECT_EQ(pol_entry_match_add(ctx, nullptr, nullptr, 1, &changed), nullptr);
}

TEST_F(ClauseTest, FlagNamesPrintInOrderAndNeverPastTheBuffer) {
  char text[256] = "kept";
  const std::pair<uint32_t, const char*> rows[] = {
      {0x40000, "kept"},  // without a name, the buffer stays
      {0x1000, "CARRIER SRC_IP "},
      {0x20 | 0x1 | 0x2000 | 0x800000, "TAG SITE-LIST GROUP DST_IP SRC66_IP "},
      {0, ""}};
  for (auto [flags, expected] : rows) {
    e->match_flags = flags;
    EXPECT_STREQ(pol_util_match_flags_str(e, text, sizeof text), expected);
  }
  e->set_flags = 0x7f;
  for (size_t size : {1u, 2u, 5u, 10u}) {
    std::vector<char> small(size);
    pol_util_set_flags_str(e, small.data(), size);
    EXPECT_LT(strnlen(small.data(), size), size);
  }
  e->set_flags = 0;
}

TEST_F(ClauseTest, NumbersWithoutAWord) {
  const std::pair<const char*, const char*> rows[] = {
      {pol_util_action_str(0), "unknown"}, {pol_util_dscp_str(21), "unknown"},
      {pol_util_type_str(6), "unknown"},   {pol_util_dscp_str(4294967295u), "unknown"},
      {pol_util_dir_str(3), "UNKNOWN"},    {pol_util_pfx_op_str(0), "UNKNOWN"},
      {pol_util_pfx_op_str(9), "UNKNOWN"}, {pol_util_dscp_str(20), "cs7"}};
  for (auto [word, expected] : rows) EXPECT_STREQ(word, expected);
}

using ClauseDeathTest = ClauseTest;

TEST_F(ClauseDeathTest, StoredAddressOfAnUnknownFamilyAborts) {
  t_ipaddr address = {7, {1}};
  pol_entry_match_originator_add(ctx, e, &address, &changed);
  EXPECT_EXIT(pol_entry_match_originator_add(ctx, e, &address, &changed),
              ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
