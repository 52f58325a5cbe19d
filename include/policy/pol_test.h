/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_test.h - policy from a flat text file, for diagnosis without a management agent.
 *
 * A line is one command: its first word names the grammar, further words are read left to right.
 * Bad numbers count as 0 and nothing is reported, but to the system log; pol_test_check_file says
 * what is wrong with a file without touching policy.
 */
#ifndef POLICY_POL_TEST_H
#define POLICY_POL_TEST_H

#include "policy/pol_types.h"

#define POL_TEST_TOKENS 20     /* words of a line that count; more are dropped */
#define POL_TEST_TOKEN_SIZE 50 /* bytes of a word, with its NUL; more are cut */
#define POL_TEST_CFG_PATH "/var/run/policy_cfg.txt"

typedef char t_pol_test_tokens[POL_TEST_TOKENS][POL_TEST_TOKEN_SIZE];

/* What a line configures, by its first word. */
enum pol_test_line {
  POL_TEST_PFX_LIST = 1,
  POL_TEST_TLOC_LIST = 2,
  POL_TEST_SITE_LIST = 3,
  POL_TEST_ROUTE_POLICY = 4,
  POL_TEST_FWD_POLICY = 5,
  POL_TEST_SITE_POLICY = 6,
  POL_TEST_OTHER = 7 /* ignored; on purpose: lines of VPN lists too */
};

/* Takes the lines of site policies, which are the host's own. */
typedef void (*t_pol_test_site_policy)(t_pol_test_tokens tokens, uint32_t count);

/* Splits a line at blanks into `tokens`, which the caller has zeroed, and returns their number. The
 * last character of the last word is taken for the newline and dropped, whatever it is. REQUIRES:
 * `line` is NUL-terminated. */
POL_API uint32_t pol_test_get_tokens(const char* line, t_pol_test_tokens tokens, uint32_t* kind);

/* Reads POL_TEST_CFG_PATH, or a given file, into g_pol_ctx_p and notifies once. A null handler
 * ignores site policies. pol_test_parse_file returns 0, or -1 when the file cannot be opened. */
POL_API void pol_test_parse_cfg(t_pol_test_site_policy site_policy);
POL_API int pol_test_parse_file(const char* path, t_pol_test_site_policy site_policy);

/* Carry out one line; nothing without a context. A missing value reads as an empty word, a word
 * where a keyword should stand ends the line. */
POL_API void pol_test_parse_route_policy(t_pol_test_tokens tokens, uint32_t count);
POL_API void pol_test_parse_pfx_list(t_pol_test_tokens tokens, uint32_t count);
POL_API void pol_test_parse_tloc_list(t_pol_test_tokens tokens, uint32_t count);
POL_API void pol_test_parse_site_list(t_pol_test_tokens tokens, uint32_t count);
POL_API void pol_test_parse_vpn_list(t_pol_test_tokens tokens);

/* "A.B.C.D/L" and "A.B.C.D:COLOR", IPv4. Numbers that the text does not give are 0; of those that
 * are too large the low bits count. Fields without a place in the text stay as they were. */
POL_API void pol_test_pfx_str_to_pfx(const char* text, t_ipprefix* prefix);
POL_API void pol_test_tloc_str_to_tloc(const char* text, t_tloc_id* tloc);

enum pol_test_severity { POL_TEST_ERROR = 1, POL_TEST_WARNING = 2 };

/* One finding of a check; text lives for the call only. */
typedef struct t_pol_test_finding {
  uint32_t line;   /* from 1 */
  uint32_t column; /* from 1, in bytes */
  uint32_t severity;
  const char* what;     /* the cause */
  const char* expected; /* what would have been right; null when nothing else fits */
} t_pol_test_finding;

typedef void (*t_pol_test_finding_cb)(const t_pol_test_finding* finding, void* arg);

/* Reports everything wrong with a policy file, in order of line and column, errors and warnings
 * together. Returns the number of findings, or -1 when the file cannot be read or memory runs out.
 * Needs no context, and takes none into account: what only the host configured counts as never
 * made. */
POL_API int pol_test_check_file(const char* path, t_pol_test_finding_cb report, void* arg);

#endif
