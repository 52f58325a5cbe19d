// SPDX-License-Identifier: Apache-2.0
#include "support/policy_fixture.h"

namespace {

using ClauseTest = PolicyTest;

TEST_F(ClauseTest, FlagNamesPrintInOrderAndNeverPastTheBuffer) {
  t_pol_entry* e = entry(block("p"), 10);
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

}  // namespace
