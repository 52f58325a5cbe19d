// SPDX-License-Identifier: Apache-2.0
#include <csignal>

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

  // Leaves between the tags that open and close a container.
  static cfg::Leaves within(uint32_t container, const cfg::Leaves& inner) {
    cfg::Leaves all = {leaf(container, none(32))};
    all.insert(all.end(), inner.begin(), inner.end());
    all.push_back(leaf(container, none(33)));
    return all;
  }

  // What sequence 10 sets, as its dump tells it.
  std::string sets() {
    const std::string text = shown(entry10());
    return text.substr(text.find("set:") + 4);
  }

  t_pol_entry* entry10(uint32_t kind = POL_KIND_ROUTE) {
    return pol_entry_find(ctx, pol_block_find(ctx, "p", kind, nullptr), 10, nullptr);
  }
};

TEST_F(ConfigTest, RangeMembersAreScannedNotChecked) {
  for (auto reader : {pol_config_policy_site_list, pol_config_policy_vpn_list}) {
    for (const char* range : {"5", "3-9", "10-5", "7x"}) {
      EXPECT_EQ(read(reader, POL_CFG_CREATED, {text("l"), text(range)}), 0u);
    }
    EXPECT_EQ(read(reader, POL_CFG_MODIFIED, {text("l"), text("99")}), 0u);
    EXPECT_EQ(read(reader, POL_CFG_DELETED, {text("l"), text("3-9")}), 0u);
    seams::take_log();
    EXPECT_EQ(read(reader, POL_CFG_CREATED, {text("l"), text("abc")}), 0xffffffffu);
    EXPECT_NE(seams::take_log().find(" list range abc in list l\n"), std::string::npos);
  }
  for (auto [low, high] : {std::pair(5u, 5u), {10u, 5u}, {7u, 7u}}) {
    EXPECT_NE(pol_site_list_find_entry(ctx, "l", low, high), nullptr);
    EXPECT_NE(pol_vpn_list_find_entry(ctx, "l", low, high), nullptr);
  }
  EXPECT_EQ(pol_site_list_find_entry(ctx, "l", 5, 6), nullptr);
  EXPECT_EQ(current(pol::MEM_SITE_ENTRY), 3u);
  EXPECT_EQ(current(pol::MEM_VPN_ENTRY), 3u);
}

TEST_F(ConfigTest, WholeListsReactToDeletionOnly) {
  auto check = [&](auto family, t_pol_config_reader reader) {
    using Family = decltype(family);
    Family::add(ctx, "l", 1);
    for (uint32_t op : {1, 3, 4}) {
      EXPECT_EQ(reader(nullptr, ctx, op, 1, nullptr, 0, nullptr), 0u) << "keys unread";
    }
    EXPECT_NE(Family::find(ctx, "l"), nullptr);
    pol_debug_set(1);
    seams::take_log();
    EXPECT_EQ(read(reader, POL_CFG_DELETED, {text("l")}), 0u);
    EXPECT_EQ(Family::find(ctx, "l"), nullptr);
    EXPECT_NE(seams::take_log().find(" list Config - Name:l, Oper:2, num:0\n"), std::string::npos);
  };
  check(SiteFamily(), pol_config_policy_site_list_name);
  check(VpnFamily(), pol_config_policy_vpn_list_name);
  check(TlocFamily(), pol_config_policy_tloc_list_name);
  check(ColorFamily(), pol_config_policy_color_list_name);
  check(PfxFamily(), pol_config_policy_prefix_list_name);
}

TEST_F(ConfigTest, TlocMembersTakeTheirLastPreference) {
  const cfg::Keys keys = {text("t"), cfg::ipv4(0x0a000001), word(0x103), word(2)};
  const t_tloc_id tloc = tloc4(0x0a000001, 3, 2);
  const std::pair<cfg::Leaves, uint32_t> steps[] = {
      {{}, 0},
      {{leaf(0x176ecfd3, u32(4)), leaf(1, text("x")), leaf(0x176ecfd3, u32(9))}, 9},
      {{leaf(0x176ecfd3, u32(4)), leaf(0x176ecfd3, none())}, 0}};
  for (const auto& [leaves, preference] : steps) {
    read(pol_config_policy_tloc_list, POL_CFG_VALUE_SET, keys, leaves);
    EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t", &tloc)->preference, preference);
  }
  read(pol_config_policy_tloc_list, POL_CFG_DELETED, keys);
  EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t", &tloc), nullptr);
  // Of the count of leaves only the low sixteen bits count.
  const pol_cfg_tag_value unread = leaf(0x176ecfd3, u32(9));
  pol_config_policy_tloc_list(nullptr, ctx, POL_CFG_CREATED, 2, keys.data(), 0x70000, &unread);
  EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t", &tloc)->preference, 0u);
}

TEST_F(ConfigTest, ColorMembersAddOnAnythingButDeletion) {
  for (uint32_t op : {POL_CFG_MODIFIED, POL_CFG_DELETED}) {
    read(pol_config_policy_color_list, op, {text("c"), word(7)});
    EXPECT_EQ(pol_color_list_find_entry(ctx, "c", 7) != nullptr, op == POL_CFG_MODIFIED);
  }
}

TEST_F(ConfigTest, PrefixBoundsChooseTheOperator) {
  constexpr uint32_t kBoth = 0x0308c88e;
  constexpr uint32_t kMin = 0x0c7fba2e;
  constexpr uint32_t kMax = 0x10ae453c;
  const std::tuple<cfg::Leaves, int, int, int> rows[] = {
      {{}, POL_PFX_EQ, 0, 0},
      {{leaf(kMin, u8(24))}, POL_PFX_GE, 24, 0},
      {{leaf(kMax, u8(28))}, POL_PFX_LE, 0, 28},
      {{leaf(kMin, u8(24)), leaf(kMax, u8(28))}, POL_PFX_RANGE, 24, 28},
      {{leaf(kMin, u8(24)), leaf(kBoth, u8(26)), leaf(kMax, u8(28))}, POL_PFX_RANGE, 26, 26},
      {{leaf(kBoth, none()), leaf(kMin, u8(24))}, POL_PFX_GE, 24, 0},
      {{leaf(kBoth, none()), leaf(kMin, none()), leaf(kMax, u8(28))}, POL_PFX_LE, 0, 28},
      {{leaf(kMin, none()), leaf(kMax, none())}, POL_PFX_EQ, 0, 0},
      {{leaf(kBoth, u8(26)), leaf(kBoth, none())}, POL_PFX_EQ, 0, 0},
  };
  for (const auto& [leaves, op, min, max] : rows) {
    read(pol_config_policy_prefix_list, POL_CFG_MODIFIED,
         {text("p"), cfg::ipv4_prefix(0x0a000000, 8)}, leaves);
    const t_pfx_entry* e = PfxFamily::find(ctx, "p")->entries.front();
    EXPECT_EQ((std::tuple(e->op, e->min, e->max, e->addr.addr.v4)),
              (std::tuple(op, min, max, 0x0a000000u)));
  }
  EXPECT_EQ(current(pol::MEM_PFX_ENTRY), 1u);
}

TEST_F(ConfigTest, PoliciesComeGoAndTellTheirUsersOnce) {
  Calls calls;
  add_user("u", "p", &calls);
  auto policy = [&](uint32_t op, const cfg::Leaves& leaves = {}) {
    return read(pol_config_control_policy_read, op, {text("p")}, leaves);
  };
  const std::pair<uint32_t, int> actions[] = {{1, 0}, {0, 1}, {5, 1}};  // it already rejects
  for (auto [action, called] : actions) {
    EXPECT_EQ(policy(POL_CFG_MODIFIED, {leaf(0x7037c488, word(action))}), 0u);
    EXPECT_EQ(calls.count, called) << action;
  }
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
  sequence(POL_CFG_CREATED, {leaf(0x61fa2cdb, cfg::ipv4(9))});
  EXPECT_EQ(sets(), "") << "outside both scopes";
  auto in_tloc = [&](const cfg::Leaves& inner) {
    sequence(POL_CFG_MODIFIED, within(0x33c074ce, inner));
    return sets();
  };
  EXPECT_EQ(in_tloc({leaf(0x61fa2cdb, cfg::ipv4(0x0a000001)), leaf(0x2b503622, word(3)),
                     leaf(0x5a62686b, word(1))}),
            " tloc: 10.0.0.1:3:1 [none]");
  EXPECT_EQ(in_tloc({leaf(0x2b503622, word(5))}), " tloc: 10.0.0.1:5:1 [none]");
  EXPECT_EQ(in_tloc({leaf(0x5a62686b, word(3))}), " tloc: 10.0.0.1:5:2 [none]")
      << "neither GRE nor IPsec";
  in_tloc({leaf(0x5a62686b, word(1))});
  EXPECT_EQ(in_tloc({leaf(0x5a62686b, none())}), " tloc: 10.0.0.1:5:2 [none]");
  EXPECT_EQ(in_tloc({leaf(0x61fa2cdb, none())}), "");
}

TEST_F(ConfigTest, ServiceKeepsItsOwnTlocAndVpn) {
  block("p");
  auto in_service = [&](const cfg::Leaves& inner) {
    sequence(POL_CFG_CREATED, within(0x32fc12e6, inner));
    return sets();
  };
  sequence(POL_CFG_CREATED, {leaf(0x4d7d11c2, u32(12))});
  EXPECT_EQ(in_service({leaf(0x6ccfcce4, word(4)), leaf(0x4d7d11c2, u32(30)),
                        leaf(0x33c074ce, none(32)), leaf(0x61fa2cdb, cfg::ipv4(7)),
                        leaf(0x33c074ce, none(33)), leaf(0x5a62686b, none())}),
            " vpn-id: 12 service: 4 vpn: 30 tloc: 0.0.0.7:0:2 [none]");
  EXPECT_EQ(in_service({leaf(0x61fa2cdb, none()), leaf(0x4d7d11c2, none())}),
            " vpn-id: 12 service: 4 vpn: 0 tloc: 0.0.0.0:0:2 [none]");
  EXPECT_EQ(in_service({leaf(0x6ccfcce4, none())}), " vpn-id: 12");
}

TEST_F(ConfigTest, TlocListMayBeRemovedAndNamedInOneCall) {
  block("p");
  sequence(POL_CFG_CREATED, {leaf(0x72d28bfe, text("a"))});
  sequence(POL_CFG_MODIFIED, {leaf(0x72d28bfe, text("b")), leaf(0x72d28bfe, none())});
  EXPECT_EQ(sets(), " tloc-list: b [none]");
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
  EXPECT_EQ(shown(entry10()),
            "match route tag: 1 domain: 3 group: 6 preference: 2 vpn-id: 4 vpn-list: v site-id: 5 "
            "site-list: s tloc: 0.0.0.10:11:2 tloc-list: t prefix-list: x origin: 4 2 "
            "originator: 0.0.0.8 carrier: 9 color: satellite color-list: c action: reject set:");

  // Deleting the match of another type leaves this one alone.
  match(POL_CFG_DELETED, 1);
  match(POL_CFG_MODIFIED, 0,
        {leaf(0x33c074ce, none(32)), leaf(0x2b503622, none()), leaf(0x33c074ce, none(33)),
         leaf(0x2b503622, none()), leaf(0x5dc389d2, none()), leaf(0x775cf168, none()),
         leaf(0x0c2c7467, none()), leaf(0x1beabc63, none()), leaf(0x470748d8, none())});
  EXPECT_EQ(shown(entry10()),
            "match route group: 6 preference: 2 vpn-id: 4 vpn-list: v site-id: 5 site-list: s "
            "tloc-list: t carrier: 9 color-list: c action: reject set:");
  match(POL_CFG_DELETED, 0);
  EXPECT_EQ(shown(entry10()), "match route action: reject set:");
  match(POL_CFG_CREATED, 2);
  match(POL_CFG_DELETED, 0);
  EXPECT_EQ(shown(entry10()), "match service action: reject set:");
}

TEST_F(ConfigTest, MembershipSequencesMatchServices) {
  read(pol_config_membership_policy_read, POL_CFG_CREATED, {text("p")});
  auto seq = [&](uint32_t op, const cfg::Leaves& leaves = {}) {
    return read(pol_config_membership_policy_seq_read, op, {text("p"), u16(10)}, leaves, 2);
  };
  auto shows = [&] { return shown(entry10(POL_KIND_MEMBERSHIP)); };
  seq(POL_CFG_CREATED);
  EXPECT_EQ(shows(), "match service action: reject set:");
  seq(POL_CFG_MODIFIED,
      {leaf(0x6aebf6e6, text("v")), leaf(0x4d7d11c2, u32(4)), leaf(0x0369ffb7, word(0))});
  EXPECT_EQ(shows(), "match service vpn-id: 4 vpn-list: v action: accept set:");
  seq(POL_CFG_MODIFIED, {leaf(0x6aebf6e6, none()), leaf(0x4d7d11c2, none())});
  EXPECT_EQ(shows(), "match service action: accept set:");
  seq(POL_CFG_DELETED);
  EXPECT_EQ(entry10(POL_KIND_MEMBERSHIP), nullptr);
  // A change below what does not exist has nothing to act on.
  EXPECT_EQ(seq(POL_CFG_MODIFIED, {leaf(0x4d7d11c2, u32(4))}), 0u);
}

using ConfigDeathTest = ConfigTest;

// One of each type that a reader asserts; the texts are what is searched for in crash reports.
TEST_F(ConfigDeathTest, WrongTypesFailTheirAssertions) {
  const pol_cfg_value l = text("l");
  EXPECT_DEATH(read(pol_config_policy_site_list, 1, {u32(1), l}), "\\(key_p\\)->type == C_BUF");
  EXPECT_DEATH(read(pol_config_policy_tloc_list, 1, {l, l, word(1), word(1)}),
               "\\(\\(key_p\\)\\)->type == C_IPV6");
  EXPECT_DEATH(read(pol_config_policy_prefix_list, 1, {l, l}),
               "\\(\\(key_p\\)\\)->type == C_IPV4PREFIX");
  EXPECT_DEATH(read(pol_config_policy_prefix_list, 1, {l, cfg::ipv4_prefix(0, 0)},
                    {leaf(0x10ae453c, u32(1))}),
               "\\(&cur_val_p->v\\)->type == C_UINT8");
  block("p");
  EXPECT_DEATH(read(pol_config_control_policy_seq_read, 1, {text("p"), u32(1)}, {}, 2),
               "\\(key_p\\)->type == C_UINT16");
  EXPECT_DEATH(sequence(1, {leaf(0x0c2c7467, u8(1))}), "->type == C_UINT32");
  EXPECT_DEATH(sequence(1, {leaf(0x6aebf6e6, u32(1))}), "->type == C_BUF");
  EXPECT_DEATH(sequence(1, {leaf(0x32fc12e6, none(32)), leaf(0x61fa2cdb, u32(1))}),
               "\\(\\(&cur_val_p->v\\)\\)->type == C_IPV6");
  EXPECT_DEATH(sequence(1, {leaf(0x0369ffb7, none())}), "->type == C_ENUM_VALUE");
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
