// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <functional>

#include "support/cfg_values.h"
#include "support/list_families.h"
#include "support/seams.h"

namespace {

using cfg::leaf;
using cfg::none;
using cfg::text;
using cfg::u16;
using cfg::u32;
using cfg::u8;
using cfg::word;

class ConfigTest : public PolicyTest {
 protected:
  uint32_t read(t_pol_config_reader reader, uint32_t op, const cfg::Keys& keys,
                const cfg::Leaves& leaves = {}, uint8_t level = 1) {
    return reader(nullptr, ctx, op, level, keys.data(), static_cast<uint32_t>(leaves.size()),
                  leaves.data());
  }

  uint32_t sequence(uint32_t op, const cfg::Leaves& leaves) {
    return read(pol_config_control_policy_seq_read, op, {text("p"), u16(10)}, leaves, 2);
  }

  uint32_t match(uint32_t op, uint32_t type, const cfg::Leaves& leaves = {}) {
    return read(pol_config_control_policy_match_read, op, {text("p"), u16(10), word(type)}, leaves,
                3);
  }

  t_pol_entry* entry10(uint32_t kind = POL_KIND_ROUTE) {
    return pol_entry_find(ctx, pol_block_find(ctx, "p", kind, nullptr), 10, nullptr);
  }
};

TEST_F(ConfigTest, RangeMembersAreScannedNotChecked) {
  for (auto reader : {pol_config_policy_site_list, pol_config_policy_vpn_list}) {
    EXPECT_EQ(read(reader, POL_CFG_CREATED, {text("l"), text("5")}), 0u);
    EXPECT_EQ(read(reader, POL_CFG_CREATED, {text("l"), text("3-9")}), 0u);
    EXPECT_EQ(read(reader, POL_CFG_CREATED, {text("l"), text("10-5")}), 0u);
    EXPECT_EQ(read(reader, POL_CFG_CREATED, {text("l"), text("7x")}), 0u);
    EXPECT_EQ(read(reader, POL_CFG_MODIFIED, {text("l"), text("99")}), 0u);
    EXPECT_EQ(read(reader, POL_CFG_DELETED, {text("l"), text("3-9")}), 0u);
    seams::take_log();
    EXPECT_EQ(read(reader, POL_CFG_CREATED, {text("l"), text("abc")}), 0xffffffffu);
    auto log = seams::take_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_NE(log[0].find(" list range abc in list l\n"), std::string::npos) << log[0];
  }
  EXPECT_NE(pol_site_list_find_entry(ctx, "l", 5, 5), nullptr);
  EXPECT_NE(pol_vpn_list_find_entry(ctx, "l", 10, 5), nullptr);
  EXPECT_NE(pol_vpn_list_find_entry(ctx, "l", 7, 7), nullptr);
  EXPECT_EQ(current(25), 3u);
  EXPECT_EQ(current(30), 3u);
}

TEST_F(ConfigTest, WholeListsReactToDeletionOnly) {
  const std::pair<t_pol_config_reader, std::function<void()>> readers[] = {
      {pol_config_policy_site_list_name, [&] { SiteFamily::add(ctx, "l", 1); }},
      {pol_config_policy_vpn_list_name, [&] { VpnFamily::add(ctx, "l", 1); }},
      {pol_config_policy_tloc_list_name, [&] { TlocFamily::add(ctx, "l", 1); }},
      {pol_config_policy_color_list_name, [&] { ColorFamily::add(ctx, "l", 1); }},
      {pol_config_policy_prefix_list_name, [&] { PfxFamily::add(ctx, "l", 1); }}};
  const size_t rows[] = {18, 22, 19, 21, 16};
  for (size_t i = 0; i < std::size(readers); ++i) {
    readers[i].second();
    for (uint32_t op : {1, 3, 4}) {
      EXPECT_EQ(readers[i].first(nullptr, ctx, op, 1, nullptr, 0, nullptr), 0u) << "keys unread";
    }
    EXPECT_EQ(current(rows[i]), 1u);
    pol_debug_set(1);
    seams::take_log();
    EXPECT_EQ(read(readers[i].first, POL_CFG_DELETED, {text("l")}), 0u);
    pol_debug_set(0);
    EXPECT_EQ(current(rows[i]), 0u);
    auto log = seams::take_log();
    ASSERT_FALSE(log.empty());
    EXPECT_NE(log[0].find(" list Config - Name:l, Oper:2, num:0\n"), std::string::npos) << log[0];
  }
}

TEST_F(ConfigTest, TlocMembersTakeTheirLastPreference) {
  const cfg::Keys keys = {text("t"), cfg::ipv4(0x0a000001), word(0x103), word(2)};
  const t_tloc_id tloc = tloc4(0x0a000001, 3, 2);
  auto preference = [&] { return pol_tloc_list_find_entry(ctx, "t", &tloc)->preference; };
  read(pol_config_policy_tloc_list, POL_CFG_VALUE_SET, keys);
  EXPECT_EQ(preference(), 0u);
  read(pol_config_policy_tloc_list, POL_CFG_MODIFIED, keys,
       {leaf(0x176ecfd3, u32(4)), leaf(1, text("x")), leaf(0x176ecfd3, u32(9))});
  EXPECT_EQ(preference(), 9u);
  read(pol_config_policy_tloc_list, POL_CFG_MODIFIED, keys, {leaf(0x176ecfd3, none())});
  EXPECT_EQ(preference(), 0u);
  read(pol_config_policy_tloc_list, POL_CFG_DELETED, keys);
  EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t", &tloc), nullptr);
}

TEST_F(ConfigTest, ColorMembersAddOnAnythingButDeletion) {
  read(pol_config_policy_color_list, POL_CFG_MODIFIED, {text("c"), word(7)});
  EXPECT_NE(pol_color_list_find_entry(ctx, "c", 7), nullptr);
  read(pol_config_policy_color_list, POL_CFG_DELETED, {text("c"), word(7)});
  EXPECT_EQ(pol_color_list_find_entry(ctx, "c", 7), nullptr);
}

TEST_F(ConfigTest, PrefixBoundsChooseTheOperator) {
  constexpr uint32_t kBoth = 0x0308c88e;
  constexpr uint32_t kMin = 0x0c7fba2e;
  constexpr uint32_t kMax = 0x10ae453c;
  struct Row {
    cfg::Leaves leaves;
    uint32_t op;
    uint8_t min;
    uint8_t max;
  };
  const Row rows[] = {
      {{}, POL_PFX_EQ, 0, 0},
      {{leaf(kMin, u8(24))}, POL_PFX_GE, 24, 0},
      {{leaf(kMax, u8(28))}, POL_PFX_LE, 0, 28},
      {{leaf(kMin, u8(24)), leaf(kMax, u8(28))}, POL_PFX_RANGE, 24, 28},
      {{leaf(kMin, u8(24)), leaf(kBoth, u8(26)), leaf(kMax, u8(28))}, POL_PFX_RANGE, 26, 26},
      {{leaf(kBoth, none()), leaf(kMin, u8(24))}, POL_PFX_GE, 24, 0},
      {{leaf(kBoth, none()), leaf(kMin, none()), leaf(kMax, u8(28))}, POL_PFX_LE, 0, 28},
      {{leaf(kMin, none()), leaf(kMax, none())}, POL_PFX_EQ, 0, 0},
  };
  for (const Row& row : rows) {
    read(pol_config_policy_prefix_list, POL_CFG_MODIFIED,
         {text("p"), cfg::ipv4_prefix(0x0a000000, 8)}, row.leaves);
    const t_pfx_entry* e = PfxFamily::find(ctx, "p")->entries.front();
    EXPECT_EQ(e->op, row.op);
    EXPECT_EQ(e->min, row.min);
    EXPECT_EQ(e->max, row.max);
    EXPECT_EQ(e->addr.addr.v4, 0x0a000000u);
  }
  EXPECT_EQ(current(27), 1u);
}

TEST_F(ConfigTest, OnlyTheLowSixteenBitsOfTheCountCount) {
  const cfg::Keys keys = {text("t"), cfg::ipv4(1), word(1), word(2)};
  EXPECT_EQ(pol_config_policy_tloc_list(nullptr, ctx, 1, 2, keys.data(), 0x70000, nullptr), 0u);
  EXPECT_EQ(current(28), 1u);
}

TEST_F(ConfigTest, PoliciesComeGoAndTellTheirUsersOnce) {
  Calls calls;
  add_user("u", "p", &calls);
  auto policy = [&](uint32_t op, const cfg::Leaves& leaves = {}) {
    return read(pol_config_control_policy_read, op, {text("p")}, leaves);
  };
  EXPECT_EQ(policy(POL_CFG_CREATED, {leaf(0x7037c488, word(1))}), 0u);
  EXPECT_EQ(calls.count, 0) << "already rejects";
  policy(POL_CFG_MODIFIED, {leaf(0x7037c488, word(0))});
  EXPECT_EQ(calls.count, 1);
  policy(POL_CFG_MODIFIED, {leaf(0x7037c488, word(5))});
  EXPECT_EQ(calls.count, 1);
  EXPECT_EQ(pol_block_find(ctx, "p", POL_KIND_ROUTE, nullptr)->default_action.action,
            uint32_t{POL_ACCEPT});
  sequence(POL_CFG_CREATED, {leaf(0x0369ffb7, word(0)), leaf(0x0c2c7467, u32(5))});
  EXPECT_EQ(calls.count, 2) << "one call for many changes";
  policy(POL_CFG_DELETED);
  EXPECT_EQ(calls.count, 3);
  EXPECT_EQ(sequence(POL_CFG_CREATED, {}), 1u) << "no policy to hold it";
}

TEST_F(ConfigTest, ControlSequenceLaysGivenPartsOverWhatItHas) {
  block("p");
  sequence(POL_CFG_CREATED, {leaf(0x33c074ce, none(32)), leaf(0x61fa2cdb, cfg::ipv4(0x0a000001)),
                             leaf(0x2b503622, word(3)), leaf(0x5a62686b, word(1)),
                             leaf(0x33c074ce, none(33)), leaf(0x4a63a685, word(3))});
  const t_pol_set& set = entry10()->set;
  EXPECT_EQ(set.tloc.addr.v4, 0x0a000001u);
  EXPECT_EQ(set.tloc.encap, 1);
  EXPECT_EQ(set.ultimate_tloc, 4);
  auto in_tloc = [&](pol_cfg_tag_value l) {
    sequence(POL_CFG_MODIFIED, {leaf(0x33c074ce, none(32)), l, leaf(0x33c074ce, none(33))});
  };
  in_tloc(leaf(0x2b503622, word(5)));
  EXPECT_EQ(set.tloc.addr.v4, 0x0a000001u);
  EXPECT_EQ(set.tloc.color, 5);
  in_tloc(leaf(0x5a62686b, word(3)));
  EXPECT_EQ(set.tloc.encap, 2) << "neither GRE nor IPsec";
  in_tloc(leaf(0x5a62686b, word(1)));
  in_tloc(leaf(0x5a62686b, none()));
  EXPECT_EQ(set.tloc.encap, 2);
  sequence(POL_CFG_MODIFIED, {leaf(0x2b503622, word(9))});
  EXPECT_EQ(set.tloc.color, 5) << "a color outside both scopes";
  in_tloc(leaf(0x61fa2cdb, none()));
  EXPECT_EQ(entry10()->set_flags & POL_SET_F_TLOC, 0u);
}

TEST_F(ConfigTest, ServiceKeepsItsOwnTlocAndVpn) {
  block("p");
  sequence(POL_CFG_CREATED,
           {leaf(0x32fc12e6, none(32)), leaf(0x6ccfcce4, word(4)), leaf(0x4d7d11c2, u32(30)),
            leaf(0x33c074ce, none(32)), leaf(0x61fa2cdb, cfg::ipv4(7)), leaf(0x33c074ce, none(33)),
            leaf(0x5a62686b, none()), leaf(0x32fc12e6, none(33)), leaf(0x4d7d11c2, u32(12))});
  const t_pol_set& set = entry10()->set;
  EXPECT_EQ(entry10()->set_flags, POL_SET_F_SERVICE | POL_SET_F_VPN_ID);
  EXPECT_EQ(set.service, 4);
  EXPECT_EQ(set.service_vpn, 30u);
  EXPECT_EQ(set.service_tloc.addr.v4, 7u);
  EXPECT_EQ(set.service_tloc.encap, 2);
  EXPECT_EQ(set.vpn_id, 12u);
  sequence(POL_CFG_MODIFIED, {leaf(0x32fc12e6, none(32)), leaf(0x61fa2cdb, none()),
                              leaf(0x4d7d11c2, none()), leaf(0x32fc12e6, none(33))});
  EXPECT_EQ(set.service_tloc.addr.v4, 0u);
  EXPECT_EQ(set.service_vpn, 0u);
  EXPECT_EQ(set.service, 4);
  sequence(POL_CFG_MODIFIED,
           {leaf(0x32fc12e6, none(32)), leaf(0x6ccfcce4, none()), leaf(0x32fc12e6, none(33))});
  EXPECT_EQ(entry10()->set_flags, POL_SET_F_VPN_ID);
}

TEST_F(ConfigTest, TlocListMayBeRemovedAndNamedInOneCall) {
  block("p");
  sequence(POL_CFG_CREATED, {leaf(0x72d28bfe, text("a"))});
  sequence(POL_CFG_MODIFIED, {leaf(0x72d28bfe, text("b")), leaf(0x72d28bfe, none())});
  EXPECT_STREQ(entry10()->set.tloc_list.list->name, "b");
  EXPECT_EQ(pol_tloc_list_find(ctx, "a"), nullptr);
}

TEST_F(ConfigTest, TlocActionAlwaysTells) {
  Calls calls;
  add_user("u", "p", &calls);
  sequence(POL_CFG_CREATED, {});
  calls.count = 0;
  const std::pair<uint32_t, int> codes[] = {{1, 1}, {2, 2}, {3, 4}, {4, 3}, {7, 0}};
  for (auto [code, kept] : codes) {
    sequence(POL_CFG_MODIFIED, {leaf(0x4a63a685, word(code))});
    EXPECT_EQ(entry10()->set.ultimate_tloc, kept);
  }
  sequence(POL_CFG_MODIFIED, {leaf(0x4a63a685, none())});
  EXPECT_EQ(calls.count, 6);
}

TEST_F(ConfigTest, MatchLeavesBecomeClauses) {
  block("p");
  sequence(POL_CFG_CREATED, {});
  match(POL_CFG_CREATED, 0,
        {leaf(0x0c2c7467, u32(1)), leaf(0x176ecfd3, u32(2)), leaf(0x1beabc63, u32(3)),
         leaf(0x4d7d11c2, u32(4)), leaf(0x59a72353, u32(5)), leaf(0x7ce0369b, u32(6)),
         leaf(0x2b503622, word(7)), leaf(0x3129eae5, text("c")), leaf(0x470748d8, cfg::ipv4(8)),
         leaf(0x4ef9605a, word(9)), leaf(0x5dc389d2, text("x")), leaf(0x6aebf6e6, text("v")),
         leaf(0x6d6fa00b, text("s")), leaf(0x72d28bfe, text("t")), leaf(0x775cf168, word(2)),
         leaf(0x33c074ce, none(32)), leaf(0x61fa2cdb, cfg::ipv4(10)), leaf(0x2b503622, word(11)),
         leaf(0x33c074ce, none(33))});
  const t_pol_match& m = entry10()->match;
  EXPECT_EQ(entry10()->match_flags, 0x303fffu);
  EXPECT_EQ(m.type, uint32_t{POL_MATCH_ROUTE});
  EXPECT_EQ(m.color, 7);
  EXPECT_EQ(m.tloc.color, 11);
  EXPECT_EQ(m.tloc.encap, 2);
  EXPECT_EQ(m.origin_protocol, 4);
  EXPECT_EQ(m.originator.addr.v4, 8u);

  // Deleting the match of another type leaves this one alone.
  match(POL_CFG_DELETED, 1);
  EXPECT_NE(entry10()->match_flags, 0u);
  match(POL_CFG_MODIFIED, 0,
        {leaf(0x33c074ce, none(32)), leaf(0x2b503622, none()), leaf(0x33c074ce, none(33)),
         leaf(0x2b503622, none()), leaf(0x5dc389d2, none()), leaf(0x775cf168, none())});
  EXPECT_EQ(entry10()->match_flags, 0x303fffu & ~(0x8u | 0x100000u | 0x10u | 0x400u));
  match(POL_CFG_DELETED, 0);
  EXPECT_EQ(entry10()->match_flags, 0u);
  match(POL_CFG_CREATED, 2);
  EXPECT_EQ(m.type, uint32_t{POL_MATCH_SERVICE});
  match(POL_CFG_DELETED, 0);
  EXPECT_EQ(m.type, uint32_t{POL_MATCH_SERVICE});
}

TEST_F(ConfigTest, MembershipSequencesMatchServices) {
  read(pol_config_membership_policy_read, POL_CFG_CREATED, {text("p")});
  auto seq = [&](uint32_t op, const cfg::Leaves& leaves = {}) {
    return read(pol_config_membership_policy_seq_read, op, {text("p"), u16(10)}, leaves, 2);
  };
  seq(POL_CFG_CREATED);
  EXPECT_EQ(entry10(POL_KIND_MEMBERSHIP)->match.type, uint32_t{POL_MATCH_SERVICE});
  EXPECT_EQ(entry10(POL_KIND_MEMBERSHIP)->action, uint32_t{POL_REJECT});
  seq(POL_CFG_MODIFIED,
      {leaf(0x6aebf6e6, text("v")), leaf(0x4d7d11c2, u32(4)), leaf(0x0369ffb7, word(0))});
  EXPECT_EQ(entry10(POL_KIND_MEMBERSHIP)->match_flags, POL_MATCH_F_VPN_LIST | POL_MATCH_F_VPN_ID);
  EXPECT_EQ(entry10(POL_KIND_MEMBERSHIP)->action, uint32_t{POL_ACCEPT});
  seq(POL_CFG_MODIFIED, {leaf(0x6aebf6e6, none()), leaf(0x4d7d11c2, none())});
  EXPECT_EQ(entry10(POL_KIND_MEMBERSHIP)->match_flags, 0u);
  seq(POL_CFG_DELETED);
  EXPECT_EQ(entry10(POL_KIND_MEMBERSHIP), nullptr);
  // A change below what does not exist has nothing to act on.
  EXPECT_EQ(seq(POL_CFG_MODIFIED, {leaf(0x4d7d11c2, u32(4))}), 0u);
}

using ConfigDeathTest = ConfigTest;

TEST_F(ConfigDeathTest, WrongTypesFailTheirAssertions) {
  const pol_cfg_value l = text("l");
  EXPECT_DEATH(read(pol_config_policy_site_list, 1, {u32(1), l}), "\\(key_p\\)->type == C_BUF");
  EXPECT_DEATH(read(pol_config_policy_color_list, 1, {l, u32(1)}),
               "\\(key_p\\)->type == C_ENUM_VALUE");
  EXPECT_DEATH(read(pol_config_policy_tloc_list, 1, {l, l, word(1), word(1)}),
               "\\(\\(key_p\\)\\)->type == C_IPV6");
  EXPECT_DEATH(read(pol_config_policy_prefix_list, 1, {l, l}),
               "\\(\\(key_p\\)\\)->type == C_IPV4PREFIX");
  EXPECT_DEATH(read(pol_config_policy_tloc_list, 1, {l, cfg::ipv4(1), word(1), word(1)},
                    {leaf(0x176ecfd3, u8(1))}),
               "\\(&cur_val_p->v\\)->type == C_UINT32");
  EXPECT_DEATH(read(pol_config_policy_prefix_list, 1, {l, cfg::ipv4_prefix(0, 0)},
                    {leaf(0x10ae453c, u32(1))}),
               "\\(&cur_val_p->v\\)->type == C_UINT8");
  block("p");
  EXPECT_DEATH(read(pol_config_control_policy_seq_read, 1, {text("p"), u32(1)}, {}, 2),
               "\\(key_p\\)->type == C_UINT16");
  EXPECT_DEATH(sequence(1, {leaf(0x32fc12e6, none(32)), leaf(0x61fa2cdb, u32(1))}),
               "\\(\\(&cur_val_p->v\\)\\)->type == C_IPV6");
  EXPECT_DEATH(sequence(1, {leaf(0x0369ffb7, none())}), "->type == C_ENUM_VALUE");
  EXPECT_DEATH(sequence(1, {leaf(0x6aebf6e6, u32(1))}), "->type == C_BUF");
  EXPECT_DEATH(pol_yang_enum_to_filter_mask(32), "enum_val < 32");
  EXPECT_EQ(pol_yang_enum_to_filter_mask(0), 0u);
  EXPECT_EQ(pol_yang_enum_to_filter_mask(31), 0x80000000u);
}

TEST_F(ConfigDeathTest, WrongLevelsAndMissingParentsEndTheProcess) {
  const auto crashed = ::testing::KilledBySignal(SIGSEGV);
  EXPECT_EXIT(pol_config_control_policy_read(nullptr, ctx, 1, 2, nullptr, 0, nullptr), crashed, "");
  EXPECT_EXIT(pol_config_membership_policy_seq_read(nullptr, ctx, 1, 1, nullptr, 0, nullptr),
              crashed, "");
  EXPECT_EXIT(match(POL_CFG_CREATED, 0), crashed, "");
  block("p");
  EXPECT_EXIT(match(POL_CFG_CREATED, 0), crashed, "");
}

}  // namespace
