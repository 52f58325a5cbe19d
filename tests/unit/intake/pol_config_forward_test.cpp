// SPDX-License-Identifier: Apache-2.0
#include <csignal>

#include "support/cfg_values.h"
#include "support/forward_fixture.h"

namespace {

using cfg::text;

class ConfigForwardTest : public ForwardTest {
 protected:
  uint32_t read(t_pol_config_reader reader, uint32_t op, uint32_t num = 1, uint8_t level = 1) {
    const cfg::Keys keys = {text("o"), cfg::word(1)};
    return reader(nullptr, ctx, op, level, keys.data(), num, nullptr);
  }
};

// An object, named by sequence 1 of the policy, and what stands in its reader's trace.
struct Object {
  const char* what;
  t_pol_config_reader read;
  decltype(&pol_fwd_entry_app_list_upd) name;
  pol::MemType memory;
  const char* trace;
  const char* failure;
};

constexpr const char* kPfxTrace = "Fwd pfx list: o, oper:1, num_values:0\n";

const Object kObjects[] = {
    {"app id", pol_config_policy_app_id_read, pol_fwd_entry_app_id_upd, pol::MEM_APP_ID,
     "APP ID Config - Name:o, Oper:1, num:0\n", "Failed to create fwd app id: o"},
    {"prefix list", pol_config_fwd_pfx_list_read, pol_fwd_entry_dst_pfx_upd, pol::MEM_FWD_PFX_LIST,
     kPfxTrace, "Failed to create fwd pfx-list - pfx: o"},
    {"IPv6 prefix list", pol_config_fwd_pfx6_list_read, pol_fwd_entry_src_pfx6_upd,
     pol::MEM_FWD_PFX_LIST, "Fwd pfx6 list: o, oper:1, num_values:0\n",
     "Failed to create fwd pfx6-list - pfx: o"},
    {"policer", pol_config_fwd_policer_read, pol_fwd_entry_policer_upd, pol::MEM_POLICER,
     "policer Config - Name:o, Oper:1, num:0\n", "Failed to create fwd sla class: o"},
    {"application list", pol_config_app_list_read, pol_fwd_entry_app_list_upd, pol::MEM_APP_LIST,
     kPfxTrace, "Failed to create fwd app-list: o"},
    {"SLA class", pol_config_policy_sla_class_read, nullptr, pol::MEM_SLA_CLASS,
     "SLA Class Config - Name:o, Oper:1, num:0\n", "Failed to create fwd sla class: o"},
};

TEST_F(ConfigForwardTest, ObjectsComeChangeAndGo) {
  sequence(1);
  for (const Object& object : kObjects) {
    SCOPED_TRACE(object.what);
    pol_debug_set(1);
    EXPECT_EQ(read(object.read, POL_CFG_CREATED, 0x70000), 0u);
    EXPECT_NE(seams::take_log().find(object.trace), std::string::npos);
    pol_debug_set(0);
    EXPECT_EQ(current(object.memory), 1u);
    if (object.name != nullptr) {
      object.name(ctx, "p", POL_KIND_DATA, "v", 1, "o");
      take_queued();
      calls.count = 0;
      for (uint32_t op : {POL_CFG_MODIFIED, POL_CFG_VALUE_SET}) read(object.read, op, 0x70000);
      EXPECT_EQ(calls.count, 0) << "no leaf, no change";
      for (uint32_t op : {POL_CFG_CREATED, POL_CFG_MODIFIED, POL_CFG_VALUE_SET, POL_CFG_DELETED}) {
        EXPECT_EQ(read(object.read, op, 1), 0u);
      }
      EXPECT_EQ(calls.count, 3);
      EXPECT_EQ(current(object.memory), 1u) << "still used";
      object.name(ctx, "p", POL_KIND_DATA, "v", 1, nullptr);
    }
    read(object.read, POL_CFG_DELETED);
    EXPECT_EQ(current(object.memory), 0u);
    read(object.read, 9);
    EXPECT_EQ(current(object.memory), 0u) << "no such operation";
  }
}

TEST_F(ConfigForwardTest, AnyReportOfAMemberChangesTheObject) {
  const std::tuple<t_pol_config_reader, uint8_t, decltype(&pol_fwd_entry_app_list_upd)> rows[] = {
      {pol_config_fwd_pfx_list_ip_read, 2, pol_fwd_entry_src_pfx_upd},
      {pol_config_fwd_pfx6_list_ip_read, 2, pol_fwd_entry_dst_pfx6_upd},
      {pol_config_app_list_app_read, 7, pol_fwd_entry_app_list_upd},
      {pol_config_app_list_app_family_read, 0, pol_fwd_entry_dns_app_list_upd}};
  sequence(1);
  for (const auto& [reader, level, name] : rows) {
    name(ctx, "p", POL_KIND_DATA, "v", 1, "o");
    take_queued();
    calls.count = 0;
    for (uint32_t op = POL_CFG_CREATED; op <= POL_CFG_VALUE_SET; ++op) {
      EXPECT_EQ(read(reader, op, 0, level), 0u);
    }
    EXPECT_EQ(calls.count, 4);
    name(ctx, "p", POL_KIND_DATA, "v", 1, nullptr);
  }
}

TEST_F(ConfigForwardTest, CflowdTemplatesAreFetchedAgainAndTold) {
  Calls told;
  add_user("c", "o", &told, POL_DIR_OUT, POL_KIND_CFLOWD);
  t_pol_block* flows = pol_block_find(ctx, "o", POL_KIND_CFLOWD, nullptr);
  auto reports = [&](t_pol_config_reader reader, uint32_t op, uint32_t num) {
    flows->fetch_xml = 0;
    told.count = 0;
    EXPECT_EQ(read(reader, op, num, 9), 0u);
    EXPECT_EQ(flows->fetch_xml, told.count);
    return told.count == 1;
  };
  EXPECT_TRUE(reports(pol_config_cflowd_template_read, POL_CFG_CREATED, 0)) << "though there";
  EXPECT_TRUE(reports(pol_config_cflowd_template_read, POL_CFG_MODIFIED, 1));
  EXPECT_FALSE(reports(pol_config_cflowd_template_read, POL_CFG_MODIFIED, 0));
  EXPECT_FALSE(reports(pol_config_cflowd_template_read, POL_CFG_VALUE_SET, 0x10000));
  EXPECT_TRUE(reports(pol_config_cflowd_collector_read, POL_CFG_DELETED, 0));
  told.count = 0;
  read(pol_config_cflowd_template_read, POL_CFG_DELETED);
  EXPECT_EQ(told.count, 0);
  EXPECT_EQ(take_queued(), std::vector<std::string>{"c"}) << "told with the next batch";
  EXPECT_EQ(pol_block_find(ctx, "o", POL_KIND_CFLOWD, nullptr), nullptr);
}

class ConfigForwardDeathTest : public ConfigForwardTest {
 protected:
  // Makes an object without memory; the process says what it logged as it ends.
  void last_words(t_pol_config_reader reader) {
    signal(SIGSEGV, [](int) {
      fputs(seams::take_log().c_str(), stderr);
      _exit(7);
    });
    pol_debug_set(1);
    seams::Fail armed(1);
    read(reader, POL_CFG_CREATED);
  }
};

TEST_F(ConfigForwardDeathTest, WhatCannotBeMadeEndsTheProcess) {
  const auto crashed = ::testing::KilledBySignal(SIGSEGV);
  for (const Object& object : kObjects) {
    SCOPED_TRACE(object.what);
    EXPECT_EXIT(read(object.read, POL_CFG_CREATED, 1, 2), crashed, "");
    if (object.read != pol_config_app_list_read) {
      EXPECT_EXIT(last_words(object.read), ::testing::ExitedWithCode(7), object.failure);
      continue;
    }
    seams::Fail armed(1);
    EXPECT_EQ(read(object.read, POL_CFG_CREATED), 1u);
    forgive(object.memory);
    EXPECT_NE(seams::take_log().find(object.failure), std::string::npos) << "at any level";
  }
  EXPECT_EXIT(read(pol_config_cflowd_collector_read, POL_CFG_CREATED), crashed, "");
  EXPECT_EXIT(read(pol_config_fwd_pfx_list_ip_read, POL_CFG_CREATED, 1, 1), crashed, "");
  EXPECT_EXIT(read(pol_config_fwd_pfx6_list_ip_read, POL_CFG_CREATED, 1, 3), crashed, "");
  const pol_cfg_value number = cfg::u32(1);
  EXPECT_DEATH(pol_config_app_list_app_read(nullptr, ctx, 1, 2, &number, 0, nullptr),
               "\\(key_p\\)->type == C_BUF");
}

}  // namespace
