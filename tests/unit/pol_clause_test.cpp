// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <functional>

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

  // Whether the act reports a change; the users must be queued exactly then.
  template <class Act>
  bool changes(Act act) {
    bool flag = PolicyTest::changes(act);
    EXPECT_EQ(!take_queued().empty(), flag);
    return flag;
  }

  t_pol_entry* e = nullptr;
};

// Every plain clause: added, added again, changed, deleted, deleted again.
TEST_F(ClauseTest, PlainClausesChangeOnlyWithTheirValue) {
  struct Row {
    uint32_t bit;
    bool set;
    std::function<void(uint64_t, uint8_t*)> add;
    std::function<void(uint8_t*)> del;
  };
  const std::vector<Row> rows = {
#define MATCH(bit, name, type)                                           \
  {                                                                      \
    bit, false,                                                          \
        [&](uint64_t v, uint8_t* c) {                                    \
          pol_entry_match_##name##_add(ctx, e, static_cast<type>(v), c); \
        },                                                               \
        [&](uint8_t* c) { pol_entry_match_##name##_delete(ctx, e, c); }  \
  }
#define SET(bit, name, type)                                           \
  {                                                                    \
    bit, true,                                                         \
        [&](uint64_t v, uint8_t* c) {                                  \
          pol_entry_set_##name##_add(ctx, e, static_cast<type>(v), c); \
        },                                                             \
        [&](uint8_t* c) { pol_entry_set_##name##_delete(ctx, e, c); }  \
  }
      MATCH(0x2, site, uint32_t),        MATCH(0x20, tag, uint32_t),
      MATCH(0x40, preference, uint32_t), MATCH(0x80, domain, uint32_t),
      MATCH(0x100, vpn_id, uint64_t),    MATCH(0x1000, carrier, uint8_t),
      MATCH(0x2000, group, uint32_t),    MATCH(0x4000, src_port, uint16_t),
      MATCH(0x8000, dst_port, uint16_t), MATCH(0x10000, dscp, uint32_t),
      MATCH(0x100000, color, uint16_t),  MATCH(0x400, origin, uint32_t),
      SET(0x1, tag, uint32_t),           SET(0x4, preference, uint32_t),
      SET(0x8, vpn_id, uint64_t),
#undef MATCH
#undef SET
  };
  for (const Row& row : rows) {
    const uint32_t& flags = row.set ? e->set_flags : e->match_flags;
    EXPECT_TRUE(changes([&](uint8_t* c) { row.add(7, c); })) << row.bit;
    EXPECT_EQ(flags, row.bit);
    EXPECT_FALSE(changes([&](uint8_t* c) { row.add(7, c); })) << row.bit;
    EXPECT_TRUE(changes([&](uint8_t* c) { row.add(0, c); })) << row.bit;
    EXPECT_TRUE(changes(row.del)) << row.bit;
    EXPECT_EQ(flags, 0u);
    EXPECT_FALSE(changes(row.del)) << row.bit;
    EXPECT_TRUE(changes([&](uint8_t* c) { row.add(0, c); })) << "0 is a value, not absence";
    changes(row.del);
  }
}

TEST_F(ClauseTest, ProtocolMarksDscpAndAlwaysChanges) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(changes([&](uint8_t* c) { pol_entry_match_proto_add(ctx, e, 2, c); }));
    EXPECT_EQ(e->match_flags, POL_MATCH_F_DSCP);
  }
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_match_proto_delete(ctx, e, c); }));
  EXPECT_EQ(e->match_flags, POL_MATCH_F_DSCP);
}

TEST_F(ClauseTest, OriginCodesWithoutAMeaningAreIgnored) {
  for (uint32_t code : {8u, 9u, 10u, 15u, 4294967295u}) {
    EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_match_origin_add(ctx, e, code, c); }));
  }
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_entry_match_origin_add(ctx, e, 14, c); }));
  EXPECT_EQ(e->match.origin_protocol, 9);
  EXPECT_EQ(e->match.origin_subtype, 2);
  // Only the protocol differs between 0 and 1.
  changes([&](uint8_t* c) { pol_entry_match_origin_add(ctx, e, 0, c); });
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_entry_match_origin_add(ctx, e, 1, c); }));
}

TEST_F(ClauseTest, TlocsDifferInEachPart) {
  t_tloc_id tloc = tloc4(0x0a000001, 3, 2);
  auto add = [&](uint8_t* c) { pol_entry_match_tloc_add(ctx, e, &tloc, c); };
  EXPECT_TRUE(changes(add));
  tloc.addr.v6[15] = 9;  // beyond an IPv4 address
  EXPECT_FALSE(changes(add));
  tloc.color = 4;
  EXPECT_TRUE(changes(add));
  tloc.encap = 1;
  EXPECT_TRUE(changes(add));
  tloc.family = KEL_AF_INET6;
  EXPECT_TRUE(changes(add));
  tloc.addr.v6[15] = 8;
  EXPECT_TRUE(changes(add));
  t_ipaddr address = {KEL_AF_INET, {5}};
  auto originator = [&](uint8_t* c) { pol_entry_match_originator_add(ctx, e, &address, c); };
  EXPECT_TRUE(changes(originator));
  EXPECT_FALSE(changes(originator));
  address.addr.v4 = 6;
  EXPECT_TRUE(changes(originator));
}

TEST_F(ClauseTest, AnotherMatchTypeDropsAllMatchClauses) {
  pol_entry_match_tag_add(ctx, e, 1, &changed);
  pol_entry_match_site_list_add(ctx, e, "s", &changed);
  pol_entry_match_pfx_list_add(ctx, e, "x", &changed);
  take_queued();
  EXPECT_FALSE(
      changes([&](uint8_t* c) { pol_entry_match_add(ctx, e->block, e, POL_MATCH_ROUTE, c); }));
  EXPECT_NE(e->match_flags, 0u);
  EXPECT_TRUE(
      changes([&](uint8_t* c) { pol_entry_match_add(ctx, e->block, e, POL_MATCH_TLOC, c); }));
  EXPECT_EQ(e->match_flags, 0u);
  EXPECT_EQ(ctx->site_lists.first(), nullptr);
  EXPECT_EQ(ctx->pfx_lists.first(), nullptr);
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_match_delete(ctx, e, c); }));
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
  pol_entry_set_tloc_delete(ctx, e, &changed);
  // Setting the same again, unchanged, says it anew.
  take_queued();
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_set_tloc_add(ctx, other, &tloc, c); }));
  EXPECT_EQ(b->sets, 0x7);
  // The bulk deletion forgets the TLOC list only.
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_entry_set_delete(ctx, other, c); }));
  EXPECT_EQ(other->set_flags, 0u);
  EXPECT_EQ(b->sets, 0x3);
  pol_entry_set_service_delete(ctx, e, &changed);
  EXPECT_EQ(b->sets, 0x1);
  EXPECT_NE(pol_tloc_list_find(ctx, "t"), nullptr) << "the first sequence still uses it";
}

TEST_F(ClauseTest, ServiceWithoutATlocMayBeSetAgain) {
  t_tloc_id none = {};
  auto add = [&](uint8_t* c) { pol_entry_set_service_add(ctx, e, 3, &none, 7, c); };
  EXPECT_TRUE(changes(add));
  EXPECT_FALSE(changes(add));
  none.color = 1;
  EXPECT_TRUE(changes(add));
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
  e->match_flags = 0x1000;
  EXPECT_STREQ(pol_util_match_flags_str(e, text, sizeof text), "CARRIER SRC_IP ");
  e->match_flags = 0x20 | 0x1 | 0x2000 | 0x800000;
  EXPECT_STREQ(pol_util_match_flags_str(e, text, sizeof text),
               "TAG SITE-LIST GROUP DST_IP SRC66_IP ");
  e->match_flags = 0x40000;
  EXPECT_STREQ(pol_util_match_flags_str(e, text, sizeof text),
               "TAG SITE-LIST GROUP DST_IP SRC66_IP ")
      << "without a name, the buffer stays";
  e->match_flags = 0;
  EXPECT_STREQ(pol_util_match_flags_str(e, text, sizeof text), "");
  e->set_flags = 0x7f;
  EXPECT_STREQ(pol_util_set_flags_str(e, text, sizeof text),
               "TAG PREF TLOC VPN-ID VPN-LIST SERVICE TLOC_LIST ");
  for (size_t size : {1u, 2u, 5u, 10u}) {
    std::vector<char> small(size);
    pol_util_set_flags_str(e, small.data(), size);
    EXPECT_LT(strnlen(small.data(), size), size);
  }
  e->set_flags = 0;
}

TEST_F(ClauseTest, NumbersWithoutAWord) {
  EXPECT_STREQ(pol_util_action_str(0), "unknown");
  EXPECT_STREQ(pol_util_dir_str(3), "UNKNOWN");
  EXPECT_STREQ(pol_util_pfx_op_str(0), "UNKNOWN");
  EXPECT_STREQ(pol_util_pfx_op_str(9), "UNKNOWN");
  EXPECT_STREQ(pol_util_dscp_str(21), "unknown");
  EXPECT_STREQ(pol_util_dscp_str(4294967295u), "unknown");
  EXPECT_STREQ(pol_util_type_str(6), "unknown");
  EXPECT_STREQ(pol_util_dscp_str(20), "cs7");
}

using ClauseDeathTest = ClauseTest;

TEST_F(ClauseDeathTest, StoredAddressOfAnUnknownFamilyAborts) {
  t_tloc_id tloc = tloc4(1);
  tloc.family = 7;
  pol_entry_match_tloc_add(ctx, e, &tloc, &changed);
  EXPECT_EXIT(pol_entry_match_tloc_add(ctx, e, &tloc, &changed), ::testing::KilledBySignal(SIGABRT),
              "");
  t_ipaddr address = {7, {1}};
  pol_entry_match_originator_add(ctx, e, &address, &changed);
  EXPECT_EXIT(pol_entry_match_originator_add(ctx, e, &address, &changed),
              ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
