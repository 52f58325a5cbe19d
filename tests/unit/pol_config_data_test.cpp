// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <utility>

#include "support/cfg_values.h"
#include "support/forward_fixture.h"

namespace {

using cfg::leaf;
using cfg::none;
using cfg::text;
using cfg::u16;
using cfg::u32;
using cfg::word;

constexpr uint32_t kSlaClass = 0x1fc19c53;
constexpr uint32_t kStrict = 0x5c327362;
constexpr uint32_t kColors = 0x6464ce5d;
constexpr uint32_t kSaas = 0x07441945;
constexpr uint32_t kVpn = 0x4d7d11c2;
constexpr uint32_t kTlocList = 0x72d28bfe;
constexpr uint32_t kAddress = 0x61fa2cdb;
constexpr uint32_t kColor = 0x2b503622;
constexpr uint32_t kEncap = 0x5a62686b;
constexpr uint32_t kLocal = 0x7ef235bf;
constexpr uint32_t kType = 0x6ccfcce4;
constexpr uint32_t kAction = 0x0369ffb7;
constexpr uint32_t kA = 0x0a000001;

pol_cfg_value yes(bool value = true) {
  pol_cfg_value v = none(C_BOOL);
  v.val.boolean = value ? 1 : 0;
  return v;
}

pol_cfg_value list(std::vector<pol_cfg_value>& values) {
  pol_cfg_value v = none(C_LIST);
  v.val.list.size = static_cast<uint32_t>(values.size());
  v.val.list.ptr = values.data();
  return v;
}

cfg::Leaves in(uint32_t container, cfg::Leaves leaves) {
  leaves.insert(leaves.begin(), leaf(container, none(C_XMLBEGIN)));
  leaves.push_back(leaf(container, none(C_XMLEND)));
  return leaves;
}
cfg::Leaves in_tloc(cfg::Leaves leaves) { return in(0x33c074ce, std::move(leaves)); }
cfg::Leaves in_service(cfg::Leaves leaves) { return in(0x32fc12e6, std::move(leaves)); }
cfg::Leaves operator+(cfg::Leaves a, const cfg::Leaves& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class ConfigDataTest : public ForwardTest {
 protected:
  uint32_t policy(uint32_t op, uint32_t kind = POL_KIND_DATA, uint8_t level = 1) {
    const cfg::Keys keys = {text("p")};
    return pol_config_fwd_read(kind, nullptr, ctx, op, level, keys.data(), 0, nullptr);
  }

  uint32_t vpn_list(uint32_t op, const cfg::Leaves& leaves = {}, uint32_t kind = POL_KIND_DATA,
                    uint8_t level = 2) {
    const cfg::Keys keys = {text("p"), text("v")};
    return pol_config_fwd_vpn_list_read(kind, nullptr, ctx, op, level, keys.data(),
                                        static_cast<uint16_t>(leaves.size()), leaves.data());
  }

  uint32_t seq(uint32_t op, const cfg::Leaves& leaves = {}, uint32_t kind = POL_KIND_DATA,
               pol_cfg_value number = u16(1), uint8_t level = 3) {
    const cfg::Keys keys = {text("p"), text("v"), number};
    return pol_config_fwd_seq_read(kind, nullptr, ctx, op, level, keys.data(),
                                   static_cast<uint16_t>(leaves.size()), leaves.data());
  }

  // Sequence 1 in a line: TLOC, VPN, service, TLOC list, what those resolved to.
  std::string action() {
    const t_pol_entry& e = *find(1);
    std::string line =
        (e.set_flags & POL_FWD_SET_F_TLOC) != 0 ? printed_tloc(e.fwd.tloc) + " " : "";
    line += "vpn " + std::to_string(e.fwd.vpn_id);
    if (e.fwd.service != 0) {
      line += " service " + std::to_string(e.fwd.service) + (e.fwd.service_local != 0 ? "!" : "");
    }
    const pol::NamedHead* list = e.fwd.user->tloc_list.list;
    if (list != nullptr) line += std::string(" list ") + list->name;
    return e.fwd.tlocs.empty() ? line : line + " -> " + tlocs(1);
  }

  // An app-route policy's class: "name strict colors".
  std::string sla(uint32_t number) {
    const t_pol_entry& e = *find(number, "p", POL_KIND_PERF_ROUTE);
    const pol::NamedHead* object = e.fwd.user->sla_class.list;
    return (object != nullptr ? object->name : std::string("-")) + " " +
           std::to_string(e.fwd.sla_option) + " " + std::to_string(e.fwd.sla_value);
  }
};

// Each report: who was told by then, whether the policy is to be fetched again.
TEST_F(ConfigDataTest, PoliciesVpnListsAndSequencesComeAndGo) {
  t_pol_block* p = pol_block_find(ctx, "p", POL_KIND_DATA, nullptr);
  auto reported = [&](uint32_t status, int told, bool fetch) {
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(calls.count, told);
    EXPECT_EQ(std::exchange(p->fetch_xml, 0), fetch);
  };
  p->fetch_xml = 0;
  reported(policy(POL_CFG_CREATED), 0, true);  // it was there
  reported(policy(POL_CFG_MODIFIED), 0, false);
  EXPECT_EQ(find(0), nullptr);
  reported(vpn_list(POL_CFG_CREATED), 0, true);
  EXPECT_NE(find(0), nullptr) << "the VPN list's own settings";
  reported(vpn_list(POL_CFG_MODIFIED, {leaf(kAction, none())}), 0, true);
  reported(vpn_list(POL_CFG_MODIFIED, {leaf(0x7037c488, word(0))}), 1, true);

  auto last = [&](uint32_t op, const cfg::Leaves& leaves = {}) {
    return seq(op, leaves, POL_KIND_DATA, u16(65535));
  };
  reported(last(POL_CFG_CREATED), 1, true);
  EXPECT_NE(find(65535), nullptr);
  // Once for all that the library does not keep.
  reported(last(POL_CFG_MODIFIED, {leaf(kAction, word(0)), leaf(1, none()), leaf(2, none())}), 2,
           true);
  reported(last(POL_CFG_DELETED), 3, true);
  EXPECT_EQ(find(65535), nullptr);
  reported(vpn_list(POL_CFG_DELETED), 4, true);
  EXPECT_EQ(pol_vpn_list_first(ctx), nullptr);
  reported(policy(POL_CFG_DELETED), 4, false);
  EXPECT_EQ(take_queued(), std::vector<std::string>{"u"}) << "told with the next batch";
}

TEST_F(ConfigDataTest, MatchesNameTheirObjects) {
  const std::pair<uint32_t, t_pol_clause_user t_pol_fwd_user::*> rows[] = {
      {0x542ece51, &t_pol_fwd_user::app_list}, {0x5a06eb58, &t_pol_fwd_user::dns_app_list},
      {0x32d6e4cb, &t_pol_fwd_user::src_pfx},  {0x4db8ee1a, &t_pol_fwd_user::dst_pfx},
      {0x5754b118, &t_pol_fwd_user::src_pfx6}, {0x71567138, &t_pol_fwd_user::dst_pfx6},
      {0x58e2217b, &t_pol_fwd_user::policer},  {kSaas, &t_pol_fwd_user::saas_app_list}};
  seq(POL_CFG_CREATED);
  std::vector<pol_cfg_value> names = {text("x"), text("o")}, empty;  // one list, the last
  for (const auto& [tag, role] : rows) {
    const t_pol_clause_user& user = find(1)->fwd.user->*role;
    calls.count = 0;
    seq(POL_CFG_MODIFIED, {leaf(tag, tag == kSaas ? list(names) : text("a")),
                           leaf(tag, tag == kSaas ? list(names) : text("o"))});
    ASSERT_NE(user.list, nullptr) << std::hex << tag;
    EXPECT_STREQ(user.list->name, "o");
    EXPECT_EQ(calls.count, 1);
    seq(POL_CFG_MODIFIED, {leaf(tag, tag == kSaas ? list(empty) : none())});
    EXPECT_EQ(user.list, nullptr);
    EXPECT_EQ(calls.count, 2);
  }
  EXPECT_EQ(labeled(), "") << "no match has labels";
}

// Each step: what is reported of sequence 1, how it stands then, and whether it was labeled.
TEST_F(ConfigDataTest, ActionsAreLaidOverWhatTheSequenceHas) {
  host.service = {result(tloc4(9), 70)};
  list_tloc("l", tloc4(5), 2);
  const pol_cfg_value a = cfg::ipv4(kA), gone = none(), set = none(C_XMLTAG);
  const struct {
    cfg::Leaves leaves;
    const char* action;
    bool labeled;
  } steps[] = {
      {{leaf(kAddress, a), leaf(kColor, word(3))}, "vpn 0", false},  // outside any TLOC
      {{leaf(kVpn, u32(8))}, "vpn 8", true},
      {in_tloc({leaf(kAddress, a), leaf(kColor, word(3)), leaf(kEncap, word(1))}),
       "10.0.0.1:3:0 vpn 8", true},  // no flag, no encapsulation
      {in_tloc({leaf(kEncap, word(1)), leaf(kLocal, set)}), "10.0.0.1:3:1 vpn 8", true},
      {in_tloc({leaf(kColor, word(5))}), "10.0.0.1:5:1 vpn 8", true},
      {in_tloc({leaf(kEncap, word(2))}), "10.0.0.1:5:2 vpn 8", true},  // the flag lasts
      {in_tloc({leaf(kLocal, gone)}), "10.0.0.1:5:0 vpn 8", true},
      {in_tloc({leaf(kEncap, word(1))}), "10.0.0.1:5:0 vpn 8", true},
      {in_tloc({leaf(kLocal, set)}), "10.0.0.1:5:1 vpn 8", true},  // alone
      {in_tloc({leaf(kColor, gone)}), "10.0.0.1:0:1 vpn 8", true},
      {in_tloc({leaf(kAddress, gone), leaf(kEncap, gone)}), "vpn 8", true},
      {{leaf(kTlocList, text("l"))}, "vpn 8 list l -> 0.0.0.5:1:2=0/2 ", true},
      {in_service({leaf(kType, word(4))}), "vpn 8 service 4 list l -> 0.0.0.5:1:2=0/2 ", true},
      {{leaf(kTlocList, gone)}, "vpn 8 service 4 -> 0.0.0.9:1:2=70/0 ", true},
      {in_service({leaf(kLocal, set)}), "vpn 8 service 4! -> 0.0.0.9:1:2=70/0 ", true},
      {in_service({leaf(kType, word(5))}), "vpn 8 service 5! -> 0.0.0.9:1:2=70/0 ", true},
      {{leaf(kVpn, gone)}, "vpn 0 service 5! -> 0.0.0.9:1:2=70/0 ", true},
      {in_service({leaf(kVpn, u32(9)), leaf(kLocal, gone)}), "vpn 9 service 5 -> 0.0.0.9:1:2=70/0 ",
       true},
      // A TLOC that goes into the service: the same place.
      {in_tloc({leaf(kAddress, a), leaf(kColor, word(3))}), "10.0.0.1:3:0 vpn 9 service 5", true},
      {in_tloc({leaf(kAddress, gone), leaf(kColor, gone)}) +
           in_service(in_tloc({leaf(kAddress, cfg::ipv4(7)), leaf(kColor, word(2))})),
       "0.0.0.7:2:0 vpn 9 service 5", true},
      {in_service(in_tloc({leaf(kAddress, gone), leaf(kColor, gone)})),
       "vpn 9 service 5 -> 0.0.0.9:1:2=70/0 ", true},
      {{leaf(kTlocList, text("x")), leaf(kTlocList, text("l")), leaf(kTlocList, gone)},
       "vpn 9 service 5 list l -> 0.0.0.5:1:2=0/2 ",
       true},
      {in_service({leaf(kType, gone)}), "vpn 9 list l -> 0.0.0.5:1:2=0/2 ", true},
      {in_service({leaf(kVpn, gone), leaf(kTlocList, gone)}), "vpn 0", true},
      {{leaf(kAction, word(1))}, "vpn 0", false},
  };
  seq(POL_CFG_CREATED);
  for (size_t i = 0; i < std::size(steps); ++i) {
    take_requests();
    calls.count = 0;
    seq(POL_CFG_MODIFIED, steps[i].leaves);
    EXPECT_EQ(action(), steps[i].action) << "step " << i;
    EXPECT_EQ(!labeled().empty(), steps[i].labeled) << "step " << i;
    EXPECT_EQ(calls.count, i == 0 ? 0 : 1) << "step " << i;
  }
}

// Labels are those of all that one report gave, and are handed on once.
TEST_F(ConfigDataTest, OneReportIsLabeledOnce) {
  host.labels = {{kA, 50}};
  host.service = {result(tloc4(kA), 70)};
  seq(POL_CFG_CREATED, cfg::Leaves{leaf(kVpn, u32(8))} +
                           in_service({leaf(kType, word(4)), leaf(kLocal, none(C_XMLTAG))}));
  EXPECT_EQ(labeled(), "1@50: 10.0.0.1:1:2=50\n");
  EXPECT_EQ(host.asked[0], "0:0:0 unknown:0:0 vpn 8 service 4 local");
}

TEST_F(ConfigDataTest, SlaClassesGoWithTheirSettings) {
  constexpr uint32_t kPerf = POL_KIND_PERF_ROUTE;
  Calls told;
  add_user("a", "p", &told, POL_DIR_OUT, kPerf);
  policy(POL_CFG_CREATED, kPerf);
  std::vector<pol_cfg_value> colors = {word(2), word(9), word(0), word(31)}, none_left;
  auto both = [&](uint32_t op, const cfg::Leaves& leaves) {
    vpn_list(op, leaves, kPerf);
    seq(op, leaves, kPerf);
    EXPECT_EQ(sla(0), sla(1));
    return sla(1);
  };
  EXPECT_EQ(both(POL_CFG_CREATED, {leaf(kStrict, yes())}), "- 0 0") << "settings of no class";
  EXPECT_EQ(both(POL_CFG_MODIFIED, {leaf(kSlaClass, text("gold")), leaf(kStrict, yes()),
                                    leaf(kColors, list(colors))}),
            "gold 1 4");
  EXPECT_EQ(both(POL_CFG_MODIFIED, {leaf(kColors, list(colors)), leaf(kColors, list(none_left)),
                                    leaf(kStrict, none()), leaf(kSlaClass, text("gold"))}),
            "gold 0 0");
  told.count = 0;
  both(POL_CFG_MODIFIED, {leaf(kSlaClass, text("gold"))});
  EXPECT_EQ(told.count, 0) << "nothing new";
  EXPECT_EQ(both(POL_CFG_MODIFIED, {leaf(kSlaClass, none())}), "- 0 0");
  EXPECT_EQ(told.count, 2);
}

using ConfigDataDeathTest = ConfigDataTest;

TEST_F(ConfigDataDeathTest, WrongLevelsKindsAndParentsEndTheProcess) {
  const auto crashed = ::testing::KilledBySignal(SIGSEGV);
  constexpr uint32_t kData = POL_KIND_DATA;
  EXPECT_EXIT(policy(1, kData, 2), crashed, "");
  EXPECT_EXIT(vpn_list(1, {}, kData, 3), crashed, "");
  EXPECT_EXIT(seq(1, {}, kData, u16(1), 1), crashed, "");
  EXPECT_EXIT(policy(1, POL_KIND_ROUTE), crashed, "");
  EXPECT_EXIT(vpn_list(1, {}, POL_KIND_CFLOWD), crashed, "");
  EXPECT_EXIT(seq(1, {}, POL_KIND_MEMBERSHIP), crashed, "");
  EXPECT_EXIT(vpn_list(1, {}, POL_KIND_PERF_ROUTE), crashed, "") << "no such policy";
  EXPECT_EXIT(vpn_list(1, {leaf(kStrict, none())}), crashed, "") << "no SLA in a data policy";
  EXPECT_EXIT(seq(1, {leaf(kSlaClass, text("gold"))}), crashed, "");
  pol_fwd_vpn_find_and_delete(ctx, "p", kData, "v");
  EXPECT_EXIT(seq(1), crashed, "") << "no such VPN list";
}

TEST_F(ConfigDataDeathTest, WrongTypesFailTheirAssertions) {
  constexpr uint32_t kPerf = POL_KIND_PERF_ROUTE;
  std::vector<pol_cfg_value> texts = {word(1), text("x")}, high = {word(32)};
  EXPECT_DEATH(seq(3, {}, POL_KIND_DATA, u32(1)), "\\(key_p\\)->type == C_UINT16");
  const std::tuple<uint32_t, pol_cfg_value, const char*> rows[] = {
      {kStrict, u32(1), "\\(&cur_val_p->v\\)->type == C_BOOL"},
      {kColors, list(texts), "\\(&cur_val_p->v.val.list.ptr\\[num\\]\\)->type == C_ENUM_VALUE"},
      {kColors, list(high), "enum_val < 32"},
      {kColors, word(1), "->type == C_LIST"},
      {kSlaClass, word(1), "\\(&cur_val_p->v\\)->type == C_BUF"},
      {kSaas, list(texts), "\\(&cur_val_p->v.val.list.ptr\\[num\\]\\)->type == C_BUF"},
      {kVpn, text("1"), "\\(&cur_val_p->v\\)->type == C_UINT32"},
  };
  for (const auto& [tag, value, message] : rows) {
    EXPECT_DEATH(seq(3, {leaf(tag, value)}, kPerf), message);
  }
  EXPECT_DEATH(seq(3, in_tloc({leaf(kAddress, u32(1))})),
               "\\(\\(&cur_val_p->v\\)\\)->type == C_IPV6");
}

}  // namespace
