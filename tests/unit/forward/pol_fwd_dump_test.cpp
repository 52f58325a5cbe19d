// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <regex>

#include "exchange/pol_xml_config_internal.h"
#include "support/forward_fixture.h"
#include "support/golden.h"

namespace {

class FwdDumpTest : public ForwardTest {
 protected:
  // Sequence 1 with all that a sequence can have.
  void build() {
    sequence(0), sequence(1);
    uint8_t* c = &changed;
    t_pol_entry* e = find(1);
    pol_fwd_entry_match_src_list_add(ctx, e, "src", c);
    pol_fwd_entry_match_src6_list_add(ctx, e, "src", c);
    pol_fwd_entry_match_dst_list_add(ctx, e, "dst", c);
    pol_fwd_entry_match_dst6_list_add(ctx, e, "dst6", c);
    pol_fwd_entry_match_app_id_add(ctx, e, "id", c);
    for (auto name : {pol_fwd_entry_app_list_upd, pol_fwd_entry_dns_app_list_upd,
                      pol_fwd_entry_saas_app_list_upd, pol_fwd_entry_policer_upd}) {
      name(ctx, "p", POL_KIND_DATA, "v", 1, "o");
    }
    host.service = {result(tloc4(0x0a000001, 3), 100, 7)};
    set_vpn(1, 4294967296u);
    set_service(1, 1, 1);
    set_tloc(1, tloc4(0x0a000002, 4));
    host.labels = {{0x0a000002, 55}};
    pol_fwd_upd_label(ctx, "p", POL_KIND_DATA, "v", 1);
    pol_fwd_entry_set_tloc_list_add(ctx, sequence(2), "l", c);
    block("route", POL_KIND_PERF_ROUTE);
    pol_fwd_vpn_find_or_create(ctx, "route", POL_KIND_PERF_ROUTE, "w");
    pol_fwd_entry_sla_class_add(
        ctx, pol_fwd_entry_find_or_create(ctx, "route", POL_KIND_PERF_ROUTE, "w", 65535), "gold", 1,
        4, c);
    const std::tuple<int32_t, const char*, time_t, int32_t> fetched[] = {
        {POL_XML_VPN_LIST, "v", 100, 1},
        {POL_XML_DATA_PREFIX_LIST, "src", 200, 9},
        {POL_XML_DATA_IPV6_PREFIX_LIST, "src", 300, 4},
        {POL_XML_DATA_PREFIX_LIST, "dst", 500, 2},
        {POL_XML_DATA_IPV6_PREFIX_LIST, "dst6", 400, 3},
        {POL_XML_APP_LIST, "o", 600, 5},
        {POL_XML_POLICER, "o", 700, 6},
        {POL_XML_TLOC_LIST, "l", 800, 7},
        {POL_XML_SLA_CLASS, "gold", 900, 8}};
    for (const auto& [type, name, start, longest] : fetched) {
      pol_xml_config_find_or_create(type, name)->fetched = {start, start + 2, longest};
    }
  }
};

TEST_F(FwdDumpTest, PoliciesMatchTheirGolden) {
  setenv("TZ", "UTC", 1);
  tzset();
  build();
  const std::string text =
      printed([](t_cli_user_ctx* cli) { pol_dump_fwd_policies(cli, 0, 0, nullptr); });
  expect_golden("dump/forwarding.ok",
                std::regex_replace(text, std::regex("0x[0-9a-f]{9,}"), "PTR") + "\n");
  for (auto name : {pol_fwd_entry_dns_app_list_upd, pol_fwd_entry_saas_app_list_upd}) {
    name(ctx, "p", POL_KIND_DATA, "v", 1, nullptr);
  }
}

using FwdDumpDeathTest = FwdDumpTest;

TEST_F(FwdDumpDeathTest, SequencesOfOtherPoliciesEndTheProcess) {
  EXPECT_EXIT(pol_dump_fwd_entry(entry(block("r"), 1), nullptr), ::testing::KilledBySignal(SIGSEGV),
              "");
}

}  // namespace
