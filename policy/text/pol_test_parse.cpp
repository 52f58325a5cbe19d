// SPDX-License-Identifier: Apache-2.0
// Reads a text policy file into the context.
//
// pol_test_grammar holds the grammar; a line's words are carried out by pol_test_route_policy
// (policies) and pol_test_lists (lists), or by the host (site policies). Nothing of a line outlives
// it: each names its policy and sequence, or its list, again.
#include <cstdio>
#include <cstring>

#include "base/pol_log.h"
#include "policy/pol_user.h"
#include "text/pol_test_grammar.h"

namespace {

// A longer line is read as several, each of which loses its last character but the last.
constexpr int kLineSize = 80;

void run_line(t_pol_test_tokens tokens, uint32_t count, uint32_t kind,
              t_pol_test_site_policy site_policy) {
  switch (kind) {
    case POL_TEST_PFX_LIST:
      return pol_test_parse_pfx_list(tokens, count);
    case POL_TEST_TLOC_LIST:
      return pol_test_parse_tloc_list(tokens, count);
    case POL_TEST_SITE_LIST:
      return pol_test_parse_site_list(tokens, count);
    case POL_TEST_ROUTE_POLICY:
    case POL_TEST_FWD_POLICY:
      return pol_test_parse_route_policy(tokens, count);
    case POL_TEST_SITE_POLICY:
      if (site_policy != nullptr) site_policy(tokens, count);
      return;
    default:
      return;
  }
}

int parse(const char* path, t_pol_test_site_policy site_policy, pol::Caller parser) {
  POL_LOG_PLAIN_FROM(parser, "Parsing policy file %s\n", path);
  FILE* file = fopen(path, "r");
  if (file == nullptr) {
    POL_LOG_FROM(parser, "Failed to open file @%s\n", path);
    return -1;
  }
  char line[kLineSize];
  t_pol_test_tokens tokens;
  for (int number = 0; fgets(line, sizeof line, file) != nullptr; ++number) {
    POL_LOG_PLAIN_FROM(parser, "%d %s\n", number, line);
    memset(tokens, 0, sizeof tokens);
    uint32_t kind = POL_TEST_OTHER;
    uint32_t count = pol_test_get_tokens(line, tokens, &kind);
    run_line(tokens, count, kind, site_policy);
  }
  fclose(file);
  if (g_pol_ctx_p != nullptr) pol_user_chg_list_notify_all(g_pol_ctx_p);
  return 0;
}

}  // namespace

int pol_test_parse_file(const char* path, t_pol_test_site_policy site_policy) {
  return path != nullptr ? parse(path, site_policy, pol::Caller::here()) : -1;
}

void pol_test_parse_cfg(t_pol_test_site_policy site_policy) {
  (void)parse(POL_TEST_CFG_PATH, site_policy, pol::Caller::here());
}
